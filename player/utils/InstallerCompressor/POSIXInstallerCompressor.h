// The payload tree and the disk: a directory tree is read into fileChunk nodes, and a
// decoded tree is written back.
#pragma once

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

// ---- Source: disk to tree

/// Reads the file or the whole directory tree at `path`, which must contain a '/', into a new
/// node that the caller frees with DeleteFileChunks. The node's name is the text after the
/// last '/' that is not the path's final character: "a/b/" gives "b/". Links are followed.
/// Directory entries keep the order in which the file system returns them; those that
/// PlatformFilenameAllowed refuses, and those that cannot be opened, are left out.
/// Absent when `path` is neither a directory nor a readable file.
fileChunk* PlatformCreateSourceFromPath(char const* path);

/// Reads a file into a new node called `name`; absent when it cannot be opened. The size is
/// the low 32 bits of the file's.
fileChunk* PlatformCreateSourceFromFile(char const* path, char const* name);

/// Reads a whole file into a new array (`new[]`) and returns 0, always. A file that cannot be
/// opened leaves both arguments untouched.
int PlatformCreateSourceFromFile(char const* path, void*& data, unsigned long& length);

/// Asks for the size of the file at `path`, in bytes; false, and size 0, when stat(2) fails.
bool PlatformGetFileSize(char const* path, unsigned long& size);

/// False for ".", ".." and ".DS_Store", true for every other name.
bool PlatformFilenameAllowed(char const* name);

// ---- Sink: tree to disk

/// Writes a sibling list below the directory `parentPath`: directories with mode 0775, files
/// with mode 0664, whatever the umask. An entry with an empty name stands for `parentPath`
/// itself. A directory that exists is used as it is. What cannot be written is left out and
/// the walk goes on; the result is always true.
bool PlatformWriteFileFromChunk(char const* parentPath, fileChunk* list);

/// Creates a directory with mode 0775; false when it was not created. Parents are not made.
bool PlatformCreateDirectory(char const* path);

/// Writes `count` bytes to the file at `path`, created or truncated, and sets its mode to
/// 0664; false when it could not be opened.
bool PlatformWriteFile(char const* path, unsigned char* bytes, unsigned int count);

/// Appends `leaf` to the path in `path`, an array of `capacity` bytes, with exactly one '/'
/// between the two. An empty leaf changes nothing. A separator, and then a leaf, that would
/// not fit with the terminating NUL is not appended; nothing reports that.
void PlatformAppendPathLeaf(char* path, unsigned int capacity, char const* leaf);

// ---- Hooks that do nothing on this platform

/// A millisecond clock with an arbitrary origin; always 0 here.
unsigned long PlatformGetArbitraryTimeInMS();

/// Would store a chunk among a file's resources; there are none here. Always false.
bool PlatformWriteChunkToResources(char const* path, fileChunk* chunk, char const* name);
