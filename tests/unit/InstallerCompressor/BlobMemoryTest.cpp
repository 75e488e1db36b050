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
    if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6)) * 1024;
  }
  return 0;
}

constexpr size_t kFiles = 64;

// Decodes a blob of that many files of a megabyte; ends with status 0 when that took little more
// memory than their content.
[[noreturn]] void DecodeAndExit(std::string& blob) {
  const size_t before = PeakMemory();
  const ChunkList list(dismantle(reinterpret_cast<unsigned char*>(blob.data()),
                                 static_cast<unsigned int>(blob.size())));
  const size_t more = PeakMemory() - before;
  std::cerr << more / kMegabyte << " MiB\n";
  const bool whole = list && list->children && Contents(*list->children).size() == kMegabyte;
  _exit(before != 0 && whole && more < kFiles * kMegabyte * 5 / 4 ? 0 : 1);
}

TEST(Dismantle, NeedsLittleMoreMemoryThanTheContent) {
  std::string content;
  for (size_t file = 0; file != kFiles; ++file) {
    content += StoredFile(std::to_string(file), std::string(kMegabyte, static_cast<char>(file)));
  }
  std::string blob = LZMAEntry(nullptr, content, true);
  content = std::string();
  // In a process of its own, which has no memory left over to use again.
  EXPECT_EXIT(DecodeAndExit(blob), testing::ExitedWithCode(0), "");
}

}  // namespace
