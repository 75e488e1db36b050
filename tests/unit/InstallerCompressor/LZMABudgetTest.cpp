// The budget that LZMA entries share, to the byte: 4 GiB and 8192 times the blob's length.
#include <LzmaEnc.h>
#include <gtest/gtest.h>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

constexpr char kTooCostly[] = "LZMA entries cost too much to decode";

constexpr unsigned long kAllowance = 4UL << 30;
constexpr unsigned long kPerByte = 8192;

constexpr unsigned long TableSize(unsigned int literalBits) {
  return 2 * (1984 + (768UL << literalBits));
}
constexpr unsigned long kGreatestTable = TableSize(8 + 4);
constexpr unsigned long kUsualTable = TableSize(3 + 0);

constexpr unsigned long kGreatestTableEntryLength = 22;
constexpr unsigned long kClaimOffset = 7;  // in an entry without a name

// Entries that cost the greatest table each, and, where claims are charged, one byte.
std::string GreatestTables(unsigned long count) {
  const std::string entry = TestData("hostile/base-greatest-table.blob");
  EXPECT_EQ(kGreatestTableEntryLength, entry.size());
  std::string entries;
  for (; count != 0; --count) {
    entries += entry;
  }
  return entries;
}

std::string Zeros(unsigned long count) { return LZMAEntry("", std::string(count, '\0'), false); }

std::string Root(const std::string& content) { return LZMAEntry("", content, true); }

// The entries with a stored one behind that makes the blob as long as wanted.
std::string PaddedTo(size_t length, const std::string& entries) {
  const std::string header = Header(0, "", 0);
  EXPECT_GE(length, entries.size() + header.size());
  return entries + StoredFile("", std::string(length - entries.size() - header.size(), 'p'));
}

void ExpectTooCostly(const std::string& blob, unsigned long offset, bool inDecodedContent) {
  BlobFault fault;
  EXPECT_EQ(nullptr, Dismantle(blob, fault));
  ASSERT_NE(nullptr, fault.reason);
  EXPECT_STREQ(kTooCostly, fault.reason);
  EXPECT_EQ(offset, fault.offset);
  EXPECT_EQ(inDecodedContent, fault.inDecodedContent);
}

TEST(LZMABudget, IsSpentToTheLastByte) {
  constexpr size_t kLength = 2000;
  constexpr unsigned long kTables = kAllowance / kGreatestTable;
  const unsigned long claim = kAllowance + kPerByte * kLength - kTables * (kGreatestTable + 1) -
                              2 * kUsualTable;  // the root's, and that of the zeros
  const std::string entries = GreatestTables(kTables);
  const std::string root = Root(entries + Zeros(claim));
  EXPECT_NE(nullptr, Dismantle(PaddedTo(kLength, root)));
  // It grows with the length of the blob.
  ExpectTooCostly(PaddedTo(kLength - 1, root), entries.size() + kClaimOffset, true);
  ExpectTooCostly(PaddedTo(kLength, Root(entries + Zeros(claim + 1))),
                  entries.size() + kClaimOffset, true);
}

TEST(LZMABudget, IsChargedTablesOutsideOfStreamsButNotClaims) {
  constexpr unsigned long kClaim = 1UL << 20;
  // More than their own length pays for, so that what is behind them decides.
  constexpr unsigned long kTables = 705;
  const unsigned long cost = kTables * kGreatestTable + kUsualTable;
  const std::string entries = GreatestTables(kTables) + Zeros(kClaim);
  const size_t length = (cost - kAllowance + kPerByte - 1) / kPerByte;
  EXPECT_GT(cost + kClaim, kAllowance + kPerByte * length);
  EXPECT_NE(nullptr, Dismantle(PaddedTo(length, entries)));
  ExpectTooCostly(PaddedTo(length - 1, entries), kTables * kGreatestTableEntryLength + kClaimOffset,
                  false);
}

// ---- Well-formed blobs as other encoders make them

// An LZMA entry of the SDK's encoder, smaller than its content or not.
std::string OtherEncodersEntry(const std::string& name, const std::string& content,
                               int literalContextBits, int literalPositionBits) {
  CLzmaEncProps settings;
  LzmaEncProps_Init(&settings);
  settings.dictSize = 1 << 16;
  settings.lc = literalContextBits;
  settings.lp = literalPositionBits;
  Byte stream[1024];
  SizeT length = sizeof(stream);
  Byte properties[LZMA_PROPS_SIZE];
  SizeT propertyCount = sizeof(properties);
  EXPECT_EQ(SZ_OK, LzmaEncode(stream, &length, reinterpret_cast<const Byte*>(content.data()),
                              content.size(), &settings, properties, &propertyCount, 0, nullptr,
                              &GlobalAllocObject, &GlobalAllocObject));
  return Header(kCompressionLZMA, name, 9 + length) + BigEndian32(content.size()) +
         std::string(reinterpret_cast<const char*>(properties), propertyCount) +
         std::string(reinterpret_cast<const char*>(stream), length);
}

void ExpectFiles(const std::string& blob, unsigned long count, const std::string& contents) {
  BlobFault fault;
  const ChunkList list = Dismantle(blob, fault);
  ASSERT_NE(nullptr, list) << fault.reason;
  unsigned long found = 0;
  for (const fileChunk* file = list->children; file != nullptr; file = file->next) {
    found += Contents(*file) == contents ? 1 : 0;
  }
  EXPECT_EQ(count, found);
}

TEST(LZMABudget, SufficesForSmallFilesWithTheLargestTables) {
  std::string entries;
  for (int number = 0; number < 20; ++number) {
    entries += OtherEncodersEntry("file " + std::to_string(number), "contents", 8, 4);
  }
  ExpectFiles(Root(entries), 20, "contents");
  ExpectFiles(StoredDirectory("", entries), 20, "contents");
}

TEST(LZMABudget, SufficesForLargeFilesInACompressedRoot) {
  const std::string zeros(9UL << 20, '\0');
  const std::string entry = LZMAEntry("zeros", zeros, false);
  std::string entries;
  for (int number = 0; number < 8; ++number) {
    entries += entry;
  }
  ExpectFiles(Root(entries), 8, zeros);
}

TEST(LZMABudget, SufficesForManySmallFilesInACompressedRoot) {
  const std::string contents = "seventeen bytes !";
  const std::string entry = OtherEncodersEntry("f", contents, 3, 0);
  std::string entries;
  for (int number = 0; number < 20000; ++number) {
    entries += entry;
  }
  ExpectFiles(Root(entries), 20000, contents);
}

}  // namespace
