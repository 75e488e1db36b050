// Entering folders that another user may change at the same time.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

/// Identifies a folder, even if its path changes.
struct FolderIdentity {
  dev_t device;
  ino_t file;
};

/// A walk through folders, one level at a time, in which the process's working directory is the
/// folder that the walk is in. Calls with a plain name (open(2), unlink(2), mkdir(2)) then act in
/// that folder, even if the owner of a folder above has renamed it or replaced it by a link or
/// another folder. (openat(2) and unlinkat(2) would do the same; Mac OS X 10.6 has neither.)
///
/// The walk starts at a path that the caller trusts: links in it are followed. From there on only
/// real folders are entered, never a link, and no call waits for the other end of a FIFO. The
/// destructor returns the process to its previous working directory, or to "/" if that could not be
/// opened.
///
/// The working directory belongs to the whole process: only one walk may exist at a time, and other
/// threads must not use relative paths while it exists.
///
/// Members that return bool return false with errno set on failure, and then leave the walk where
/// it was.
class FolderWalk {
 public:
  /// Remembers the working directory.
  FolderWalk();
  /// Returns to it.
  ~FolderWalk();
  FolderWalk(const FolderWalk&) = delete;
  FolderWalk& operator=(const FolderWalk&) = delete;

  /// Goes to the folder at `path`, which the caller trusts, following links.
  bool Start(const char* path);

  /// Enters the folder `name` in the current one. Fails with ENOTDIR or ELOOP for an item that is
  /// not a folder, and with EINVAL for ".." and for a name with a slash.
  bool Enter(const char* name);

  /// Goes from the current folder to the one that holds the item at `path`: enters each component
  /// but the last. Slashes before the first component and several between two do not count.
  /// Returns the item's name, the end of `path` after its last slash. On failure returns null with
  /// errno set; the walk is then in the last folder that could be entered.
  const char* EnterFolderOf(const char* path);

  /// Returns from a folder that was entered to the one around it, whose Here() was `parent`. Fails
  /// with ESTALE when another user has moved the folder elsewhere.
  bool Return(const FolderIdentity& parent);

  /// Returns the identity of the folder that the walk is in.
  const FolderIdentity& Here() const { return here_; }
  /// Returns the id of the user who owns that folder.
  uid_t Owner() const { return owner_; }

 private:
  bool EnterEach(const char* path, const char* end);
  bool Go(const char* path, int flags, const FolderIdentity* expected);

  int saved_;
  FolderIdentity here_;
  uid_t owner_;
};
