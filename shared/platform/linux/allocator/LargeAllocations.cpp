// Array new over huge pages.
//
// The LZMA encoder's tables and the payload's buffers are hundreds of megabytes that are walked at
// random or touched once. macOS's allocator takes large blocks from the kernel in large pieces;
// glibc's leaves Linux to hand them out 4 KiB at a time, one page fault each, and the encoder's
// random look-ups then miss the TLB. Blocks of 8 MiB and more are therefore aligned to the huge
// page and marked for it (madvise(2), MADV_HUGEPAGE); where the kernel has no transparent huge
// pages, nothing changes.
#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t kHugePageSize = std::size_t{2} << 20;

// Below this, rounding up to whole huge pages would waste more than it saves.
constexpr std::size_t kSmallestHugeBlock = 4 * kHugePageSize;

}  // namespace

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (size < kSmallestHugeBlock) {
    return std::malloc(size != 0 ? size : 1);
  }
  void* block = nullptr;
  if (posix_memalign(&block, kHugePageSize, size) != 0) {
    return nullptr;
  }
  madvise(block, size, MADV_HUGEPAGE);
  return block;
}

void* operator new[](std::size_t size) {
  void* const block = operator new[](size, std::nothrow);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

void operator delete[](void* block) noexcept { std::free(block); }

void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
