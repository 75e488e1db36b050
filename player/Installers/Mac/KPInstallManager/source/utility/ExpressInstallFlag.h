// The file by which a web page says that it began an express install.
#pragma once

/// Whether the flag is set. Any user can set it: it is in /tmp.
bool IsExpressInstallFlagSet();

/// Removes the flag: a file, a link itself, or an empty folder. What is in a folder of another user
/// is never touched, so a folder that is not empty stays, and the flag with it.
void RemoveExpressInstallFlag();
