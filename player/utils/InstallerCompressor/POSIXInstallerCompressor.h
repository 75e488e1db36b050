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
fileChunk* PlatformCreateSourceFromPath(char const* path);

/// Is told what a source lacks of the disk: of each entry that is left out, but for its name, and
/// of each file with bytes missing. `path` leads to it, or to its directory when there was no
/// memory for more, and is valid during the call. `error` is an errno value: ENOTSUP for what is
/// neither a file nor a directory, ELOOP for a link back to a directory that it lies in, EFBIG for
/// a file whose size has more than 32 bits, ENOMEM, kFileBecameShorter, and otherwise what the
/// system said. `context` is what the reader was given for it.
typedef void SourceFaultHandler(char const* path, int error, void* context);

/// A file has ended before the size that it had when it was opened.
constexpr int kFileBecameShorter = 0;

/// The same, telling `handler`. The tree is all that was on disk when it is never called.
fileChunk* PlatformCreateSourceFromPath(char const* path, SourceFaultHandler* handler,
                                        void* context);

/// Reads a file into a new node called `name`; absent when it cannot be opened, is not a
/// regular file, or memory runs out. The size is the low 32 bits of the file's when it was
/// opened; bytes that the file has lost by the time they are read, and all from a read error on,
/// are zero.
fileChunk* PlatformCreateSourceFromFile(char const* path, char const* name);

/// Reads a whole file into a new array (`new unsigned char[]`) and returns 0, always. What cannot
/// be read is zero, as above. A file that cannot be opened, is not a regular one, or does not fit
/// in memory leaves both arguments untouched.
int PlatformCreateSourceFromFile(char const* path, void*& data, unsigned long& length);

/// Asks for the size of the file at `path`, in bytes; false, and size 0, when stat(2) fails.
bool PlatformGetFileSize(char const* path, unsigned long& size);

/// False for ".", "..", ".DS_Store" and an absent name, true for every other name.
bool PlatformFilenameAllowed(char const* name);

// ---- Sink: tree to disk

/// Writes a sibling list below the directory `parentPath`: directories with mode 0775, files
/// with mode 0664, whatever the umask. An entry with an empty name stands for `parentPath`
/// itself. A directory that exists is used as it is. What cannot be written is left out and
/// the walk goes on; the result is always true, also when there is no memory for a path. Paths
/// may have any length that the system takes.
bool PlatformWriteFileFromChunk(char const* parentPath, fileChunk* list);

/// Creates a directory with mode 0775; false when it was not created. Parents are not made.
bool PlatformCreateDirectory(char const* path);

/// Writes `count` bytes to the file at `path`, created or truncated, and sets its mode to
/// 0664, whatever the umask; false when it could not be opened, or is not a regular file: a FIFO
/// is not waited for, a device not written to. Errors after that are not reported.
bool PlatformWriteFile(char const* path, unsigned char* bytes, unsigned int count);

/// Appends `leaf` to the path in `path`, an array of `capacity` bytes, with one '/' between the
/// two. An empty leaf or an absent argument changes nothing; an empty path gets no separator.
/// A separator, and then a leaf, that would not fit with the terminating NUL is not appended;
/// nothing reports that.
void PlatformAppendPathLeaf(char* path, unsigned int capacity, char const* leaf);

// ---- Hooks that do nothing on this platform

/// A millisecond clock with an arbitrary origin; always 0 here.
unsigned long PlatformGetArbitraryTimeInMS();

/// Would store a chunk among a file's resources; there are none here. Always false.
bool PlatformWriteChunkToResources(char const* path, fileChunk* chunk, char const* name);
