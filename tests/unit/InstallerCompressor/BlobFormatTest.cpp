#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

constexpr unsigned long k4GiB = 1UL << 32;

// What WriteFormattedGenericHeader writes, in an array of exactly the promised length.
std::string WrittenHeader(unsigned char type, bool isDirectory, const char* name,
                          unsigned long size) {
  std::unique_ptr<char[]> copy(NewName(name));
  const unsigned long length = SizeofFormattedGenericHeader(copy.get());
  const std::unique_ptr<unsigned char[]> buffer(new unsigned char[length]);
  EXPECT_EQ(length, WriteFormattedGenericHeader(buffer.get(), type, isDirectory, copy.get(), size));
  return std::string(reinterpret_cast<char*>(buffer.get()), length);
}

struct DecodedHeader {
  int type = -1;
  char* name = nullptr;
  bool isDirectory = false;
  unsigned long size = 99;
  unsigned long length = 0;

  explicit DecodedHeader(const std::string& bytes) {
    const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
    length = decodeHeaderV2(exact.data(), type, name, isDirectory, size);
  }
  ~DecodedHeader() { delete[] name; }
};

TEST(GenericHeader, OfAStoredFile) {
  EXPECT_EQ(std::string("\x02\x00\x0AInfo.plist\x00\x00\x04\xD2", 17),
            WrittenHeader(0, false, "Info.plist", 1234));
}

TEST(GenericHeader, OfAStoredDirectory) {
  EXPECT_EQ(std::string("\x02\x80\x08"
                        "Contents\x00\x00\x04\xE3",
                        15),
            WrittenHeader(0, true, "Contents", 1251));
}

TEST(GenericHeader, OfANamelessSolidRoot) {
  EXPECT_EQ(std::string("\x02\x81\x00\x01\x02\x03\x04", 7),
            WrittenHeader(1, true, nullptr, 0x01020304));
  EXPECT_EQ(WrittenHeader(1, true, nullptr, 5), WrittenHeader(1, true, "", 5));
}

TEST(GenericHeader, KeepsSevenBitsOfTheType) {
  EXPECT_EQ('\x7F', WrittenHeader(0xFF, false, "a", 0)[1]);
  EXPECT_EQ('\xFF', WrittenHeader(0x7F, true, "a", 0)[1]);
  EXPECT_EQ('\x80', WrittenHeader(0x80, true, "a", 0)[1]);
}

TEST(GenericHeader, KeepsTheNameLengthModulo256) {
  const std::string name = std::string(44, 'n') + std::string(256, 'm');
  struct {
    size_t length, stored;
  } const cases[] = {{0, 0}, {1, 1}, {255, 255}, {256, 0}, {257, 1}, {300, 44}};
  for (const auto& [length, stored] : cases) {
    const std::string given = name.substr(0, length);
    EXPECT_EQ(Header(0, given.substr(0, stored), 7), WrittenHeader(0, false, given.c_str(), 7))
        << length;
  }
}

TEST(GenericHeader, KeepsTheSizeModulo4GiB) {
  EXPECT_EQ(Header(0, "a", 5), WrittenHeader(0, false, "a", k4GiB + 5));
  EXPECT_EQ(Header(0, "a", 0xFFFFFFFF), WrittenHeader(0, false, "a", k4GiB - 1));
  EXPECT_EQ(Header(0, "a", 0), WrittenHeader(0, false, "a", k4GiB));
}

TEST(SizeofFormattedGenericHeader, IsSevenAndTheName) {
  EXPECT_EQ(7UL, SizeofFormattedGenericHeader(nullptr));
  struct {
    size_t length;
    unsigned long expected;
  } const cases[] = {{0, 7}, {10, 17}, {255, 262}, {256, 7}, {300, 51}};
  for (const auto& [length, expected] : cases) {
    std::string name(length, 'n');
    EXPECT_EQ(expected, SizeofFormattedGenericHeader(name.data())) << length;
  }
}

TEST(DecodeHeaderV2, ReadsEveryField) {
  const DecodedHeader header(Header(0x81, "name", 0xFEDCBA98));
  EXPECT_EQ(11UL, header.length);
  EXPECT_EQ(1, header.type);
  EXPECT_TRUE(header.isDirectory);
  EXPECT_STREQ("name", header.name);
  EXPECT_EQ(0xFEDCBA98UL, header.size);
}

TEST(DecodeHeaderV2, GivesTheEmptyStringForNoName) {
  const DecodedHeader header(Header(0, "", 3));
  EXPECT_EQ(7UL, header.length);
  EXPECT_EQ(0, header.type);
  EXPECT_FALSE(header.isDirectory);
  ASSERT_NE(nullptr, header.name);
  EXPECT_STREQ("", header.name);
  EXPECT_EQ(3UL, header.size);
}

TEST(DecodeHeaderV2, ReadsNamesOf255Bytes) {
  const std::string name(255, 'n');
  const DecodedHeader header(Header(0x7F, name, 0));
  EXPECT_EQ(262UL, header.length);
  EXPECT_EQ(127, header.type);
  EXPECT_EQ(name, header.name);
}

TEST(DecodeHeaderV2, TouchesNothingWhenTheVersionIsNot2) {
  for (const char version : {'\0', '\1', '\3', '\xFF'}) {
    std::string bytes = Header(0x81, "name", 5);
    bytes[0] = version;
    const DecodedHeader header(bytes);
    EXPECT_EQ(0UL, header.length);
    EXPECT_EQ(-1, header.type);
    EXPECT_EQ(nullptr, header.name);
    EXPECT_FALSE(header.isDirectory);
    EXPECT_EQ(99UL, header.size);
  }
}

TEST(LZMASubHeader, IsTheLengthAndTheProperties) {
  char properties[] = {0x5D, 0, 0, 0, 4};
  unsigned char buffer[9];
  EXPECT_EQ(9UL, SizeofFormattedLZMASubHeader());
  EXPECT_EQ(9UL, WriteFormattedLZMASubHeader(buffer, 0x01020304, properties, 5));
  EXPECT_EQ(0, memcmp(buffer, "\x01\x02\x03\x04\x5D\x00\x00\x00\x04", 9));

  char const* decodedProperties = nullptr;
  unsigned int count = 0;
  unsigned long length = 0;
  EXPECT_EQ(9UL, decodeLZMAHeader(buffer, decodedProperties, count, length));
  EXPECT_EQ(reinterpret_cast<char*>(buffer) + 4, decodedProperties);
  EXPECT_EQ(5U, count);
  EXPECT_EQ(0x01020304UL, length);
}

TEST(LZMASubHeader, KeepsAllBitsOfTheLength) {
  char properties[] = {0x5D, 0, 0, 0, 4};
  unsigned char buffer[9];
  EXPECT_EQ(9UL, WriteFormattedLZMASubHeader(buffer, 0xFEDCBA98, properties, 5));
  char const* decodedProperties = nullptr;
  unsigned int count = 0;
  unsigned long length = 0;
  EXPECT_EQ(9UL, decodeLZMAHeader(buffer, decodedProperties, count, length));
  EXPECT_EQ(0xFEDCBA98UL, length);
}

TEST(LZMASubHeader, IsNotWrittenWithoutFiveProperties) {
  char properties[6] = {};
  for (const unsigned int count : {0U, 4U, 6U}) {
    unsigned char buffer[9];
    memset(buffer, 0xAA, sizeof(buffer));
    EXPECT_EQ(0UL, WriteFormattedLZMASubHeader(buffer, 1, properties, count));
    for (const unsigned char byte : buffer) {
      EXPECT_EQ(0xAA, byte);
    }
  }
}

TEST(FormattedFileSize, IsBigEndian) {
  for (const unsigned int value : {0U, 1U, 1234U, 0x01020304U, 0x80000000U, 0xFFFFFFFFU}) {
    unsigned char buffer[4];
    EXPECT_EQ(4UL, WriteFormattedFileSize(buffer, value));
    EXPECT_EQ(BigEndian32(value), std::string(reinterpret_cast<char*>(buffer), 4));
    EXPECT_EQ(value, decodeFormattedFileSize(buffer));
  }
}

TEST(TotalSizeof, OfAnAbsentListIs0) {
  EXPECT_EQ(0U, totalSizeof(nullptr, 0));
  EXPECT_EQ(0U, totalSizeof(nullptr, 1));
}

TEST(TotalSizeof, CountsHeadersNamesAndContents) {
  const ChunkList list =
      List({NewDirectory("Contents", {NewFile("Info.plist", std::string(1234, 'x'))}),
            NewFile(nullptr, "abc"), NewDirectory("empty")});
  EXPECT_EQ(1266U + 10 + 12, totalSizeof(list.get(), 0));
  EXPECT_EQ(1266U + 10 + 12 + 4 * 9, totalSizeof(list.get(), 1));
  EXPECT_EQ(totalSizeof(list.get(), 0), totalSizeof(list.get(), 2));
  EXPECT_EQ(totalSizeof(list.get(), 0), totalSizeof(list.get(), -1));
}

TEST(TotalSizeof, CountsNamesModulo256) {
  const ChunkList list = List({NewFile(std::string(300, 'n').c_str(), "")});
  EXPECT_EQ(7U + 44, totalSizeof(list.get(), 0));
}

TEST(TotalSizeof, IgnoresTheSizeOfADirectory) {
  const ChunkList list = List({NewDirectory("a")});
  list->size = 1000;
  EXPECT_EQ(8U, totalSizeof(list.get(), 0));
}

TEST(TotalSizeof, WrapsAt4GiB) {
  // No data is touched, so the sizes need none behind them.
  const ChunkList list = List({NewFile("a", ""), NewDirectory("d", {NewFile("b", "")})});
  list->size = 0xFFFFFFFF;
  list->next->children->size = 0xFFFFFFFF;
  EXPECT_EQ(static_cast<unsigned int>(3 * 8 + 2 * 0xFFFFFFFFUL), totalSizeof(list.get(), 0));
  EXPECT_EQ(static_cast<unsigned int>(3 * 17 + 2 * 0xFFFFFFFFUL), totalSizeof(list.get(), 1));
  list->size = k4GiB + 5;
  list->next->children->size = 3 * k4GiB;
  EXPECT_EQ(3U * 8 + 5, totalSizeof(list.get(), 0));
}

TEST(Flatten, OfAnAbsentListWritesNothing) {
  unsigned char byte = 0xAA;
  EXPECT_EQ(0U, flatten(&byte, nullptr));
  EXPECT_EQ(0xAA, byte);
  EXPECT_EQ(0U, flatten(nullptr, nullptr));
}

TEST(Flatten, WritesDepthFirstInListOrder) {
  const ChunkList list =
      List({NewDirectory("a", {NewFile("b", "B"), NewDirectory("c", {NewFile("d", "DD")}),
                               NewFile("e", "")}),
            NewFile("f", "FFF"), NewDirectory("g")});
  const std::string c = StoredDirectory("c", StoredFile("d", "DD"));
  EXPECT_EQ(StoredDirectory("a", StoredFile("b", "B") + c + StoredFile("e", "")) +
                StoredFile("f", "FFF") + StoredDirectory("g", ""),
            Flatten(list.get()));
}

TEST(Flatten, CopiesNoMoreOfAFileThanItsSizeFieldSays) {
  const ChunkList list = List({NewFile("big", "abc"), NewFile("next", "n")});
  list->size = k4GiB + 3;
  EXPECT_EQ(StoredFile("big", "abc") + StoredFile("next", "n"), Flatten(list.get()));
}

TEST(Flatten, AndDismantleAreInverse) {
  const ChunkList list = SampleTree();
  EXPECT_EQ(Describe(list.get()), Describe(Dismantle(Flatten(list.get())).get()));
}

TEST(Flatten, KnowsTheSizeOfEveryDirectoryOfADeepTree) {
  constexpr unsigned long kDepth = 2000;
  fileChunk* tree = NewFile("leaf", "x");
  std::string expected;
  for (unsigned long depth = 0; depth < kDepth; ++depth) {
    fileChunk* const directory = NewDirectory("d");
    directory->children = tree;
    tree = directory;
    expected += Header(0x80, "d", (kDepth - depth - 1) * 8 + 12);
  }
  const ChunkList list(tree);
  EXPECT_EQ(expected + StoredFile("leaf", "x"), Flatten(list.get()));
}

}  // namespace
