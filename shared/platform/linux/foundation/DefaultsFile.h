// Files of user defaults that belong to a user whom the process does not trust.
#pragma once

#import <Foundation/Foundation.h>

/// Returns the dictionary in the file of user defaults at `path`, autoreleased; nil when the file
/// is missing, is not a regular file, is longer than 64 KiB, cannot be read, or does not hold a
/// property list that passes IsSafePropertyList(). Does not wait for a FIFO or a device. Never
/// raises.
NSDictionary* DictionaryOfDefaultsFile(NSString* path);
