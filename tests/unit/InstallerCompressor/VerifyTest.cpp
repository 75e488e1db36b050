#include <gtest/gtest.h>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

std::string Listing(fileChunk* list, int depth = 0) {
  testing::internal::CaptureStdout();
  Verify(list, depth);
  return testing::internal::GetCapturedStdout();
}

std::string SizeText(unsigned long size) {
  // Only the size is printed, so the node needs no data.
  const ChunkList list = List({NewFile("f", "")});
  list->size = size;
  return Listing(list.get());
}

TEST(Verify, PrintsNothingForAnAbsentList) { EXPECT_EQ("", Listing(nullptr)); }

TEST(Verify, IndentsByDepth) {
  const ChunkList list =
      List({NewDirectory("a", {NewFile("b", "B"), NewDirectory("c", {NewFile("d", "DD")}),
                               NewDirectory("empty")}),
            NewFile("e", "")});
  const std::string expected =
      "- a/\n"
      "  - b (1 bytes)\n"
      "  - c/\n"
      "    - d (2 bytes)\n"
      "  - empty/\n"
      "- e (0 bytes)\n";
  EXPECT_EQ(expected, Listing(list.get()));
  const ChunkList file = List({NewFile("e", "")});
  EXPECT_EQ("    - e (0 bytes)\n", Listing(file.get(), 2));
}

TEST(Verify, PrintsAnAbsentNameAsAnEmptyOne) {
  const ChunkList list = List({NewDirectory(nullptr, {NewFile(nullptr, "abc")})});
  EXPECT_EQ("- /\n  -  (3 bytes)\n", Listing(list.get()));
}

TEST(Verify, TruncatesSizesToTheUnit) {
  struct {
    unsigned long size;
    const char* text;
  } const cases[] = {
      {0, "(0 bytes)"},       {1023, "(1023 bytes)"},    {1024, "(1 KB)"},
      {2047, "(1 KB)"},       {1048575, "(1023 KB)"},    {1048576, "(1 MB)"},
      {2097151, "(1 MB)"},    {1073741823, "(1023 MB)"}, {1073741824, "(1 GB)"},
      {2147483647, "(1 GB)"}, {1UL << 32, "(4 GB)"},     {1UL << 40, "(1024 GB)"},
  };
  for (const auto& [size, text] : cases) {
    EXPECT_EQ(std::string("- f ") + text + "\n", SizeText(size));
  }
}

}  // namespace
