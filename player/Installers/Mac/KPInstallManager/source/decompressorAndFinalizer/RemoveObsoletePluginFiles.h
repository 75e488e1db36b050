// The stage that removes what older generations of the plug-in left behind.
#pragma once

/// Deletes the obsolete plug-in files of the folder "Library/Internet Plug-Ins" in the home that
/// the environment variable HOME names, which need not be the console user's, and the obsolete
/// plug-in of the system-wide folder. What cannot be removed stays, in silence, and so does a link
/// that leads nowhere. That home's user may change it meanwhile: below it no link is followed.
///
/// Without HOME there is no such folder. An empty HOME makes its path a relative one, so that the
/// current folder stands for the home; in "/" that is the system-wide folder.
///
/// Returns true, always.
bool RemoveObsoletePluginFiles();
