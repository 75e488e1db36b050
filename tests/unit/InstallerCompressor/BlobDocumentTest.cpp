// The example of docs/blob-format.md is what the code reads.
// tests/system/kpim/test_blob_document.py runs its commands.
#include <gtest/gtest.h>

#include <cctype>
#include <sstream>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

constexpr size_t kOffsetWidth = 10;  // "00000010: "
constexpr size_t kBytesWidth = 40;   // "0001 0203 ... 0e0f "

bool IsDumpLine(const std::string& line) {
  if (line.size() < kOffsetWidth || line[8] != ':') {
    return false;
  }
  for (size_t index = 0; index < 8; ++index) {
    if (!isxdigit(static_cast<unsigned char>(line[index]))) {
      return false;
    }
  }
  return true;
}

// The hex dumps of the document as bytes, in their order. Each begins at offset 0.
std::vector<std::string> Dumps() {
  std::istringstream document(ReadFile(KP_BLOB_FORMAT_DOCUMENT));
  std::vector<std::string> dumps;
  std::string line;
  while (std::getline(document, line)) {
    if (!IsDumpLine(line)) {
      continue;
    }
    const size_t offset = std::stoul(line.substr(0, 8), nullptr, 16);
    if (offset == 0) {
      dumps.emplace_back();
    }
    EXPECT_EQ(dumps.back().size(), offset) << line;
    std::string digits;
    for (const char character : line.substr(kOffsetWidth, kBytesWidth)) {
      if (character != ' ') {
        digits += character;
      }
    }
    for (size_t index = 0; index + 1 < digits.size(); index += 2) {
      dumps.back() += static_cast<char>(std::stoi(digits.substr(index, 2), nullptr, 16));
    }
  }
  return dumps;
}

TEST(BlobFormatDocument, ShowsABlobThatDecodesToTheContentItShows) {
  const std::vector<std::string> dumps = Dumps();
  ASSERT_EQ(2UL, dumps.size());
  const ChunkList blob = Dismantle(dumps[0]);
  ASSERT_NE(nullptr, blob);
  EXPECT_STREQ("", blob->name);
  EXPECT_EQ(nullptr, blob->next);
  EXPECT_EQ(dumps[1], Flatten(blob->children));
}

}  // namespace
