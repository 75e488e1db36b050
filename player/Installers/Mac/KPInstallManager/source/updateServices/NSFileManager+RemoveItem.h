// Removing an item that may be missing.
#pragma once

#import <Foundation/Foundation.h>

@interface NSFileManager (RemoveItem)

/// Removes the item at `path`, a folder with everything in it; a link is removed itself, not its
/// target. Returns true, and does not set `error`, when nothing exists at `path` or `path` is nil.
/// In all other cases, also when the system cannot find out whether an item exists, the result and
/// `error`, which may be null, are those of `removeItemAtPath:error:`.
- (BOOL)removeItemAtPathIfItExists:(NSString*)path error:(NSError**)error;

@end
