// The stage that records the user's choice against analytics.
#pragma once

#import <Foundation/Foundation.h>

/// Sets "DisableAnalytics" to "1" in the settings file under `installRoot`, or on the boot volume
/// when the root is nil: "/Library/Application Support/Velmora/rks.cfg". A missing file is created,
/// a missing folder is not. Failures are not reported. docs/settings-format.md describes what such
/// a rewrite keeps of the file.
void DisableAnalytics(NSString* installRoot);
