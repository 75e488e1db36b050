#pragma once

/// Completes an express install that was begun in a web page, if its flag is set: removes the
/// updater from the Preferences in the process's HOME, opens the vendor's redirect page with the
/// system's launcher, without waiting for it, and removes the flag. Failures are ignored. No link
/// in that home is followed, and a folder in the updater's place goes only when it is empty.
void CompleteExpressInstall();
