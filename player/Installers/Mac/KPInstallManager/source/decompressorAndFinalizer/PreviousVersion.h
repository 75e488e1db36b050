#pragma once

#import <Foundation/Foundation.h>

/// Returns the version that was installed before, which the installer package has written to
/// "Library/Application Support/Velmora/previous_version.txt" below `installRoot`, without white
/// space around it; autoreleased. Nil when the file is missing or cannot be read as UTF-8, and when
/// `installRoot` is nil. Logs a line when the file exists.
NSString* ReadPreviousVersion(NSString* installRoot);
