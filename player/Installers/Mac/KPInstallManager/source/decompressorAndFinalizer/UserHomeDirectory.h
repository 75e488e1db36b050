// The home folder in the environment of the process.
#pragma once

#import <Foundation/Foundation.h>

/// Returns the value of the environment variable HOME, autoreleased; nil when it is not set. It
/// need not be the console user's home.
NSString* UserHomeDirectory();
