// The flag file of an express install that was begun on a web page.
#pragma once

/// Returns whether the flag is set. Any user can set it, because it is a file in /tmp.
bool IsExpressInstallFlagSet();

/// Removes the flag if it is a file, a link (itself, not its target) or an empty folder. A folder
/// that is not empty stays, and so does the flag: its contents may belong to another user.
void RemoveExpressInstallFlag();
