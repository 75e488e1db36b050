// The payload tree and the disk: reading a directory tree into fileChunk nodes, and writing a
// decoded tree.
#pragma once

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

// ---- Source: disk to tree

/// Reads the file or the whole directory tree at `path` into a new node that the caller frees with
/// DeleteFileChunks. The node's name is the text after the last '/' that is not the path's final
/// character ("a/b/" gives "b/"), or the whole path without one. Links are followed: their targets
/// are stored. Directory entries keep the order in which the file system returns them. Skipped are
/// entries that PlatformFilenameAllowed refuses, entries that cannot be opened as a directory or a
/// regular file (the call never waits for a FIFO or a device), links to a directory around them,
/// whose tree would have no end, and entries for which memory runs out. Absent when `path` is
/// neither a readable directory nor a readable regular file, and when memory runs out for it.
fileChunk* PlatformCreateSourceFromPath(const char* path);

/// Called for every entry that the source skips (other than by name) and for every file that it
/// could not read completely. `path` is the path of the entry and is valid during the call. It is
/// the directory's path if the directory could not be read to its end, or if memory for the entry's
/// path ran out. `error` is kFileBecameShorter or an errno value: ENOTSUP for an entry that is
/// neither a file nor a directory, ELOOP for a link to a directory around it, EFBIG for a file
/// whose size has more than 32 bits, ENOMEM, or the error of the failed system call. `context` is
/// the one passed to PlatformCreateSourceFromPath.
typedef void SourceFaultHandler(const char* path, int error, void* context);

/// The error of a file that has ended before the size that it had when it was opened.
constexpr int kFileBecameShorter = 0;

/// Returns whether the directory entry at `path` is read, with everything below it. `path` is valid
/// during the call; `context` is as for a SourceFaultHandler.
typedef bool SourceFilter(const char* path, void* context);

/// The same, with a filter and reports. `handler` receives every fault: if it is not called, the
/// tree is complete. `filter` is called for every entry below `path`; an entry that it refuses is
/// neither opened nor reported. Both receive `context`; either may be absent.
fileChunk* PlatformCreateSourceFromPath(const char* path, SourceFilter* filter,
                                        SourceFaultHandler* handler, void* context);

/// Reads the file at `path` into a new node called `name`, which the caller frees with
/// DeleteFileChunks. Its size is the low 32 bits of the size that the file had when it was opened.
/// Bytes after a read error, or after the end of a file that has become shorter, are zero. Absent
/// when the file cannot be opened or is not a regular file, and when memory runs out.
fileChunk* PlatformCreateSourceFromFile(const char* path, const char* name);

/// Reads the whole file at `path` into a new array (`new unsigned char[]`), which the caller owns.
/// Sets `data` to it and `length` to its size in bytes. Bytes that cannot be read are zero, as
/// above. If the file cannot be opened, is not a regular file, or does not fit in memory, both
/// arguments stay unchanged. Returns 0, always.
int PlatformCreateSourceFromFile(const char* path, void*& data, unsigned long& length);

/// Reads the file that is open at `descriptor`, whose position must be the start, into a new
/// nameless node that the caller frees with DeleteFileChunks. Absent unless all of it could be
/// read; `error` is then kFileBecameShorter or an errno value: EFBIG for a size that has more than
/// 32 bits. The descriptor stays open.
fileChunk* PlatformCreateSourceFromDescriptor(int descriptor, int& error);

/// Sets `size` to the size of the file at `path`, in bytes. Returns false, and sets it to 0, when
/// stat(2) fails.
bool PlatformGetFileSize(const char* path, unsigned long& size);

/// Returns false for ".", "..", ".DS_Store" and an absent name, true for every other name.
bool PlatformFilenameAllowed(const char* name);

// ---- Sink: tree to disk

/// Writes a sibling list below the directory `parentPath`: directories with mode 0775, files with
/// mode 0664, whatever the umask. An entry with an empty name means `parentPath` itself, which such
/// a directory creates, without its parents, unless it exists. Entries before that one need it to
/// exist, except a file without a name, which is written in its place. An existing directory is
/// used, with its mode unchanged, and an existing file is replaced. Of two files with one name the
/// later one counts; of a file and a directory the later one is skipped, as are all entries that
/// cannot be written. The caller keeps `list`. Returns true, always.
///
/// Links in `parentPath` are followed. Below it nothing is written through a link, into a file that
/// has a second name, or into anything other than regular files and real folders, even if another
/// user exchanges folders at the same time. During the call the process's working directory changes
/// and its umask is 0. The directory is restored if it is readable; otherwise it is "/" afterwards.
/// At most three descriptors are open at a time. Paths may be longer than PATH_MAX.
bool PlatformWriteFileFromChunk(const char* parentPath, fileChunk* list);

/// Which entries a sink could not write.
struct SinkReport {
  SinkReport() = default;
  ~SinkReport() { delete[] path; }
  SinkReport(const SinkReport&) = delete;
  SinkReport& operator=(const SinkReport&) = delete;

  /// Entries of the tree, nameless ones included.
  unsigned long entries = 0;
  /// Number of those that were not written completely, mode included. If a folder could not be made
  /// or entered, all entries below it count.
  unsigned long failed = 0;
  /// The path of the first of these, owned; absent without a failure, and when memory runs out.
  char* path = nullptr;
  /// Why the first one failed: an errno value, ESTALE when another user has moved a folder away.
  int error = 0;
};

/// Writes a sibling list below the directory at `path`, relative to the existing folder `root`,
/// which the caller trusts. `path` ends in a name; if it is empty, the list is written to `root`.
/// Links are followed in `root` only; otherwise as above. `report` receives the number of entries
/// that could not be written, and the first of them.
bool PlatformWriteFileFromChunk(const char* root, const char* path, fileChunk* list,
                                SinkReport& report);

/// Creates a directory with mode 0775, without its parents. Returns false when it was not created.
bool PlatformCreateDirectory(const char* path);

/// Writes `count` bytes to the file at `path`, which is created or emptied, and sets its mode to
/// 0664, whatever the umask. A link is not followed. Returns false when the file could not be
/// opened, is not a regular file or has a second name. Later errors are not reported.
bool PlatformWriteFile(const char* path, unsigned char* bytes, unsigned int count);

/// Appends `leaf` to the path in `path`, an array of `capacity` bytes, with one '/' between the
/// two; to an empty path without a separator. Does nothing if `leaf` is empty or an argument is
/// null. A separator or a leaf that does not fit with the terminating NUL is not appended, which is
/// not reported.
void PlatformAppendPathLeaf(char* path, unsigned int capacity, const char* leaf);

// ---- Hooks that do nothing on this platform

/// Returns the time in milliseconds since an arbitrary origin on other platforms; always 0 here.
unsigned long PlatformGetArbitraryTimeInMS();

/// Stores a chunk among a file's resources on other platforms. Returns false, always: files have no
/// resources here.
bool PlatformWriteChunkToResources(const char* path, fileChunk* chunk, const char* name);
