// The payload stage: unpacks the blob that the installer package has placed, which becomes the
// plug-in bundle.
#pragma once

#import <Foundation/Foundation.h>

/// Replaces the plug-in bundle under `installRoot` with the contents of the payload blob beside it,
/// then deletes the blob. A nil `installRoot` means the boot volume.
///
/// Returns 1, with nothing changed, when there is no blob. Otherwise removes the old bundle and the
/// blob, or anything else at their paths, as far as the system allows, and returns 0, even if part
/// or all of the bundle could not be written. Nothing is written or removed through a link below
/// the root: if a folder on the way is a link, nothing is removed and no entry is written.
///
/// Once it is known to exist, the blob is locked until it is removed. While another process holds
/// the lock, this one waits for up to a minute, then continues without the lock. After the wait,
/// the blob that is then at the path is unpacked.
///
/// Logs to `g_logger`: the paths, a missing blob, a blob that cannot be locked, items of the old
/// bundle that could not be removed, a blob that cannot be read to its end (also because memory ran
/// out) or is malformed, and entries that could not be written, with their number and the first
/// path. A blob that is not a regular file or that the process may not open counts as an empty one,
/// without a line of its own. Other failures to open it are logged as failures to read it.
int DecompressLZMA(NSString* installRoot);
