// Payload blobs of any bytes: decoded, encoded again, and written to disk.
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

namespace fs = std::filesystem;

// The budget of LZMA entries: docs/blob-format.md. Content that is decoded twice counts twice, and
// the outermost entries' claims, which no stream of that length exceeds by much, once more.
constexpr size_t kAllowance = 64UL << 20;
constexpr size_t kPerByte = 8192;
constexpr size_t kMemoryFactor = 3;
constexpr size_t kNodeBytes = 64;

// Larger trees are not encoded and written, to keep the pace.
constexpr size_t kLargestTree = 1UL << 16;

struct ListDeleter {
  void operator()(fileChunk* list) const { DeleteFileChunks(list); }
};
using List = std::unique_ptr<fileChunk, ListDeleter>;

struct Decoded {
  List list;
  bool isWellFormed = false;
};

/// Decodes a copy of exactly that length.
Decoded Decode(const uint8_t* bytes, size_t length) {
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[length]);
  if (length != 0) {
    memcpy(copy.get(), bytes, length);
  }
  Decoded decoded;
  BlobFault fault;
  const MemoryCount count;
  decoded.list.reset(dismantle(copy.get(), static_cast<unsigned int>(length), fault));
  decoded.isWellFormed = fault.reason == nullptr;
  FUZZ_CHECK(decoded.isWellFormed || decoded.list == nullptr);
  FUZZ_CHECK(decoded.isWellFormed || fault.inDecodedContent || fault.offset <= length);
  FUZZ_CHECK(MemoryCount::Peak() <=
             kMemoryFactor * (kAllowance + (kPerByte + kNodeBytes) * length));
  return decoded;
}

bool IsSame(const fileChunk* left, const fileChunk* right) {
  for (; left != nullptr && right != nullptr; left = left->next, right = right->next) {
    if (strcmp(left->name, right->name) != 0 || left->isDirectory != right->isDirectory ||
        (!left->isDirectory &&
         (left->size != right->size || memcmp(left->data, right->data, left->size) != 0)) ||
        !IsSame(left->children, right->children)) {
      return false;
    }
  }
  return left == right;
}

size_t SizeOf(const fileChunk* list) {
  size_t size = 0;
  for (; list != nullptr; list = list->next) {
    size += kNodeBytes + (list->isDirectory ? 0 : list->size) + SizeOf(list->children);
  }
  return size;
}

std::string Encode(fileChunk* list) {
  std::string bytes(totalSizeof(list, kCompressionStored), '\0');
  FUZZ_CHECK(flatten(reinterpret_cast<unsigned char*>(bytes.data()), list) == bytes.size());
  return bytes;
}

/// What is decoded can be encoded, and decodes to the same.
void CheckRoundTrip(fileChunk* list) {
  const std::string bytes = Encode(list);
  const Decoded again = Decode(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  FUZZ_CHECK(again.isWellFormed);
  FUZZ_CHECK(IsSame(list, again.list.get()));
  FUZZ_CHECK(Encode(again.list.get()) == bytes);
}

/// Whether each entry has a name and a place of its own, so that nothing replaces anything.
bool IsPlain(const fileChunk* list) {
  std::set<std::string> names;
  for (; list != nullptr; list = list->next) {
    const std::string name = list->name;
    if (name.empty() || name.back() == '/' || !names.insert(name).second ||
        !IsPlain(list->children)) {
      return false;
    }
  }
  return true;
}

size_t DepthOf(const fileChunk* list) {
  size_t depth = 0;
  for (; list != nullptr; list = list->next) {
    depth = std::max(depth, 1 + DepthOf(list->children));
  }
  return depth;
}

void CheckWritten(const fs::path& folder, const fileChunk* list) {
  size_t count = 0;
  for (; list != nullptr; list = list->next, ++count) {
    const fs::path path = folder / list->name;
    struct stat status = {};
    FUZZ_CHECK(lstat(path.c_str(), &status) == 0);
    if (list->isDirectory) {
      FUZZ_CHECK(status.st_mode == (S_IFDIR | 0775));
      CheckWritten(path, list->children);
    } else {
      FUZZ_CHECK(status.st_mode == (S_IFREG | 0664));
      FUZZ_CHECK(ReadFuzzFile(path) ==
                 std::string(reinterpret_cast<const char*>(list->data), list->size));
    }
  }
  FUZZ_CHECK(static_cast<size_t>(std::distance(fs::directory_iterator(folder), {})) == count);
}

/// Nothing is written outside the folder; of a tree without collisions, all of it is.
void CheckSink(fileChunk* list) {
  const fs::path parent = fs::path(FuzzFolder()) / "parent";
  const fs::path folder = parent / "folder";
  fs::create_directories(folder);
  FUZZ_CHECK(PlatformWriteFileFromChunk(folder.c_str(), list));
  FUZZ_CHECK(std::distance(fs::directory_iterator(FuzzFolder()), {}) == 1);
  FUZZ_CHECK(std::distance(fs::directory_iterator(parent), {}) == 1);
  FUZZ_CHECK(fs::is_directory(folder));
  // Deeper paths may be longer than the system takes.
  if (IsPlain(list) && DepthOf(list) * 256 < 3500) {
    CheckWritten(folder, list);
  }
  fs::remove_all(folder);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Decoded decoded = Decode(data, size);
  if (decoded.list != nullptr && SizeOf(decoded.list.get()) <= kLargestTree) {
    CheckRoundTrip(decoded.list.get());
    CheckSink(decoded.list.get());
  }
  return 0;
}
