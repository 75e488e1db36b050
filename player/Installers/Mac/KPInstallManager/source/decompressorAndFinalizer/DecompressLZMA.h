// The payload stage: the blob that the installer package laid down becomes the plug-in bundle.
#pragma once

#import <Foundation/Foundation.h>

/// Replaces the plug-in bundle under `installRoot` with the contents of the payload blob beside
/// it, then deletes the blob. A nil root means the paths as they are on the boot volume.
///
/// Returns 1, with nothing touched, when there is no blob. Otherwise the old bundle, the blob and
/// anything else in their places are removed as far as the system allows, and the result is 0, also
/// when nothing or not all is written. Below the root no link is followed, except one in the place
/// of the blob; a folder on the way that is a link therefore fails the removal and all entries.
///
/// The blob is locked from the test for its existence to its removal. While another process holds
/// the lock, this one waits for up to a minute and then acts on what is there; after that it goes
/// on without the lock.
///
/// `g_logger` receives the progress and a missing blob, and at the error level: a blob that cannot
/// be locked, items of the old bundle that stay, a blob that cannot be read to its end (also for
/// want of memory) or is malformed, and, with the first path and their number, entries that could
/// not be written. A blob that cannot be opened or is not a regular file is logged no further: it
/// counts as an empty one.
int DecompressLZMA(NSString* installRoot);
