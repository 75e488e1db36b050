// The payload stage: the blob that the installer package laid down becomes the plug-in bundle.
#pragma once

#import <Foundation/Foundation.h>

/// Replaces the plug-in bundle under `installRoot` with the contents of the payload blob beside
/// it, then deletes the blob. A nil root means the paths as they stand on the boot volume.
///
/// Returns 1, with nothing touched, when there is no blob. Otherwise the old bundle, the blob and
/// whatever else lies in their places are removed as far as the system allows, and the result is 0.
/// It is so too when nothing is written, because the blob cannot be opened (also for want of
/// memory), cannot be read to its end, is empty, is malformed, or is a directory, and when some
/// entries cannot be written. Progress, a missing blob, a read error and a malformed blob are told
/// in `g_logger`.
int DecompressLZMA(NSString* installRoot);
