// Going down into folders that another user may change meanwhile.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

/// Which folder it is, whatever its path is now.
struct FolderIdentity {
  dev_t device;
  ino_t file;
};

/// A walk through folders, one level at a time, in which the process's working directory is the
/// folder that the walk is in. Calls with a name alone (open(2), unlink(2), mkdir(2)) then act in
/// that very folder, even when a user who owns a folder above has renamed it, or put a link or
/// another folder in its place. (openat(2) and unlinkat(2) would do the same; Mac OS X 10.6 has
/// neither.)
///
/// The start is a path that the caller trusts: links in it are followed. From there on only real
/// folders are entered, never a link, and nothing is waited for. The end of the walk returns the
/// process to the working directory that it had before, or to "/" when that one cannot be opened.
///
/// Because the working directory is the whole process's, one walk exists at a time and other
/// threads must not use relative paths meanwhile.
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

  /// Goes to the folder at `path`, which the caller trusts.
  bool Start(const char* path);

  /// Goes into the folder `name` of the current one. ENOTDIR or ELOOP for what is not a folder,
  /// EINVAL for "..", and for a name with a slash.
  bool Enter(const char* name);

  /// Goes from the current folder to the one that holds the item at `path`: enters each component
  /// but the last. Slashes before the first component and several between two do not count.
  /// Returns the item's name, the end of `path` after its last slash. On failure returns null with
  /// errno set; the walk is then in the last folder that could be entered.
  const char* EnterFolderOf(const char* path);

  /// Goes from a folder that was entered back to the one around it, whose Here() was `parent`.
  /// ESTALE when another user has moved the folder elsewhere.
  bool Return(const FolderIdentity& parent);

  /// The folder that the walk is in.
  const FolderIdentity& Here() const { return here_; }
  /// The user who owns that folder.
  uid_t Owner() const { return owner_; }

 private:
  bool EnterEach(const char* path, const char* end);
  bool Go(const char* path, int flags, const FolderIdentity* expected);

  int saved_;
  FolderIdentity here_;
  uid_t owner_;
};
