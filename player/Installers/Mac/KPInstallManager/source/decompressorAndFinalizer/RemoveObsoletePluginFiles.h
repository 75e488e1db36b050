// The stage that removes files of older generations of the plug-in.
#pragma once

/// Deletes the obsolete plug-in files in the folder "Library/Internet Plug-Ins" of the home folder,
/// and the obsolete plug-in in the system-wide folder of that name. The home folder is the value of
/// the environment variable HOME, not necessarily the console user's home. Items that cannot be
/// removed are skipped without a report, and so are dangling links. The home's owner may change it
/// at the same time, so no link below it is followed.
///
/// If HOME is not set, only the system-wide folder is searched. If it is empty, the current folder
/// counts as the home folder.
///
/// Returns true, always.
bool RemoveObsoletePluginFiles();
