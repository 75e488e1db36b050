// Removing an item that may not be there.
#pragma once

#import <Foundation/Foundation.h>

@interface NSFileManager (RemoveItem)

/// Removes the item at `path`, a folder with everything in it; a link goes itself, not what it
/// points to. Returns true, and leaves `error` alone, when nothing is there or `path` is nil.
/// Otherwise, also when it cannot be told whether something is there, the result and `error`, which
/// may be null, are those of `removeItemAtPath:error:`.
- (BOOL)removeItemAtPathIfItExists:(NSString*)path error:(NSError**)error;

@end
