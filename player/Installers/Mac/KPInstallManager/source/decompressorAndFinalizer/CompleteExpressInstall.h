#pragma once

/// Completes an express install that was begun on a web page, if its flag is set: removes the
/// updater from the Preferences in the process's HOME, opens the vendor's redirect page with the
/// system's launcher without waiting for it, and removes the flag. Failures are ignored. No link
/// below HOME is followed, and a folder at the updater's path is removed only if it is empty.
void CompleteExpressInstall();
