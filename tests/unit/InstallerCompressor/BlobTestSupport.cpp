#include "tests/unit/InstallerCompressor/BlobTestSupport.h"
#include "tests/unit/support/Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <vector>

char* NewName(const char* text) {
  if (!text) {
    return nullptr;
  }
  char* const name = new char[strlen(text) + 1];
  strcpy(name, text);
  return name;
}

fileChunk* NewFile(const char* name, const std::string& contents) {
  auto* const node = new fileChunk;
  node->name = NewName(name);
  node->size = contents.size();
  node->data = new unsigned char[contents.size()];
  if (!contents.empty()) {
    memcpy(node->data, contents.data(), contents.size());
  }
  return node;
}

fileChunk* NewDirectory(const char* name, std::initializer_list<fileChunk*> children) {
  auto* const node = new fileChunk;
  node->name = NewName(name);
  node->isDirectory = true;
  node->children = List(children).release();
  return node;
}

ChunkList List(std::initializer_list<fileChunk*> nodes) {
  fileChunk* head = nullptr;
  fileChunk** link = &head;
  for (fileChunk* node : nodes) {
    *link = node;
    link = &node->next;
  }
  return ChunkList(head);
}

ChunkList SampleTree() {
  return List(
      {NewDirectory("Contents", {NewFile("Info.plist", "<plist/>\n"),
                                 NewDirectory("MacOS", {NewFile("Player", RandomBytes(3000))}),
                                 NewDirectory("Resources"), NewFile("PkgInfo", "BRPL????")}),
       NewFile("empty", ""), NewFile("zeros", std::string(5000, '\0'))});
}

namespace {

void DescribeInto(std::ostringstream& text, const fileChunk* list, int depth) {
  for (const fileChunk* node = list; node; node = node->next) {
    text << std::string(static_cast<size_t>(depth) * 2, ' ');
    text << (node->name ? "'" + std::string(node->name) + "'" : "absent");
    text << (node->isDirectory ? " directory " : " file ") << node->size;
    if (node->data) {
      const std::string contents = Contents(*node);
      text << (contents.size() <= 32 ? " '" + contents + "'"
                                     : " #" + std::to_string(std::hash<std::string>()(contents)));
    }
    text << "\n";
    DescribeInto(text, node->children, depth + 1);
  }
}

}  // namespace

std::string Describe(const fileChunk* list) {
  std::ostringstream text;
  DescribeInto(text, list, 0);
  return text.str();
}

std::string Contents(const fileChunk& node) {
  return std::string(reinterpret_cast<const char*>(node.data), node.size);
}

std::string Flatten(fileChunk* list) {
  const unsigned int length = totalSizeof(list, 0);
  const std::unique_ptr<unsigned char[]> buffer(new unsigned char[length]);
  EXPECT_EQ(length, flatten(buffer.get(), list));
  return std::string(reinterpret_cast<char*>(buffer.get()), length);
}

ChunkList Dismantle(const std::string& bytes) {
  BlobFault fault;
  ChunkList list = Dismantle(bytes, fault);
  EXPECT_EQ(nullptr, fault.reason) << fault.reason << " at " << fault.offset;
  return list;
}

ChunkList Dismantle(const std::string& bytes, BlobFault& fault) {
  const std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size()]);
  if (!bytes.empty()) {
    memcpy(exact.get(), bytes.data(), bytes.size());
  }
  return ChunkList(dismantle(exact.get(), static_cast<unsigned int>(bytes.size()), fault));
}

std::string BigEndian32(unsigned long value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
          static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string Header(int flags, const std::string& name, unsigned long size) {
  return std::string(1, '\x02') + static_cast<char>(flags) + static_cast<char>(name.size()) + name +
         BigEndian32(size);
}

std::string StoredFile(const std::string& name, const std::string& contents) {
  return Header(0, name, contents.size()) + contents;
}

std::string StoredDirectory(const std::string& name, const std::string& content) {
  return Header(0x80, name, content.size()) + content;
}

std::string LZMAEntry(const char* name, const std::string& content, bool isDirectory) {
  const ChunkList chunk(NewFile(name, content));
  chunk->isDirectory = isDirectory;
  const ChunkList formatted(PrepareFileChunk(chunk.get(), kCompressionLZMA));
  const std::string entry = Contents(*formatted);
  EXPECT_EQ(isDirectory ? '\x81' : '\x01', entry.at(1)) << "stored, not compressed";
  return entry;
}

std::string SolidBlob(fileChunk* list) {
  const ChunkList root(PrepareSourceForSolidCompression(list));
  const ChunkList formatted(PrepareFileChunk(root.get(), kCompressionLZMA));
  const std::string blob = Contents(*formatted);
  EXPECT_EQ('\x81', blob.at(1)) << "stored, not compressed";
  return blob;
}

std::string RandomBytes(size_t count, unsigned int seed) {
  std::mt19937 random(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const std::string& path, const std::string& contents) {
  std::ofstream file(path, std::ios::binary);
  file << contents;
  file.close();
  ASSERT_TRUE(file.good()) << path;
}

std::string TestData(const std::string& name) {
  return ReadFile(std::string(KP_TEST_DATA_DIR) + "/" + name);
}

unsigned int Mode(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
  return status.st_mode & 07777;
}

std::string FolderOfLength(const std::string& root, size_t length) {
  std::string path = root;
  while (length - path.size() > 200) {
    path += "/" + std::string(99, 'r');
  }
  path += "/" + std::string(length - path.size() - 1, 'r');
  fs::create_directories(path);
  return path;
}

int LowestFreeDescriptor() {
  const int descriptor = dup(STDIN_FILENO);
  EXPECT_LE(0, descriptor);
  close(descriptor);
  return descriptor;
}

ScopedAlarm::ScopedAlarm() { alarm(300); }

ScopedAlarm::~ScopedAlarm() { alarm(0); }

TemporaryFolder::TemporaryFolder() {
  std::string pattern = fs::temp_directory_path() + "/payload-test-XXXXXX";
  if (!mkdtemp(pattern.data())) {
    abort();
  }
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() { fs::remove_all(path_); }
