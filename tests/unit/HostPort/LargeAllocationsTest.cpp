// The calls that the port's array new makes to the C library; this executable replaces the
// functions.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <new>

// The C++ library declares it only for compilers with sized deallocation.
void operator delete[](void* block, size_t size) noexcept;

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);
extern "C" void __libc_free(void* block);

namespace {

/// The calls since the last reset, and the results that they are to have.
struct Calls {
  bool isOutOfMemory;
  int adviceResult;
  size_t mallocSize;
  size_t alignedSize;
  int adviceCount;
  void* advisedBlock;
  size_t advisedSize;
  int advice;
  void* freed;
};
Calls s_calls;

constexpr size_t kHugePageSize = size_t{2} << 20;
constexpr size_t kLargeSize = size_t{8} << 20;

}  // namespace

extern "C" void* malloc(size_t size) noexcept {
  s_calls.mallocSize = size;
  return s_calls.isOutOfMemory ? nullptr : __libc_malloc(size);
}

extern "C" void free(void* block) noexcept {
  s_calls.freed = block;
  __libc_free(block);
}

extern "C" int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
  s_calls.alignedSize = size;
  void* found = s_calls.isOutOfMemory ? nullptr : __libc_memalign(alignment, size);
  if (found == nullptr) {
    return ENOMEM;
  }
  *block = found;
  return 0;
}

extern "C" int madvise(void* block, size_t size, int advice) noexcept {
  ++s_calls.adviceCount;
  s_calls.advisedBlock = block;
  s_calls.advisedSize = size;
  s_calls.advice = advice;
  return s_calls.adviceResult;
}

namespace {

/// The block of `size` bytes of the array new that does not throw, and the calls that it made.
void* Allocate(size_t size, Calls& calls, int adviceResult = 0) {
  s_calls = {};
  s_calls.adviceResult = adviceResult;
  void* block = operator new[](size, std::nothrow);
  calls = s_calls;
  return block;
}

TEST(LargeAllocations, BlocksBelowFourHugePagesAreOrdinary) {
  for (const size_t size : {size_t{1}, kHugePageSize, kLargeSize - 1}) {
    Calls calls;
    void* block = Allocate(size, calls);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(calls.mallocSize, size);
    EXPECT_EQ(calls.alignedSize, 0U);
    EXPECT_EQ(calls.adviceCount, 0);
    operator delete[](block);
  }
}

TEST(LargeAllocations, BlocksFromFourHugePagesAreAlignedAndMarked) {
  for (const size_t size : {kLargeSize, kLargeSize + 1}) {
    Calls calls;
    void* block = Allocate(size, calls);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % kHugePageSize, 0U);
    EXPECT_EQ(calls.alignedSize, size);
    EXPECT_EQ(calls.adviceCount, 1);
    EXPECT_EQ(calls.advisedBlock, block);
    EXPECT_EQ(calls.advisedSize, size);
    EXPECT_EQ(calls.advice, MADV_HUGEPAGE);
    operator delete[](block);
  }
}

TEST(LargeAllocations, BlockIsGivenWhereTheKernelHasNoHugePages) {
  Calls calls;
  void* block = Allocate(kLargeSize, calls, -1);
  EXPECT_NE(block, nullptr);
  operator delete[](block);
}

TEST(LargeAllocations, NoBytesAreABlockToo) {
  Calls calls;
  void* block = Allocate(0, calls);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(calls.mallocSize, 1U) << "malloc may answer none for none";
  operator delete[](block);
}

/// Whether the array new that throws does so when nothing is left.
bool ThrowsWithoutMemory(size_t size) {
  bool hasThrown = false;
  s_calls = {};
  // The exception itself needs memory: libstdc++ has a reserve for it.
  s_calls.isOutOfMemory = true;
  try {
    operator delete[](operator new[](size));
  } catch (const std::bad_alloc&) {
    hasThrown = true;
  }
  s_calls.isOutOfMemory = false;
  return hasThrown;
}

TEST(LargeAllocations, FailureIsNullOrThrown) {
  for (const size_t size : {size_t{1}, kLargeSize - 1, kLargeSize, SIZE_MAX}) {
    s_calls = {};
    s_calls.isOutOfMemory = true;
    const void* block = operator new[](size, std::nothrow);
    s_calls.isOutOfMemory = false;
    EXPECT_EQ(block, nullptr) << size;
    EXPECT_EQ(s_calls.adviceCount, 0) << size;
    EXPECT_TRUE(ThrowsWithoutMemory(size)) << size;
  }
}

TEST(LargeAllocations, MoreThanThereIsFails) {
  EXPECT_EQ(operator new[](SIZE_MAX - kHugePageSize, std::nothrow), nullptr);
  EXPECT_THROW(static_cast<void>(operator new[](SIZE_MAX - kHugePageSize)), std::bad_alloc);
}

TEST(LargeAllocations, EveryArrayDeleteFrees) {
  for (const size_t size : {size_t{1}, kLargeSize}) {
    void* block = operator new[](size);
    s_calls = {};
    operator delete[](block);
    EXPECT_EQ(s_calls.freed, block);

    block = operator new[](size);
    s_calls = {};
    operator delete[](block, size);
    EXPECT_EQ(s_calls.freed, block);

    block = operator new[](size, std::nothrow);
    s_calls = {};
    operator delete[](block, std::nothrow);
    EXPECT_EQ(s_calls.freed, block);
  }
}

}  // namespace
