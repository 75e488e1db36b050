// The settings file, for callers in Objective-C.
#pragma once

#import <Foundation/Foundation.h>

#include "player/ControlPanel/Common/SMConfigFileManager.h"

/// A settings file, read when the object is made and written by `synchronizeFile` only.
///
/// Strings are passed to the engine as UTF-8, up to their first NUL. A string that has no UTF-8
/// form (half of a surrogate pair) counts as nil. Nothing here raises or logs: a file that cannot
/// be read counts as empty, and a failed write is not reported. When memory runs out the engine
/// throws std::bad_alloc, before anything is written.
@interface KSConfigFileManager : NSObject {
 @private
  SASM::ConfigFileManager* mConfigFileManager;
}

/// Reads the file at `path`. For a missing or unreadable file the object has no settings; with
/// a nil path nothing is read, and nothing can be written.
- (id)initWithConfigFile:(NSString*)path;

/// Not available: the object needs a file.
- (id)init __attribute__((unavailable("use initWithConfigFile:")));

/// Returns every setting's key, in the order of the settings, as strings; autoreleased.
- (NSArray*)allKeys;

/// Returns the value of the first setting with this key, or the empty string for a missing key and
/// for nil; autoreleased, never nil. It overrides the generic key-value accessor on purpose.
- (NSString*)valueForKey:(NSString*)key;

/// Returns whether the text `string` reads as true: see `SASM::SimpleString::boolValue`. Pass the
/// value that `valueForKey:` returned, not a key.
- (BOOL)boolValue:(NSString*)string;

/// Replaces the value of the first setting with this key, or appends a setting, in memory only. A
/// nil key or value changes nothing.
- (void)setValue:(NSString*)value forKey:(NSString*)key;

/// Writes the settings over the whole file. A missing file is created, a missing folder is not.
/// Does nothing when the path is nil, when the file could not be read to its end, or when it is not
/// a regular file.
- (void)synchronizeFile;

@end
