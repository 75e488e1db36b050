#pragma once

#import <Foundation/Foundation.h>

/// The version that was installed before, as the installer package noted it in
/// "previous_version.txt" below `installRoot`, without white space around it; autoreleased. Nil
/// when there is no such file, when it cannot be read as UTF-8, and when `installRoot` is nil. Logs
/// that it reads the file.
NSString* ReadPreviousVersion(NSString* installRoot);
