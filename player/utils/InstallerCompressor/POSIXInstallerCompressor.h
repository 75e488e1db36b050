// The payload tree and the disk: a directory tree is read into fileChunk nodes, and a
// decoded tree is written back.
#pragma once

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

// ---- Source: disk to tree

/// Reads the file or the whole directory tree at `path` into a new node that the caller frees
/// with DeleteFileChunks. The node's name is the text after the last '/' that is not the path's
/// final character ("a/b/" gives "b/"), the whole path when there is no such '/'. Links are
/// followed: what they point to is stored. Directory entries keep the order in which the file
/// system returns them. Left out are those that PlatformFilenameAllowed refuses, those that
/// cannot be opened as a directory or a regular file (FIFOs, sockets and devices are never
/// waited for), links back to a directory that they lie in, whose tree would have no end, and
/// those that memory does not suffice for. Absent when `path` is neither a readable directory nor
/// a readable regular file, and when memory does not suffice for it.
fileChunk* PlatformCreateSourceFromPath(const char* path);

/// Is told what a source lacks of the disk: of each entry that is left out, but for its name, and
/// of each file with bytes missing. `path` leads to it, or to its directory when there was no
/// memory for more, and is valid during the call. `error` is an errno value: ENOTSUP for what is
/// neither a file nor a directory, ELOOP for a link back to a directory that it lies in, EFBIG for
/// a file whose size has more than 32 bits, ENOMEM, kFileBecameShorter, and otherwise what the
/// system said. `context` is what the reader was given for it.
typedef void SourceFaultHandler(const char* path, int error, void* context);

/// A file has ended before the size that it had when it was opened.
constexpr int kFileBecameShorter = 0;

/// Decides whether the directory entry at `path` is read, with everything below it: false leaves it
/// out. `path` is valid during the call, and `context` as for a SourceFaultHandler.
typedef bool SourceFilter(const char* path, void* context);

/// The same, reporting to `handler`; unless that is called, the tree is all that was on disk. Where
/// there is a `filter`, it is asked about every entry below `path`, and nothing is opened or
/// reported of what it leaves out. Both receive `context`; either may be absent.
fileChunk* PlatformCreateSourceFromPath(const char* path, SourceFilter* filter,
                                        SourceFaultHandler* handler, void* context);

/// Reads a file into a new node called `name`; absent when it cannot be opened, is not a
/// regular file, or memory runs out. The size is the low 32 bits of the file's when it was
/// opened; bytes that the file has lost by the time they are read, and all from a read error on,
/// are zero.
fileChunk* PlatformCreateSourceFromFile(const char* path, const char* name);

/// Reads a whole file into a new array (`new unsigned char[]`) and returns 0, always. What cannot
/// be read is zero, as above. A file that cannot be opened, is not a regular one, or does not fit
/// in memory leaves both arguments untouched.
int PlatformCreateSourceFromFile(const char* path, void*& data, unsigned long& length);

/// Reads what the file open at `descriptor` has from its current position, the start, into a new
/// nameless node that the caller frees with DeleteFileChunks. Absent unless all of it could be
/// read; `error` then is an errno value, EFBIG for a size that has more than 32 bits, of which
/// nothing is read, or kFileBecameShorter. The descriptor stays open.
fileChunk* PlatformCreateSourceFromDescriptor(int descriptor, int& error);

/// Asks for the size of the file at `path`, in bytes; false, and size 0, when stat(2) fails.
bool PlatformGetFileSize(const char* path, unsigned long& size);

/// False for ".", "..", ".DS_Store" and an absent name, true for every other name.
bool PlatformFilenameAllowed(const char* name);

// ---- Sink: tree to disk

/// Writes a sibling list below the directory `parentPath`: directories with mode 0775, files
/// with mode 0664, whatever the umask. An entry with an empty name stands for `parentPath`
/// itself. A directory that exists is used as it is, a file is replaced; of two entries with one
/// name the later one counts. What cannot be written is left out and the walk goes on; the result
/// is always true.
///
/// Links in `parentPath` are followed. Below it nothing is written through a link, into a file that
/// has a second name, or into anything but regular files and real folders, even when another user
/// exchanges folders meanwhile. The process's working directory changes during the call, and must
/// be readable. At most three descriptors are open at a time, and a path may be longer than the
/// system takes.
bool PlatformWriteFileFromChunk(const char* parentPath, fileChunk* list);

/// What a sink could not write.
struct SinkReport {
  SinkReport() = default;
  ~SinkReport() { delete[] path; }
  SinkReport(const SinkReport&) = delete;
  SinkReport& operator=(const SinkReport&) = delete;

  /// Entries of the tree, nameless ones included.
  unsigned long entries = 0;
  /// Those of them that were not written whole, mode included. All entries below a folder that
  /// could not be made or entered count.
  unsigned long failed = 0;
  /// The path of the first of these, owned; absent when there is none or no memory for it.
  char* path = nullptr;
  /// Why that one failed: an errno value, ESTALE when another user has moved a folder away.
  int error = 0;
};

/// Writes a sibling list below the directory at `path`, which ends in a name, below the folder
/// `root`, an existing one that the caller trusts. Links are followed in `root` only; otherwise as
/// above. With an empty `path` the list is written to `root`. `report` receives what could not be
/// written.
bool PlatformWriteFileFromChunk(const char* root, const char* path, fileChunk* list,
                                SinkReport& report);

/// Creates a directory with mode 0775; false when it was not created. Parents are not made.
bool PlatformCreateDirectory(const char* path);

/// Writes `count` bytes to the file at `path`, created or emptied, and sets its mode to
/// 0664, whatever the umask; false when it could not be opened, is not a regular file or has a
/// second name: a link is not followed, a FIFO not waited for, a device not written to. Errors
/// after that are not reported.
bool PlatformWriteFile(const char* path, unsigned char* bytes, unsigned int count);

/// Appends `leaf` to the path in `path`, an array of `capacity` bytes, with one '/' between the
/// two. An empty leaf or an absent argument changes nothing; an empty path gets no separator.
/// A separator, and then a leaf, that would not fit with the terminating NUL is not appended;
/// nothing reports that.
void PlatformAppendPathLeaf(char* path, unsigned int capacity, const char* leaf);

// ---- Hooks that do nothing on this platform

/// A millisecond clock with an arbitrary origin; always 0 here.
unsigned long PlatformGetArbitraryTimeInMS();

/// Would store a chunk among a file's resources; there are none here. Always false.
bool PlatformWriteChunkToResources(const char* path, fileChunk* chunk, const char* name);
