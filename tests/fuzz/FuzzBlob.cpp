// Payload blobs of any bytes: decoded, encoded again, and written to disk.
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/fuzz/FuzzCheck.h"
#include "tests/fuzz/PlainBlobReader.h"

namespace {

namespace fs = std::filesystem;

// An entry's node, the end of its name, and the byte that an empty array takes.
constexpr size_t kEntryBytes = sizeof(fileChunk) + 2;

// Blobs of a greater cost are left out: the decoder accepts up to 4 GiB, which takes seconds and
// the fuzzer's memory.
constexpr size_t kGreatestCost = 64UL << 20;

// Larger trees are not encoded, or not written, to keep the pace.
constexpr size_t kLargestEncoding = 1UL << 24;
constexpr size_t kLargestWritten = 1UL << 16;

// The sink's folder is in these nested folders, so that a path that leads up several levels still
// ends in an empty one.
constexpr const char* kOuterFolders[] = {"outer", "middle", "inner", "innermost"};
constexpr char kSinkFolder[] = "folder";
constexpr mode_t kOuterMode = 0700;

struct ListDeleter {
  void operator()(fileChunk* list) const { DeleteFileChunks(list); }
};
using List = std::unique_ptr<fileChunk, ListDeleter>;

struct Decoded {
  List list;
  BlobReading reading;
};

/// The most memory that decoding may take. Names and contents are copied from the blob or from a
/// decoded stream, which itself is kept, or copied when it is cut short, while its entries are
/// made.
size_t MemoryBound(size_t length, const BlobReading& reading) {
  return length + reading.entries * kEntryBytes + 2 * reading.claims + reading.largestTable;
}

/// Decodes a copy of exactly that length. The result and the memory used must agree with the second
/// reading.
Decoded Decode(std::string_view blob) {
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[blob.size()]);
  std::copy(blob.begin(), blob.end(), copy.get());
  Decoded decoded;
  BlobFault fault;
  size_t peak = 0;
  {
    const MemoryCount count;
    decoded.list.reset(dismantle(copy.get(), static_cast<unsigned int>(blob.size()), fault));
    peak = MemoryCount::Peak();
  }
  if (fault.reason == nullptr) {
    decoded.reading = ReadBlob(blob, decoded.list.get());
  } else {
    decoded.reading = ReadBlob(blob);
    FUZZ_CHECK(decoded.list == nullptr);
    FUZZ_CHECK(fault.inDecodedContent ? !decoded.reading.isStoredOnly
                                      : fault.offset <= blob.size());
  }
  FUZZ_CHECK(decoded.reading.isWellFormed == (fault.reason == nullptr));
  FUZZ_CHECK(peak <= MemoryBound(blob.size(), decoded.reading));
  return decoded;
}

std::string Encode(fileChunk* list) {
  std::string bytes(totalSizeof(list, kCompressionStored), '\0');
  FUZZ_CHECK(flatten(reinterpret_cast<unsigned char*>(bytes.data()), list) == bytes.size());
  return bytes;
}

/// Checks that the decoded tree can be encoded, that this decodes to the same tree, and that this
/// encodes to the same bytes.
void CheckRoundTrip(std::string_view blob, const Decoded& decoded) {
  const std::string bytes = Encode(decoded.list.get());
  // There is one way to store a tree.
  FUZZ_CHECK(!decoded.reading.isStoredOnly || bytes == blob);
  const BlobReading reading = ReadBlob(bytes, decoded.list.get());
  FUZZ_CHECK(reading.isWellFormed && reading.isStoredOnly);
  const Decoded again = Decode(bytes);
  FUZZ_CHECK(again.reading.isWellFormed);
  FUZZ_CHECK(Encode(again.list.get()) == bytes);
}

size_t SizeOf(const fileChunk* list) {
  size_t size = 0;
  for (; list != nullptr; list = list->next) {
    size += kEntryBytes + (list->isDirectory ? 0 : list->size) + SizeOf(list->children);
  }
  return size;
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

size_t EntriesIn(const fs::path& folder) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
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
  FUZZ_CHECK(EntriesIn(folder) == count);
}

/// Makes the outer folders, on the first call, and returns the innermost.
fs::path OuterFolder() {
  fs::path folder = FuzzFolder();
  for (const char* name : kOuterFolders) {
    folder /= name;
    FUZZ_CHECK(mkdir(folder.c_str(), kOuterMode) == 0 || errno == EEXIST);
  }
  return folder;
}

/// Checks that the outer folders are as they were made, each holding only the next.
void CheckOuterFolders() {
  fs::path folder = FuzzFolder();
  for (const char* name : kOuterFolders) {
    FUZZ_CHECK(EntriesIn(folder) == 1);
    folder /= name;
    struct stat status = {};
    FUZZ_CHECK(lstat(folder.c_str(), &status) == 0 && status.st_mode == (S_IFDIR | kOuterMode));
  }
  FUZZ_CHECK(EntriesIn(folder) == 1);
}

/// Adds the names of the tree that exist in the root folder or the working folder, where a file
/// without its path would be written.
void FindElsewhere(const fileChunk* list, std::set<std::string>& found) {
  for (; list != nullptr; list = list->next) {
    const std::string name = list->name;
    for (const std::string& path : {"/" + name, "./" + name}) {
      struct stat status = {};
      if (lstat(path.c_str(), &status) == 0) {
        found.insert(path);
      }
    }
    FindElsewhere(list->children, found);
  }
}

/// Checks that nothing is written outside the folder, and that a tree without collisions is written
/// completely.
void CheckSink(fileChunk* list) {
  const fs::path folder = OuterFolder() / kSinkFolder;
  fs::create_directory(folder);
  std::set<std::string> before;
  FindElsewhere(list, before);
  FUZZ_CHECK(PlatformWriteFileFromChunk(folder.c_str(), list));
  std::set<std::string> after;
  FindElsewhere(list, after);
  FUZZ_CHECK(after == before);
  CheckOuterFolders();
  FUZZ_CHECK(fs::is_directory(folder));
  // Deeper paths may be longer than the system takes.
  if (IsPlain(list) && DepthOf(list) * 256 < 3500) {
    CheckWritten(folder, list);
  }
  fs::remove_all(folder);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view blob(reinterpret_cast<const char*>(data), size);
  if (CostsMoreThan(blob, kGreatestCost)) {
    return 0;
  }
  const Decoded decoded = Decode(blob);
  if (!decoded.reading.isWellFormed) {
    return 0;
  }
  fileChunk* list = decoded.list.get();
  if (totalSizeof(list, kCompressionStored) <= kLargestEncoding) {
    CheckRoundTrip(blob, decoded);
  }
  if (SizeOf(list) <= kLargestWritten) {
    CheckSink(list);
  }
  return 0;
}
