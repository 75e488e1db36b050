// Removing an item of a folder that may belong to another user.
#pragma once

#import <Foundation/Foundation.h>

#include "shared/platform/posix/Removal.h"

/// Removes the item at `path` below the folder `root`, if it exists, with `remove`: RemoveTree or
/// RemoveFileOrEmptyFolder. A dangling link does not count as an item. An empty `root` stands for
/// "/" when `path` begins with a slash, otherwise for the current folder; with a nil one nothing is
/// removed. Failures are ignored.
void RemoveExistingItem(NSString* root, NSString* path,
                        RemovalResult (*remove)(const char* root, const char* path));
