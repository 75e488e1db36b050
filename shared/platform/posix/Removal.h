// Removing what lies in folders that another user may change meanwhile.
#pragma once

/// What a removal has left.
struct RemovalResult {
  /// Files, links and folders that could not be removed, without the folders around them.
  unsigned long refused;
  /// Why the first of them could not: an errno value; 0 when there is none.
  int error;
};

/// Removes the item at `path` below the folder `root`, a folder with everything in it. The caller
/// trusts `root` and the path to it; below it no link is followed: a link is removed itself, and
/// an item behind one is left alone and counts as refused. After a refusal the rest is removed all
/// the same. What another user exchanges meanwhile is either removed where the walk has found it or
/// left; nothing outside of the entered folders is touched.
///
/// What is not entered stays: mount points; folders 1024 levels or more below the item; and, where
/// `root` is not root's but another user's, folders of third users, which that user may have moved
/// there.
///
/// An item that is locked against changes (chflags(1): uchg, schg and the append-only ones) is
/// unlocked first, and so is a locked folder below the removed one or that one itself, as far as
/// the process may. What stays: the item of a folder that is locked itself, and a locked file with
/// another name elsewhere.
///
/// An item that does not exist is not refused. `path` may begin with a slash and ends with a name.
RemovalResult RemoveTree(const char* root, const char* path);

/// The same for a file, a link or an empty folder; a folder that is not empty stays as it is.
RemovalResult RemoveFileOrEmptyFolder(const char* root, const char* path);
