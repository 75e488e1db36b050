// Opening a file at a path where another user may have put something else.
#pragma once

#include <sys/stat.h>

/// How many names the file may have.
enum class FileNames {
  kAny,
  /// One only. A second name could be a hard link that a user has made to a file that the user may
  /// not write.
  kOne,
};

/// Opens the regular file at `path` and returns a descriptor that the caller closes. `flags` are
/// those of open(2); `mode` is the mode of a file that O_CREAT makes. Never waits for a FIFO or a
/// terminal, and never changes a file that it refuses: O_TRUNC empties the file only after it has
/// been accepted. The descriptor is closed on execve(2).
///
/// A link in the last component is followed unless `flags` has O_NOFOLLOW; links in the folders on
/// the way are always followed. Use FolderWalk where they must not be.
///
/// `status`, unless it is null, receives the state of the opened file. Returns -1 with errno set on
/// failure: ENOTSUP if it is not a regular file, EMLINK if it has more names than `names` allows,
/// otherwise open(2)'s. An interrupted call is repeated.
int OpenRegularFile(const char* path, int flags, mode_t mode, FileNames names,
                    struct stat* status = nullptr);

/// Returns whether `path` leads to a regular file; links are followed. For readers that need a path
/// instead of a descriptor, in a folder where no other user can exchange the file before it is
/// opened.
bool IsRegularFile(const char* path);
