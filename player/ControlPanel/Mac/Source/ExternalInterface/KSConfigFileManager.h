// The settings file, for callers that speak in objects.
#pragma once

#import <Foundation/Foundation.h>

#include "player/ControlPanel/Common/SMConfigFileManager.h"

/// A settings file, read when the object is made and written by `synchronizeFile` only.
///
/// Text crosses over as UTF-8; a string given to a method counts up to its first NUL, and one with
/// no UTF-8 form (half of a surrogate pair) counts as nil. Nothing here raises or logs: a file that
/// cannot be read has no settings, and a failed write is silent. Without memory the engine throws
/// std::bad_alloc, before anything is written.
@interface KSConfigFileManager : NSObject {
 @private
  SASM::ConfigFileManager* mConfigFileManager;
}

/// Reads the file at `path`. For a missing or unreadable file the object has no settings; with
/// a nil path nothing is read, and nothing can be written.
- (id)initWithConfigFile:(NSString*)path;

/// An object without a file would have no engine behind it.
- (id)init __attribute__((unavailable("use initWithConfigFile:")));

/// Every setting's key, in the order of the settings, as strings. Autoreleased.
- (NSArray*)allKeys;

/// The value of the first setting with this key; the empty string for a missing key and for nil,
/// never nil.
/// It takes the place of the generic key-value accessor on purpose. Autoreleased.
- (NSString*)valueForKey:(NSString*)key;

/// Whether `string` itself, not a setting of that name, reads as true: see
/// `SASM::SimpleString::boolValue`. Pass it what `valueForKey:` returned.
- (BOOL)boolValue:(NSString*)string;

/// Gives the first setting with this key a new value in its place, or appends a setting, in
/// memory. A nil key or value changes nothing.
- (void)setValue:(NSString*)value forKey:(NSString*)key;

/// Rewrites the whole file; the folder must exist.
- (void)synchronizeFile;

@end
