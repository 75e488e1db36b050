// The home folder that the process was started with.
#pragma once

#import <Foundation/Foundation.h>

/// Value of the environment variable HOME, autoreleased; nil when it is unset. It need not be
/// the console user's home.
NSString* UserHomeDirectory();
