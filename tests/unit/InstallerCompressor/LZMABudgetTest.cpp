// The budget that LZMA entries share, to the byte: 64 MiB and 8192 times the blob's length.
#include <gtest/gtest.h>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

constexpr char kTooCostly[] = "LZMA entries cost too much to decode";

constexpr unsigned long kAllowance = 64UL << 20;
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
  for (; count != 0; --count) entries += entry;
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
  // The lengths are the least ones whose budget the tables do not exceed.
  struct {
    size_t length;
    unsigned long tables;
  } const cases[] = {{1034, 12}, {1803, 13}};
  for (const auto& [length, tables] : cases) {
    const unsigned long claim = kAllowance + kPerByte * length - tables * (kGreatestTable + 1) -
                                2 * kUsualTable;  // the root's, and that of the zeros
    ASSERT_LT(claim, kPerByte);
    const std::string entries = GreatestTables(tables);
    EXPECT_NE(nullptr, Dismantle(PaddedTo(length, Root(entries + Zeros(claim)))));
    ExpectTooCostly(PaddedTo(length, Root(entries + Zeros(claim + 1))),
                    entries.size() + kClaimOffset, true);
  }
}

TEST(LZMABudget, HasAnAllowanceForShortBlobs) {
  const std::string blob = Root(GreatestTables(10));
  EXPECT_LT(kPerByte * blob.size(), kGreatestTable);
  EXPECT_NE(nullptr, Dismantle(blob));
  ExpectTooCostly(Root(GreatestTables(11)), 10 * kGreatestTableEntryLength + kClaimOffset, true);
}

TEST(LZMABudget, GrowsWithTheLengthOfTheBlob) {
  const std::string root = Root(GreatestTables(12));
  EXPECT_GT(12 * kGreatestTable, kAllowance);
  ExpectTooCostly(root, 10 * kGreatestTableEntryLength + kClaimOffset, true);
  EXPECT_NE(nullptr, Dismantle(PaddedTo(1034, root)));
}

TEST(LZMABudget, IsChargedTablesOutsideOfStreamsButNotClaims) {
  constexpr unsigned long kClaim = 100000;
  const std::string entries = GreatestTables(12) + Zeros(kClaim);
  const unsigned long cost = 12 * kGreatestTable + kUsualTable;
  constexpr size_t kLeastLength = 1032;
  EXPECT_LT(kAllowance + kPerByte * (kLeastLength - 1), cost);
  EXPECT_GT(cost + kClaim, kAllowance + kPerByte * kLeastLength);
  EXPECT_NE(nullptr, Dismantle(PaddedTo(kLeastLength, entries)));
  ExpectTooCostly(PaddedTo(kLeastLength - 1, entries),
                  12 * kGreatestTableEntryLength + kClaimOffset, false);
}

}  // namespace
