// How much memory decoding takes, as Linux counts it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <string>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

constexpr size_t kMegabyte = 1 << 20;

// The most memory that the process has had in use, in bytes (proc(5), VmHWM).
size_t PeakMemory() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) {
      return std::stoul(line.substr(6)) * 1024;
    }
  }
  return 0;
}

constexpr size_t kContent = 24 * kMegabyte;

// Decodes a blob with kContent bytes in files of `size` bytes. Ends the process, with status 0 when
// that took little more memory than the content.
[[noreturn]] void DecodeAndExit(std::string& blob, size_t size) {
  const size_t before = PeakMemory();
  const ChunkList list(dismantle(reinterpret_cast<unsigned char*>(blob.data()),
                                 static_cast<unsigned int>(blob.size())));
  const size_t more = PeakMemory() - before;
  std::cerr << more / kMegabyte << " MiB\n";
  const bool whole = list && list->children && Contents(*list->children) == std::string(size, 'a');
  _exit(before != 0 && whole && more < kContent * 5 / 4 ? 0 : 1);
}

class BlobMemoryTest : public testing::TestWithParam<size_t> {};

TEST_P(BlobMemoryTest, DecodingNeedsLittleMoreThanTheContent) {
  std::string content;
  while (content.size() < kContent) {
    content += StoredFile("file", std::string(GetParam(), 'a'));
  }
  std::string blob = LZMAEntry(nullptr, content, true);
  content = std::string();
  // In a new process, which has no freed memory that it could use again.
  EXPECT_EXIT(DecodeAndExit(blob, GetParam()), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(FilesOf, BlobMemoryTest, testing::Values(kMegabyte, kContent));

}  // namespace
