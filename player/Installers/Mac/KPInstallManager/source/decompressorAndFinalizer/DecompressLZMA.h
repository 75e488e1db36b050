// The payload stage: the blob that the installer package laid down becomes the plug-in bundle.
#pragma once

#import <Foundation/Foundation.h>

/// Replaces the plug-in bundle under `installRoot` with the contents of the payload blob beside
/// it, then deletes the blob. A nil root means the paths as they stand on the boot volume.
///
/// Returns 1, with nothing touched, when there is no blob. Otherwise the old bundle, the blob and
/// whatever else lies in their places are gone afterwards and the result is 0, also when the blob
/// cannot be read, is empty, is malformed (nothing is written then), or when entries cannot be
/// written. Progress, a missing blob and a malformed one are told in `g_logger`.
int DecompressLZMA(NSString* installRoot);
