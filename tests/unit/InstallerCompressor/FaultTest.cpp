// What the payload code does when memory runs out, when the file system gives less than it
// promised, and what it leaves in memory that it frees.
//
// This executable replaces the allocation functions for arrays and the nothrow ones, and the
// linker routes read and write through the wrappers below.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

// Nothrow requests that are still met; negative: all.
long allowedRequests = -1;
unsigned long requests = 0;
unsigned long requestedBytes = 0;

// Text to look for in arrays that are freed, and how many held it.
const char* soughtText = nullptr;
unsigned long arraysWithText = 0;
unsigned long arraysScrubbed = 0;

// The most bytes one read or write takes, and how many bytes reads give altogether; negative: no
// limit. The first call of each fails as if a signal came.
long transferLimit = -1;
long readableBytes = -1;
bool interruptNext = false;

void* Allocate(size_t size) {
  ++requests;
  requestedBytes += size;
  if (allowedRequests == 0) return nullptr;
  if (allowedRequests > 0) --allowedRequests;
  return malloc(size ? size : 1);
}

bool Contains(const char* bytes, size_t size, const char* text) {
  return memmem(bytes, size, text, strlen(text)) != nullptr;
}

void Inspect(const void* array) {
  if (!soughtText || !array) return;
  const size_t size = malloc_usable_size(const_cast<void*>(array));
  if (Contains(static_cast<const char*>(array), size, soughtText)) ++arraysWithText;
  if (Contains(static_cast<const char*>(array), size, "XXXXXXXXXXXXXXXX")) ++arraysScrubbed;
}

bool Interrupted() {
  if (!interruptNext) return false;
  interruptNext = false;
  errno = EINTR;
  return true;
}

size_t Limited(size_t count) {
  const auto limit = static_cast<size_t>(transferLimit);
  return transferLimit >= 0 && count > limit ? limit : count;
}

}  // namespace

void* operator new(size_t size) {
  void* const memory = malloc(size ? size : 1);
  if (!memory) abort();
  return memory;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory) noexcept {
  Inspect(memory);
  free(memory);
}
void operator delete[](void* memory, size_t) noexcept { operator delete[](memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { operator delete[](memory); }

// The names that the linker's --wrap gives to a function and to its replacement.
extern "C" {
ssize_t __real_read(int descriptor, void* buffer, size_t count);
ssize_t __real_write(int descriptor, const void* buffer, size_t count);

ssize_t __wrap_read(int descriptor, void* buffer, size_t count) {
  if (Interrupted()) return -1;
  size_t allowed = Limited(count);
  if (readableBytes >= 0 && allowed > static_cast<size_t>(readableBytes)) {
    allowed = static_cast<size_t>(readableBytes);
  }
  const ssize_t result = __real_read(descriptor, buffer, allowed);
  if (readableBytes >= 0 && result > 0) readableBytes -= result;
  return result;
}

ssize_t __wrap_write(int descriptor, const void* buffer, size_t count) {
  return Interrupted() ? -1 : __real_write(descriptor, buffer, Limited(count));
}
}

namespace {

class FaultTest : public testing::Test {
 protected:
  ~FaultTest() override {
    allowedRequests = transferLimit = readableBytes = -1;
    interruptNext = false;
    soughtText = nullptr;
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

TEST_F(FaultTest, ABombIsRefusedBeforeItTakesMuch) {
  for (const char* name :
       {"hostile/bomb-of-bombs.blob", "hostile/bomb-of-probability-tables.blob"}) {
    const std::string blob = TestData(name);
    requestedBytes = 0;
    BlobFault fault;
    EXPECT_EQ(nullptr, Dismantle(blob, fault)) << name;
    EXPECT_STREQ("LZMA entries within LZMA entries expand too far", fault.reason);
    EXPECT_LT(requestedBytes, 100UL << 20) << name;
  }
}

TEST_F(FaultTest, TheWriterIsAbsentOrStoresWhenMemoryRunsOut) {
  const ChunkList list = List({NewFile("zeros", std::string(1000, '\0'))});
  allowedRequests = 0;
  EXPECT_EQ(nullptr, PrepareSourceForSolidCompression(list.get()));
  EXPECT_EQ(nullptr, PrepareFileChunk(list.get(), kCompressionLZMA));
  EXPECT_EQ(nullptr, PrepareFileChunk(list.get(), kCompressionStored));
  // Enough for the entry, not for the encoder.
  for (const long allowed : {1, 2, 3}) {
    allowedRequests = allowed;
    const ChunkList formatted(PrepareFileChunk(list.get(), kCompressionLZMA));
    allowedRequests = -1;
    EXPECT_EQ(StoredFile("zeros", std::string(1000, '\0')), Contents(*formatted));
  }
}

TEST_F(FaultTest, TheTextureFilterIsAbsentWhenMemoryRunsOut) {
  const ChunkList chunk = List({NewFile("t", std::string(18, '\x20'))});
  allowedRequests = 0;
  EXPECT_EQ(nullptr, PremultiplyTexture(chunk.get()));
  allowedRequests = -1;
  EXPECT_NE(nullptr, ChunkList(PremultiplyTexture(chunk.get())));
}

TEST_F(FaultTest, AFileThatDoesNotFitInMemoryIsAsOneThatCannotBeOpened) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", "contents");
  int anything = 0;
  void* data = &anything;
  unsigned long length = 99;
  allowedRequests = 0;
  EXPECT_EQ(nullptr, PlatformCreateSourceFromFile((folder / "f").c_str(), "f"));
  EXPECT_EQ(0, PlatformCreateSourceFromFile((folder / "f").c_str(), data, length));
  allowedRequests = -1;
  EXPECT_EQ(&anything, data);
  EXPECT_EQ(99UL, length);
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

TEST_F(FaultTest, PathsOfEntriesAreScrubbedBeforeTheyAreFreed) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder / "path-that-is-scrubbed/inner");
  WriteFile(folder / "path-that-is-scrubbed/inner/f", "x");
  const std::string path = folder / "path-that-is-scrubbed";
  soughtText = "path-that-is-scrubbed/";
  arraysWithText = arraysScrubbed = 0;
  fileChunk* source = PlatformCreateSourceFromPath(path.c_str());
  soughtText = nullptr;
  EXPECT_EQ(0UL, arraysWithText);
  EXPECT_EQ(2UL, arraysScrubbed);
  DeleteFileChunks(source);
}

}  // namespace
