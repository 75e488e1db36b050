// What the tests of the payload code share: trees made in a line, bytes made by hand,
// private folders.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

struct ChunkDeleter {
  void operator()(fileChunk* list) const { DeleteFileChunks(list); }
};
/// A sibling list that frees itself.
using ChunkList = std::unique_ptr<fileChunk, ChunkDeleter>;

/// A copy of `text` as nodes own their names; absent for an absent text.
char* NewName(const char* text);

/// A file node. `name` may be absent.
fileChunk* NewFile(const char* name, const std::string& contents);

/// A directory node that takes the nodes over, in their order.
fileChunk* NewDirectory(const char* name, std::initializer_list<fileChunk*> children = {});

/// Links nodes to one list.
ChunkList List(std::initializer_list<fileChunk*> nodes);

/// A small tree of all kinds: nested and empty directories, empty and binary files.
ChunkList SampleTree();

/// The tree as text: one line per node, indented by depth, with everything a node holds.
std::string Describe(const fileChunk* list);

/// The bytes that a node holds.
std::string Contents(const fileChunk& node);

/// What `flatten` makes of a list, in an array of exactly `totalSizeof` bytes.
std::string Flatten(fileChunk* list);

/// Decodes a copy of `bytes` in an array of exactly their length, so that the address sanitizer
/// sees every read beyond it.
ChunkList Dismantle(const std::string& bytes);
ChunkList Dismantle(const std::string& bytes, BlobFault& fault);

/// Entries written by hand, independently of the product's writer.
std::string BigEndian32(unsigned long value);
std::string Header(int flags, const std::string& name, unsigned long size);
std::string StoredFile(const std::string& name, const std::string& contents);
std::string StoredDirectory(const std::string& name, const std::string& content);

/// An LZMA entry of `content`, made by the product's writer; fails the test when it does not get
/// compressed.
std::string LZMAEntry(const char* name, const std::string& content, bool isDirectory);

/// Packs a list as the one solid root of a blob; fails the test when it does not get compressed.
std::string SolidBlob(fileChunk* list);

/// Bytes without any pattern, always the same for a seed.
std::string RandomBytes(size_t count, unsigned int seed = 1);

/// The bytes of a file; fails the test when it cannot be read.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& contents);

/// The file `name` of tests/data.
std::string TestData(const std::string& name);

/// Permission bits of the item at `path`; fails the test when there is none.
unsigned int Mode(const std::string& path);

/// Makes a folder below `root` whose path has `length` characters, some hundred more than the
/// root's, and returns the path.
std::string FolderOfLength(const std::string& root, size_t length);

/// The descriptor that the next open(2) returns: greater than before when one was left open.
int LowestFreeDescriptor();

/// Ends the process when its scope takes a minute: a call that waits for the other end of a FIFO
/// never returns.
class ScopedAlarm {
 public:
  ScopedAlarm();
  ~ScopedAlarm();
  ScopedAlarm(const ScopedAlarm&) = delete;
  ScopedAlarm& operator=(const ScopedAlarm&) = delete;
};

/// A private folder, removed with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& Path() const { return path_; }
  /// The path of `leaf` in the folder.
  std::string operator/(const std::string& leaf) const { return path_ + "/" + leaf; }

 private:
  std::string path_;
};
