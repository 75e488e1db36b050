// Removing items from folders that another user may change at the same time.
#pragma once

/// Result of a removal: the items that could not be removed.
struct RemovalResult {
  /// The number of files, links and folders that could not be removed. A folder that stays because
  /// of an item in it does not count.
  unsigned long refused;
  /// The errno value of the first of them; 0 when there is none.
  int error;
};

/// Removes the item at `path` below the folder `root`; a folder with everything in it. The caller
/// trusts `root` and the path to it. Below `root` no link is followed: a link is removed itself,
/// and an item whose path leads through a link stays and counts as refused. After a refusal the
/// remaining items are still removed, unless another user has moved away a folder that the walk is
/// in: then it ends. The process's working directory changes during the call, see FolderWalk.h. If
/// another user replaces items meanwhile, nothing outside the folders that were entered is removed.
///
/// These are not entered, and stay: other file systems that are mounted there; folders 1024 levels
/// or more below the item; and, if `root` belongs to a user other than root, folders that belong to
/// a third user, because the owner of `root` may have moved them there.
///
/// Items that are locked against changes (chflags(1): uchg, schg and the append-only ones) are
/// unlocked if the process has the permission, except a file with another name elsewhere, which
/// stays. The folder that holds the item at `path` is not unlocked: if it is locked, the item
/// stays.
///
/// A missing item does not count as refused. `path` may begin with a slash and ends with a name.
RemovalResult RemoveTree(const char* root, const char* path);

/// The same for a file, a link or an empty folder; a folder that is not empty stays as it is.
RemovalResult RemoveFileOrEmptyFolder(const char* root, const char* path);
