// Opening a file at a path where another user may have put something else.
#pragma once

#include <sys/stat.h>

/// How many names the file may have.
enum class FileNames {
  kAny,
  /// One only. A second name could be a hard link, made by a user who may not write the file.
  kOne,
};

/// Opens the regular file at `path` and returns a descriptor that the caller closes. `flags` are
/// those of open(2) and `mode` is the one of a file that O_CREAT makes. Never waits, and never
/// changes what it refuses: a FIFO or a terminal is not waited for, and O_TRUNC empties the file
/// only after it has been accepted. The descriptor is not passed on to programs that are executed.
///
/// A link in the last component is followed unless `flags` has O_NOFOLLOW; links in the folders on
/// the way always are. FolderWalk goes where they must not be.
///
/// Returns -1 with errno set on failure: ENOTSUP for what is not a regular file, EMLINK for one
/// with more names than `names` allows, otherwise open(2)'s. An interrupted call is repeated.
/// `status`, where given, receives the state of the opened file.
int OpenRegularFile(const char* path, int flags, mode_t mode, FileNames names,
                    struct stat* status = nullptr);

/// Whether `path` leads to a regular file, links followed. For a reader that cannot take a
/// descriptor, in a folder where no other user may exchange the file before it is opened.
bool IsRegularFile(const char* path);
