// What the payload code does when memory runs out or a file has less than its size, and what it
// leaves in memory that it frees.
//
// This executable replaces the allocation functions, and the linker routes read, write, fstat,
// chmod, fchmod, close and mkdir through the wrappers below.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/InstallerCompressor/BlobTestSupport.h"
#include "tests/unit/support/Files.h"

namespace {

// How many more allocations succeed, and the size in bytes of the largest that may succeed;
// negative: no limit.
long allowedRequests = -1;
long largestRequest = -1;
unsigned long requests = 0;
unsigned long requestedBytes = 0;
// The bytes that a 64-bit allocator takes for them: a length before each, multiples of 16, at least
// 32.
unsigned long takenBytes = 0;
// Blocks of memory that are in use, their bytes, and the most bytes since the test set it to 0.
long blocks = 0;
size_t usedBytes = 0;
size_t peakBytes = 0;

// Text to look for in arrays that are freed, and how many contained it. While it is looked for, the
// lengths of those arrays that contain only 'X', in the order in which they are freed.
const char* soughtText = nullptr;
unsigned long arraysWithText = 0;
size_t scrubbedLengths[16];
size_t scrubbedArrays = 0;

// The most bytes that one read or write transfers, and that all reads and all writes transfer;
// negative: no limit. After that, reads find the end of the file or, with readFails, an error, and
// writes find a full disk.
long transferLimit = -1;
long readableBytes = -1;
long writableBytes = -1;
bool readFails = false;
// The next call fails as if a signal came.
bool interruptNext = false;
// Calls report success without touching memory or disk.
bool pretends = false;
unsigned long largestTransfer = 0;

// Called before the next write.
std::function<void()> beforeWriting;

// Whether fstat, fchmod and mkdir fail, and the next close, which closes the file nevertheless.
bool statusFails = false;
bool modeFails = false;
bool makingFails = false;
bool closeFails = false;

// Changes the results of fstat.
std::function<void(struct stat&)> alterStatus;

// Placed before each block.
struct alignas(std::max_align_t) BlockHeader {
  size_t size;
};

void* Allocate(size_t size) {
  ++requests;
  requestedBytes += size;
  takenBytes += std::max<size_t>((size + sizeof(size_t) + 15) / 16 * 16, 32);
  if (allowedRequests == 0) {
    return nullptr;
  }
  if (largestRequest >= 0 && size > static_cast<size_t>(largestRequest)) {
    return nullptr;
  }
  if (allowedRequests > 0) {
    --allowedRequests;
  }
  auto* const header = static_cast<BlockHeader*>(malloc(sizeof(BlockHeader) + size));
  if (!header) {
    abort();
  }
  header->size = size;
  ++blocks;
  usedBytes += size;
  peakBytes = std::max(peakBytes, usedBytes);
  return header + 1;
}

void* AllocateOrThrow(size_t size) {
  void* const memory = Allocate(size);
  if (memory) {
    return memory;
  }
  // The exception may fail the test, and reporting that needs memory.
  allowedRequests = largestRequest = -1;
  throw std::bad_alloc();
}

void Free(void* memory) {
  if (!memory) {
    return;
  }
  --blocks;
  auto* const header = static_cast<BlockHeader*>(memory) - 1;
  usedBytes -= header->size;
  free(header);
}

void Inspect(const void* array) {
  if (!soughtText || !array) {
    return;
  }
  const auto* const bytes = static_cast<const char*>(array);
  const size_t size = (static_cast<const BlockHeader*>(array) - 1)->size;
  if (memmem(bytes, size, soughtText, strlen(soughtText))) {
    ++arraysWithText;
  }
  size_t scrubbed = 0;
  while (scrubbed != size && bytes[scrubbed] == 'X') {
    ++scrubbed;
  }
  if (size == 0 || scrubbed != size || scrubbedArrays == std::size(scrubbedLengths)) {
    return;
  }
  scrubbedLengths[scrubbedArrays++] = size;
}

bool Interrupted() {
  if (!interruptNext) {
    return false;
  }
  interruptNext = false;
  errno = EINTR;
  return true;
}

ssize_t Pretend(size_t count) {
  if (count > largestTransfer) {
    largestTransfer = count;
  }
  return static_cast<ssize_t>(count);
}

size_t Limited(size_t count) {
  const auto limit = static_cast<size_t>(transferLimit);
  return transferLimit >= 0 && count > limit ? limit : count;
}

}  // namespace

void* operator new(size_t size) { return AllocateOrThrow(size); }
void* operator new[](size_t size) { return AllocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, size_t) noexcept { Free(memory); }
void operator delete[](void* memory) noexcept {
  Inspect(memory);
  Free(memory);
}
void operator delete[](void* memory, size_t) noexcept { operator delete[](memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { Free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { operator delete[](memory); }

// The names that the linker's --wrap gives to a function and to its replacement.
extern "C" {
ssize_t __real_read(int descriptor, void* buffer, size_t count);
ssize_t __real_write(int descriptor, const void* buffer, size_t count);
int __real_fstat(int descriptor, struct stat* status);
int __real_fchmod(int descriptor, mode_t mode);
int __real_chmod(const char* path, mode_t mode);
int __real_close(int descriptor);
int __real_mkdir(const char* path, mode_t mode);

ssize_t __wrap_read(int descriptor, void* buffer, size_t count) {
  if (pretends) {
    return Pretend(count);
  }
  if (Interrupted()) {
    return -1;
  }
  size_t allowed = Limited(count);
  if (readableBytes >= 0 && allowed > static_cast<size_t>(readableBytes)) {
    allowed = static_cast<size_t>(readableBytes);
  }
  if (allowed == 0 && readFails) {
    errno = EIO;
    return -1;
  }
  const ssize_t result = __real_read(descriptor, buffer, allowed);
  if (readableBytes >= 0 && result > 0) {
    readableBytes -= result;
  }
  return result;
}

ssize_t __wrap_write(int descriptor, const void* buffer, size_t count) {
  if (pretends) {
    return Pretend(count);
  }
  if (beforeWriting) {
    std::exchange(beforeWriting, nullptr)();
  }
  if (Interrupted()) {
    return -1;
  }
  size_t allowed = Limited(count);
  if (writableBytes >= 0 && allowed > static_cast<size_t>(writableBytes)) {
    allowed = static_cast<size_t>(writableBytes);
  }
  if (allowed == 0 && writableBytes == 0) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t result = __real_write(descriptor, buffer, allowed);
  if (writableBytes >= 0 && result > 0) {
    writableBytes -= result;
  }
  return result;
}

int __wrap_fstat(int descriptor, struct stat* status) {
  const int result = __real_fstat(descriptor, status);
  if (result == 0 && alterStatus) {
    alterStatus(*status);
  }
  if (!statusFails) {
    return result;
  }
  errno = EIO;
  return -1;
}

int __wrap_chmod(const char* path, mode_t mode) {
  return Interrupted() ? -1 : __real_chmod(path, mode);
}

int __wrap_fchmod(int descriptor, mode_t mode) {
  if (Interrupted()) {
    return -1;
  }
  if (!modeFails) {
    return __real_fchmod(descriptor, mode);
  }
  errno = EPERM;
  return -1;
}

int __wrap_mkdir(const char* path, mode_t mode) {
  if (!makingFails) {
    return __real_mkdir(path, mode);
  }
  errno = ENOSPC;
  return -1;
}

// Fails only for files that are written to: others lose nothing when close fails.
int __wrap_close(int descriptor) {
  const bool fails = closeFails && (fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_WRONLY;
  const int result = __real_close(descriptor);
  if (!fails) {
    return result;
  }
  closeFails = false;
  errno = EIO;
  return -1;
}
}

namespace {

class FaultTest : public testing::Test {
 protected:
  ~FaultTest() override {
    allowedRequests = largestRequest = -1;
    transferLimit = readableBytes = writableBytes = -1;
    readFails = interruptNext = statusFails = modeFails = makingFails = closeFails = pretends =
        false;
    largestTransfer = 0;
    soughtText = nullptr;
    beforeWriting = nullptr;
    alterStatus = nullptr;
  }
};

TEST_F(FaultTest, ABlobIsRefusedWheneverMemoryRunsOut) {
  const ChunkList tree = SampleTree();
  const ChunkList source = List({NewFile("blob", SolidBlob(tree.get()))});
  const std::string lzmaFile = TestData("blobs/no-marker.blob");
  const ChunkList file = List({NewFile("blob", lzmaFile)});
  file->data[1] = 1;
  for (fileChunk* blob : {source.get(), file.get()}) {
    requests = 0;
    EXPECT_NE(nullptr, ChunkList(DismantleInstallerBlob(blob)));
    const unsigned long needed = requests;
    EXPECT_GE(needed, 4UL);
    for (unsigned long allowed = 0; allowed < needed; ++allowed) {
      allowedRequests = static_cast<long>(allowed);
      BlobFault fault;
      const ChunkList list(DismantleInstallerBlob(blob, fault));
      allowedRequests = -1;
      EXPECT_EQ(nullptr, list);
      ASSERT_NE(nullptr, fault.reason) << allowed;
      EXPECT_STREQ("an entry needs more memory than there is", fault.reason);
      EXPECT_TRUE(fault.isWantOfMemory);
    }
  }
}

TEST_F(FaultTest, AnImpossibleClaimIsRefusedBeforeMemoryIsAskedFor) {
  for (const char* name : {"hostile/lzma-claim-greatest.blob", "hostile/inner-claim-greatest.blob",
                           "hostile/lzma-size-greatest.blob", "hostile/size-greatest.blob"}) {
    const std::string blob = TestData(name);
    requestedBytes = 0;
    BlobFault fault;
    EXPECT_EQ(nullptr, Dismantle(blob, fault)) << name;
    EXPECT_LT(requestedBytes, 100000UL) << name;
  }
}

// The budget allows seconds of decoding, but nothing decoded is kept before the budget is spent.
TEST_F(FaultTest, ABombIsRefusedBeforeItTakesMuch) {
  for (const char* name : {"hostile/bomb-of-bombs.blob", "hostile/bomb-of-probability-tables.blob",
                           "hostile/bomb-of-outer-probability-tables.blob"}) {
    const std::string blob = TestData(name);
    const size_t before = usedBytes;
    peakBytes = 0;
    BlobFault fault;
    EXPECT_EQ(nullptr, Dismantle(blob, fault)) << name;
    EXPECT_STREQ("LZMA entries cost too much to decode", fault.reason);
    EXPECT_LT(peakBytes - before, 16UL << 20) << name;
  }
}

TEST_F(FaultTest, ATreeTakesABoundedMultipleOfItsContent) {
  std::string content;
  for (int count = 0; count < 10000; ++count) {
    content += StoredFile("", "");
  }
  takenBytes = 0;
  const ChunkList list(dismantle(reinterpret_cast<unsigned char*>(content.data()),
                                 static_cast<unsigned int>(content.size())));
  EXPECT_NE(nullptr, list);
  EXPECT_LE(takenBytes, 20 * content.size());
}

TEST_F(FaultTest, TheWriterIsAbsentOrStoresWhenMemoryRunsOut) {
  const ChunkList list = List({NewFile("zeros", std::string(1000, '\0'))});
  const long blocksBefore = blocks;
  // A node and its data.
  for (const long allowed : {0, 1}) {
    allowedRequests = allowed;
    EXPECT_EQ(nullptr, PrepareSourceForSolidCompression(list.get())) << allowed;
    allowedRequests = allowed;
    EXPECT_EQ(nullptr, PrepareFileChunk(list.get(), kCompressionLZMA)) << allowed;
    allowedRequests = allowed;
    EXPECT_EQ(nullptr, PrepareFileChunk(list.get(), kCompressionStored)) << allowed;
    EXPECT_EQ(blocksBefore, blocks) << allowed;
  }
  // Enough for the entry, not for the encoder.
  for (const long allowed : {2, 3, 4}) {
    allowedRequests = allowed;
    const ChunkList formatted(PrepareFileChunk(list.get(), kCompressionLZMA));
    allowedRequests = -1;
    EXPECT_EQ(StoredFile("zeros", std::string(1000, '\0')), Contents(*formatted));
  }
}

TEST_F(FaultTest, TheTextureFilterIsAbsentWhenMemoryRunsOut) {
  const ChunkList chunk = List({NewFile("t", std::string(18, '\x20'))});
  const long blocksBefore = blocks;
  for (const long allowed : {0, 1}) {
    allowedRequests = allowed;
    EXPECT_EQ(nullptr, PremultiplyTexture(chunk.get())) << allowed;
    EXPECT_EQ(blocksBefore, blocks) << allowed;
  }
  allowedRequests = -1;
  EXPECT_NE(nullptr, ChunkList(PremultiplyTexture(chunk.get())));
}

TEST_F(FaultTest, AFileThatDoesNotFitInMemoryIsAsOneThatCannotBeOpened) {
  const TemporaryFolder folder;
  const std::string path = folder / "f";
  WriteFile(path, "contents");
  const int descriptor = LowestFreeDescriptor();
  const long blocksBefore = blocks;
  // A node, its name, and its data.
  for (const long allowed : {0, 1, 2}) {
    allowedRequests = allowed;
    EXPECT_EQ(nullptr, PlatformCreateSourceFromFile(path.c_str(), "f"));
    allowedRequests = -1;
    EXPECT_EQ(blocksBefore, blocks) << allowed;
  }
  int anything = 0;
  void* data = &anything;
  unsigned long length = 99;
  allowedRequests = 0;
  EXPECT_EQ(0, PlatformCreateSourceFromFile(path.c_str(), data, length));
  allowedRequests = -1;
  EXPECT_EQ(descriptor, LowestFreeDescriptor());
  EXPECT_EQ(&anything, data);
  EXPECT_EQ(99UL, length);
}

// The low 32 bits of its size would fit.
TEST_F(FaultTest, AFileOfMoreThan4GiBIsReadIntoAnArrayWholeOrNotAtAll) {
  const TemporaryFolder folder;
  const std::string path = folder / "f";
  WriteFile(path, "contents");
  ASSERT_EQ(0, truncate(path.c_str(), (1L << 32) + 3));  // sparse
  int anything = 0;
  void* data = &anything;
  unsigned long length = 99;
  const unsigned long before = requestedBytes;
  largestRequest = 1L << 20;
  EXPECT_EQ(0, PlatformCreateSourceFromFile(path.c_str(), data, length));
  largestRequest = -1;
  EXPECT_EQ((1UL << 32) + 3, requestedBytes - before);
  EXPECT_EQ(&anything, data);
  EXPECT_EQ(99UL, length);
}

TEST_F(FaultTest, AFileThatDoesNotFitInMemoryIsLeftOutOfATree) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "tree");
  WriteFile(folder / "tree/large", std::string(9000, 'l'));
  WriteFile(folder / "tree/small", "s");
  const std::string path = folder / "tree";
  largestRequest = 8000;
  const ChunkList tree(PlatformCreateSourceFromPath(path.c_str()));
  largestRequest = -1;
  EXPECT_EQ("'tree' directory 0\n  'small' file 1 's'\n", Describe(tree.get()));
}

TEST_F(FaultTest, ATreeIsReadAsFarAsMemoryGoes) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "sought-tree/a/b");
  WriteFile(folder / "sought-tree/a/b/f", "x");
  const std::string path = folder / "sought-tree";
  requests = 0;
  EXPECT_NE(nullptr, ChunkList(PlatformCreateSourceFromPath(path.c_str())));
  const auto needed = static_cast<long>(requests);
  const int descriptor = LowestFreeDescriptor();
  for (long allowed = 0; allowed < needed; ++allowed) {
    const long blocksBefore = blocks;
    soughtText = "sought-tree/";
    arraysWithText = 0;
    allowedRequests = allowed;
    fileChunk* tree = PlatformCreateSourceFromPath(path.c_str());
    allowedRequests = -1;
    soughtText = nullptr;
    EXPECT_EQ(0UL, arraysWithText) << allowed;
    // A node without a name would mean the directory around it.
    EXPECT_EQ(std::string::npos, Describe(tree).find("absent")) << allowed;
    EXPECT_EQ(tree == nullptr, allowed < 2) << "the first node and its name";
    DeleteFileChunks(tree);
    EXPECT_EQ(blocksBefore, blocks) << allowed;
  }
  EXPECT_EQ(descriptor, LowestFreeDescriptor());
}

TEST_F(FaultTest, ADirectoryOrFileWhoseStatusIsUnknownIsAsOneThatCannotBeOpened) {
  const TemporaryFolder folder;
  const std::string path = folder / "f";
  WriteFile(path, "old");
  std::string contents = "new";
  const int descriptor = LowestFreeDescriptor();
  int anything = 0;
  void* data = &anything;
  unsigned long length = 99;
  statusFails = true;
  fileChunk* const directory = PlatformCreateSourceFromPath(folder.Path().c_str());
  fileChunk* const file = PlatformCreateSourceFromFile(path.c_str(), "f");
  EXPECT_EQ(0, PlatformCreateSourceFromFile(path.c_str(), data, length));
  const bool written =
      PlatformWriteFile(path.c_str(), reinterpret_cast<unsigned char*>(contents.data()), 3);
  statusFails = false;
  EXPECT_EQ(nullptr, directory);
  EXPECT_EQ(nullptr, file);
  EXPECT_EQ(&anything, data);
  EXPECT_EQ(99UL, length);
  EXPECT_FALSE(written);
  EXPECT_EQ(descriptor, LowestFreeDescriptor());
}

// Each file system numbers its folders for itself.
TEST_F(FaultTest, AFolderWithTheNumberOfOneAroundItOnAnotherDeviceIsRead) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/mounted");
  WriteFile(folder / "tree/mounted/f", "x");
  const std::string path = folder / "tree";
  dev_t device = 1;
  alterStatus = [&](struct stat& status) {
    status.st_ino = 2;
    status.st_dev = device++;
  };
  const ChunkList tree(PlatformCreateSourceFromPath(path.c_str()));
  alterStatus = [](struct stat& status) {
    status.st_ino = 2;
    status.st_dev = 1;
  };
  const ChunkList loop(PlatformCreateSourceFromPath(path.c_str()));
  alterStatus = nullptr;
  EXPECT_EQ("'tree' directory 0\n  'mounted' directory 0\n    'f' file 1 'x'\n",
            Describe(tree.get()));
  EXPECT_EQ("'tree' directory 0\n", Describe(loop.get()));
}

TEST_F(FaultTest, AFileIsReadWholeInSmallPiecesAndThroughSignals) {
  const TemporaryFolder folder;
  const std::string contents = RandomBytes(10000);
  WriteFile(folder / "f", contents);
  transferLimit = 999;
  interruptNext = true;
  const ChunkList node(PlatformCreateSourceFromFile((folder / "f").c_str(), "f"));
  EXPECT_FALSE(interruptNext);
  EXPECT_EQ(contents, Contents(*node));
}

TEST_F(FaultTest, WhatAShrinkingFileHasLostIsZero) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", RandomBytes(10000));
  readableBytes = 4000;
  const ChunkList node(PlatformCreateSourceFromFile((folder / "f").c_str(), "f"));
  readableBytes = 0;
  void* data = nullptr;
  unsigned long length = 0;
  PlatformCreateSourceFromFile((folder / "f").c_str(), data, length);
  readableBytes = -1;
  EXPECT_EQ(RandomBytes(10000).substr(0, 4000) + std::string(6000, '\0'), Contents(*node));
  EXPECT_EQ(std::string(10000, '\0'), std::string(static_cast<char*>(data), length));
  delete[] static_cast<unsigned char*>(data);
}

TEST_F(FaultTest, WhatComesAfterAReadErrorIsZero) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", RandomBytes(10000));
  readableBytes = 4000;
  readFails = true;
  const ChunkList node(PlatformCreateSourceFromFile((folder / "f").c_str(), "f"));
  readableBytes = -1;
  EXPECT_EQ(RandomBytes(10000).substr(0, 4000) + std::string(6000, '\0'), Contents(*node));
}

TEST_F(FaultTest, AFileIsWrittenWholeInSmallPiecesAndThroughSignals) {
  const TemporaryFolder folder;
  std::string contents = RandomBytes(10000);
  transferLimit = 999;
  interruptNext = true;
  EXPECT_TRUE(PlatformWriteFile((folder / "f").c_str(),
                                reinterpret_cast<unsigned char*>(contents.data()), 10000));
  EXPECT_FALSE(interruptNext);
  transferLimit = -1;
  EXPECT_EQ(contents, ReadFile(folder / "f"));
}

TEST_F(FaultTest, AModeIsSetThroughSignals) {
  const TemporaryFolder folder;
  fs::permissions(folder.Path(), 02775);  // handed down to new folders
  const ChunkList directory = List({NewDirectory("d")});
  const std::function<void()> calls[] = {
      [&] { PlatformCreateDirectory((folder / "a").c_str()); },
      [&] { PlatformWriteFileFromChunk(folder.Path().c_str(), directory.get()); },
      [&] {
        const mode_t mask = umask(077);
        PlatformWriteFile((folder / "f").c_str(), nullptr, 0);
        umask(mask);
      }};
  for (const auto& call : calls) {
    interruptNext = true;
    call();
    EXPECT_FALSE(interruptNext);
  }
  EXPECT_EQ(0775U, Mode(folder / "a"));
  EXPECT_EQ(0775U, Mode(folder / "d"));
  EXPECT_EQ(0664U, Mode(folder / "f"));
}

// A folder that another user has put in the place of the new one, and that belongs to a third user.
TEST_F(FaultTest, TheModeOfAnotherUsersFolderIsNotChanged) {
  const TemporaryFolder folder;
  fs::permissions(folder.Path(), 02775);  // handed down, so that 0775 would be a change
  const ChunkList list = List({NewDirectory("", {NewDirectory("d")})});
  alterStatus = [](struct stat& status) { status.st_uid = geteuid() + 1; };
  EXPECT_TRUE(PlatformCreateDirectory((folder / "a").c_str()));
  SinkReport report;
  PlatformWriteFileFromChunk(folder.Path().c_str(), "b", list.get(), report);
  alterStatus = nullptr;
  EXPECT_EQ(0UL, report.failed);
  for (const char* name : {"a", "b", "b/d"}) {
    EXPECT_EQ(02775U, Mode(folder / name)) << name;
  }
}

// What the reader of a tree reported, and its first error.
struct FirstFault {
  int error = -1;
  unsigned long count = 0;
};

void NoteFault(const char*, int error, void* context) {
  auto* const fault = static_cast<FirstFault*>(context);
  if (fault->count++ == 0) {
    fault->error = error;
  }
}

TEST_F(FaultTest, BytesOfATreeThatAreMissingAreTold) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", RandomBytes(10000));
  for (const bool fails : {false, true}) {
    FirstFault fault;
    readableBytes = 4000;
    readFails = fails;
    const ChunkList node(
        PlatformCreateSourceFromPath(folder.Path().c_str(), nullptr, NoteFault, &fault));
    readableBytes = -1;
    EXPECT_EQ(fails ? EIO : kFileBecameShorter, fault.error);
    EXPECT_EQ(1UL, fault.count);
  }
}

TEST_F(FaultTest, ADirectoryWhoseStatusIsUnknownIsTold) {
  const TemporaryFolder folder;
  FirstFault fault;
  statusFails = true;
  const fileChunk* const node =
      PlatformCreateSourceFromPath(folder.Path().c_str(), nullptr, NoteFault, &fault);
  statusFails = false;
  EXPECT_EQ(nullptr, node);
  EXPECT_EQ(EIO, fault.error);
}

TEST_F(FaultTest, ATreeThatMemoryDoesNotSufficeForIsTold) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/a");
  WriteFile(folder / "tree/a/f", "x");
  const std::string path = folder / "tree";
  requests = 0;
  EXPECT_NE(nullptr, ChunkList(PlatformCreateSourceFromPath(path.c_str())));
  const auto needed = static_cast<long>(requests);
  for (long allowed = 0; allowed < needed; ++allowed) {
    FirstFault fault;
    allowedRequests = allowed;
    fileChunk* tree = PlatformCreateSourceFromPath(path.c_str(), nullptr, NoteFault, &fault);
    allowedRequests = -1;
    EXPECT_EQ(ENOMEM, fault.error) << allowed;
    DeleteFileChunks(tree);
  }
}

TEST_F(FaultTest, NoTransferIsLargerThanTheSystemsTake) {
  const TemporaryFolder folder;
  const std::string path = folder / "f";
  WriteFile(path, "x");
  constexpr unsigned int kSize = (1U << 30) + 1;
  ASSERT_EQ(0, truncate(path.c_str(), kSize));  // sparse
  pretends = true;
  const ChunkList node(PlatformCreateSourceFromFile(path.c_str(), "f"));
  const unsigned long largestRead = largestTransfer;
  unsigned char byte = 'x';
  largestTransfer = 0;
  PlatformWriteFile(path.c_str(), &byte, kSize);
  pretends = false;
  EXPECT_EQ(1UL << 30, largestRead);
  EXPECT_EQ(1UL << 30, largestTransfer);
  EXPECT_EQ(kSize, node->size);
}

TEST_F(FaultTest, AFullDiskIsNotReported) {
  const TemporaryFolder folder;
  std::string contents = RandomBytes(10000);
  writableBytes = 4000;
  const bool result = PlatformWriteFile((folder / "f").c_str(),
                                        reinterpret_cast<unsigned char*>(contents.data()), 10000);
  writableBytes = -1;
  EXPECT_TRUE(result);
  EXPECT_EQ(contents.substr(0, 4000), ReadFile(folder / "f"));
  EXPECT_EQ(0664U, Mode(folder / "f"));
}

// The entries f and g of a list that is written to a folder of their own.
class SinkFaultTest : public FaultTest {
 protected:
  void Write() {
    PlatformWriteFileFromChunk(folder_.Path().c_str(), "", list_.get(), report_);
    statusFails = modeFails = closeFails = false;
    writableBytes = allowedRequests = -1;
  }
  void Expect(unsigned long failed, const char* name, int error) const {
    EXPECT_EQ(2UL, report_.entries);
    EXPECT_EQ(failed, report_.failed);
    EXPECT_EQ(error, report_.error);
    EXPECT_STREQ((folder_ / name).c_str(), report_.path);
  }

  const TemporaryFolder folder_;
  const ChunkList list_ = List({NewFile("f", std::string(300, 'f')), NewFile("g", "g")});
  SinkReport report_;
};

TEST_F(SinkFaultTest, AFullDiskIsReported) {
  writableBytes = 100;
  Write();
  Expect(2, "f", ENOSPC);
  EXPECT_EQ(std::string(100, 'f'), ReadFile(folder_ / "f"));
}

TEST_F(SinkFaultTest, AModeThatIsNotSetIsReported) {
  modeFails = true;
  Write();
  Expect(2, "f", EPERM);
  EXPECT_EQ("g", ReadFile(folder_ / "g"));
}

TEST_F(SinkFaultTest, AFailingCloseIsReported) {
  closeFails = true;
  Write();
  Expect(1, "f", EIO);
  EXPECT_EQ("g", ReadFile(folder_ / "g"));
}

TEST_F(SinkFaultTest, WithoutMemoryForThePathTheErrorIsReported) {
  writableBytes = 0;
  allowedRequests = 0;
  Write();
  EXPECT_EQ(2UL, report_.failed);
  EXPECT_EQ(ENOSPC, report_.error);
  EXPECT_EQ(nullptr, report_.path);
}

// Another user, who may write in the folders on the way, does so just then.
class MovedFolderTest : public FaultTest {
 protected:
  void Write(const std::function<void()>& event) {
    beforeWriting = event;
    PlatformWriteFileFromChunk((folder_ / "root").c_str(), "bundle", list_.get(), report_);
  }
  void ExpectLost() const {
    EXPECT_EQ(9UL, report_.entries);
    EXPECT_EQ(4UL, report_.failed) << "what comes after the folder that was left";
    EXPECT_EQ(ESTALE, report_.error);
    EXPECT_STREQ((folder_ / "root/bundle/a/after").c_str(), report_.path);
    EXPECT_EQ("3", ReadFile(folder_ / "moved/inner/3"));
    EXPECT_FALSE(fs::exists(folder_ / "root/after"));
    EXPECT_FALSE(fs::exists(folder_ / "after"));
  }

  const TemporaryFolder folder_;
  const ChunkList list_ = List({NewDirectory(
      "", {NewDirectory("a", {NewDirectory("inner", {NewFile("1", "1"), NewFile("3", "3")}),
                              NewFile("after", "x"), NewDirectory("b", {NewFile("after", "x")})}),
           NewFile("after", "x")})});
  SinkReport report_;
  const bool isMade_ = fs::create_directory(folder_ / "root");
};

TEST_F(MovedFolderTest, IsNotLeftForTheFolderAroundItsNewPlace) {
  Write([this] {
    fs::create_directory(folder_ / "moved");
    fs::rename(folder_ / "root/bundle/a/inner", folder_ / "moved/inner");
  });
  ExpectLost();
}

TEST_F(MovedFolderTest, ALinkInItsOldPlaceLeadsNowhere) {
  Write([this] {
    fs::create_directories(folder_ / "moved");
    fs::create_directories(folder_ / "victim");
    fs::rename(folder_ / "root/bundle/a/inner", folder_ / "moved/inner");
    fs::create_symlink(folder_ / "victim", folder_ / "root/bundle/a/inner");
  });
  ExpectLost();
  EXPECT_TRUE(fs::is_empty(folder_ / "victim"));
}

TEST_F(SinkFaultTest, WritingTakesNoMemory) {
  const unsigned long before = requests;
  allowedRequests = 0;
  Write();
  EXPECT_EQ(before, requests);
  EXPECT_EQ(0UL, report_.failed);
  EXPECT_EQ("g", ReadFile(folder_ / "g"));
}

// ---- A folder that cannot be made

TEST_F(FaultTest, TheErrorIsThatOfMakingAFolderNotOfEnteringIt) {
  const TemporaryFolder folder;
  const ChunkList list = List({NewDirectory("", {NewDirectory("d", {NewFile("f", "x")})})});
  SinkReport report;
  makingFails = true;
  PlatformWriteFileFromChunk(folder.Path().c_str(), "", list.get(), report);
  makingFails = false;
  EXPECT_EQ(2UL, report.failed);
  EXPECT_EQ(ENOSPC, report.error);
}

// ---- A file that is open already

class DescriptorSourceTest : public FaultTest {
 protected:
  DescriptorSourceTest() {
    WriteFile(folder_ / "f", contents_);
    descriptor_ = open((folder_ / "f").c_str(), O_RDWR);
  }
  ~DescriptorSourceTest() override { close(descriptor_); }

  void ExpectAbsent(int error) {
    const long blocksBefore = blocks;
    int found = -1;
    EXPECT_EQ(nullptr, PlatformCreateSourceFromDescriptor(descriptor_, found));
    EXPECT_EQ(error, found);
    EXPECT_EQ(blocksBefore, blocks);
    allowedRequests = readableBytes = -1;
    readFails = statusFails = false;
  }

  const TemporaryFolder folder_;
  const std::string contents_ = RandomBytes(10000);
  int descriptor_ = -1;
};

TEST_F(DescriptorSourceTest, IsReadWhole) {
  transferLimit = 999;
  interruptNext = true;
  int error = -1;
  const ChunkList node(PlatformCreateSourceFromDescriptor(descriptor_, error));
  transferLimit = -1;
  ASSERT_NE(nullptr, node);
  EXPECT_EQ(contents_, Contents(*node));
  EXPECT_EQ(nullptr, node->name);
  EXPECT_FALSE(node->isDirectory);
}

TEST_F(DescriptorSourceTest, IsAbsentWhenItCannotBeReadWhole) {
  readableBytes = 4000;
  ExpectAbsent(kFileBecameShorter);
  readableBytes = 4000;
  readFails = true;
  ExpectAbsent(EIO);
  statusFails = true;
  ExpectAbsent(EIO);
}

TEST_F(DescriptorSourceTest, IsAbsentWithoutMemory) {
  for (const long allowed : {0, 1}) {
    allowedRequests = allowed;
    ExpectAbsent(ENOMEM);
  }
}

TEST_F(DescriptorSourceTest, Of4GiBIsNotRead) {
  ASSERT_EQ(0, ftruncate(descriptor_, 1L << 32));  // sparse
  const unsigned long before = requestedBytes;
  ExpectAbsent(EFBIG);
  EXPECT_EQ(before, requestedBytes);
}

// Arrays of nothing but 'X', each of its own length, are recorded when they are freed.
TEST_F(FaultTest, ANodeFreesItsNameThenItsChildrenThenItsData) {
  const auto array = [](auto* bytes, size_t count) {
    memset(bytes, 'X', count);
    return bytes;
  };
  auto* node = new fileChunk;
  node->name = array(new char[1], 1);
  node->data = array(new unsigned char[2], 2);
  node->children = new fileChunk;
  node->children->name = array(new char[3], 3);
  node->children->data = array(new unsigned char[4], 4);
  scrubbedArrays = 0;
  soughtText = "anything";
  DeleteFileChunks(node);
  soughtText = nullptr;
  EXPECT_EQ((std::vector<size_t>{1, 3, 4, 2}),
            std::vector<size_t>(scrubbedLengths, scrubbedLengths + scrubbedArrays));
}

TEST_F(FaultTest, PathsOfEntriesAreScrubbedBeforeTheyAreFreed) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "scrubbed/inner-name");
  WriteFile(folder / "scrubbed/inner-name/file-name", "x");
  const std::string path = folder / "scrubbed";
  const size_t innerCapacity = path.size() + strlen("/inner-name") + 1;
  const size_t fileCapacity = innerCapacity + strlen("/file-name");
  for (const char* text : {"scrubbed", "inner-name", "file-name"}) {
    arraysWithText = scrubbedArrays = 0;
    soughtText = text;
    fileChunk* source = PlatformCreateSourceFromPath(path.c_str());
    soughtText = nullptr;
    EXPECT_EQ(0UL, arraysWithText) << text;
    EXPECT_EQ((std::vector<size_t>{fileCapacity, innerCapacity}),
              std::vector<size_t>(scrubbedLengths, scrubbedLengths + scrubbedArrays));
    DeleteFileChunks(source);
  }
}

}  // namespace
