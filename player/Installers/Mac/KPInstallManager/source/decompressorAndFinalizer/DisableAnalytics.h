// The stage that records the user's choice against analytics.
#pragma once

#import <Foundation/Foundation.h>

/// Sets "DisableAnalytics" to "1" in the settings file "/Library/Application
/// Support/Velmora/rks.cfg" under `installRoot`, or at that very path when the root is nil. The
/// file is created when missing, its folder is not. Failures are silent. docs/settings-format.md
/// describes what such a rewrite keeps of the file.
void DisableAnalytics(NSString* installRoot);
