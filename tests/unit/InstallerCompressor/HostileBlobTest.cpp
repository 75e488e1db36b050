// Malformed blobs: each is refused whole, with the reason and the place, and leaves no tree
// that could reach the disk. tests/data/hostile/make_hostile_blobs.py makes most of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/InstallerCompressor/BlobTestSupport.h"
#include "tests/unit/support/Files.h"

namespace {

constexpr char kNestedTooDeep[] = "directories are nested too deep";

struct Expectation {
  std::string file, offset, content, reason;
};

std::vector<Expectation> Expectations() {
  std::istringstream table(TestData("hostile/expected.txt"));
  std::vector<Expectation> expectations;
  std::string line;
  while (std::getline(table, line)) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    std::istringstream fields(line);
    Expectation expectation;
    std::getline(fields, expectation.file, '\t');
    std::getline(fields, expectation.offset, '\t');
    std::getline(fields, expectation.content, '\t');
    std::getline(fields, expectation.reason);
    expectations.push_back(expectation);
  }
  return expectations;
}

// Decodes `blob`, which must be refused, as the finalizer does.
BlobFault ExpectRefused(const std::string& blob) {
  const ChunkList source = List({NewFile("blob", blob)});
  BlobFault fault;
  const ChunkList tree(DismantleInstallerBlob(source.get(), fault));
  EXPECT_EQ(nullptr, tree);
  EXPECT_NE(nullptr, fault.reason);
  return fault;
}

bool IsBomb(const Expectation& expected) { return expected.file.compare(0, 4, "bomb") == 0; }

void ExpectRefusedWithReasonAndPlace(const Expectation& expected) {
  SCOPED_TRACE(expected.file);
  const BlobFault fault = ExpectRefused(TestData("hostile/" + expected.file));
  if (!fault.reason) {
    return;
  }
  EXPECT_EQ(expected.reason, fault.reason);
  EXPECT_EQ(expected.content == "decoded", fault.inDecodedContent);
  if (expected.offset != "*") {
    EXPECT_EQ(expected.offset, std::to_string(fault.offset));
  }
}

TEST(HostileBlob, IsRefusedWithReasonAndPlace) {
  const std::vector<Expectation> expectations = Expectations();
  EXPECT_GT(expectations.size(), 60UL);
  for (const Expectation& expected : expectations) {
    if (!IsBomb(expected)) {
      ExpectRefusedWithReasonAndPlace(expected);
    }
  }
}

TEST(HostileBlob, ClaimsOfMoreThan8192TimesTheStreamAreRefusedAsClaims) {
  constexpr size_t kLength = 10;
  struct {
    unsigned long claim;
    const char* reason;
  } const cases[] = {{8192 * kLength, "an entry's LZMA stream is damaged"},
                     {8192 * kLength + 1, "an entry claims more than its LZMA stream can hold"}};
  for (const auto& [claim, reason] : cases) {
    const std::string subHeader = BigEndian32(claim) + std::string("\x5D\0\0\0\x04", 5);
    const BlobFault fault = ExpectRefused(Header(1, "f", subHeader.size() + kLength) + subHeader +
                                          std::string(kLength, '\xFF'));
    EXPECT_STREQ(reason, fault.reason);
  }
}

TEST(HostileBlob, BombIsRefusedWithReasonAndPlace) {
  int bombs = 0;
  for (const Expectation& expected : Expectations()) {
    if (IsBomb(expected)) {
      ExpectRefusedWithReasonAndPlace(expected);
      ++bombs;
    }
  }
  EXPECT_EQ(3, bombs);
}

TEST(HostileBlob, HasAnExpectationForEachFile) {
  std::set<std::string> files;
  for (const std::string& name : fs::list(std::string(KP_TEST_DATA_DIR) + "/hostile")) {
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".blob") == 0) {
      files.insert(name);
    }
  }
  for (const char* wellFormed :
       {"base-stored.blob", "base-lzma.blob", "base-greatest-table.blob", "base-run.blob"}) {
    EXPECT_EQ(1UL, files.erase(wellFormed)) << wellFormed;
  }
  for (const Expectation& expected : Expectations()) {
    EXPECT_EQ(1UL, files.erase(expected.file)) << expected.file;
  }
  EXPECT_TRUE(files.empty());
}

TEST(HostileBlob, CutAtAnyByteIsRefused) {
  for (const char* name : {"hostile/base-stored.blob", "hostile/base-lzma.blob"}) {
    const std::string blob = TestData(name);
    EXPECT_EQ(
        "'' directory 0\n"
        "  'Contents' directory 0\n"
        "    'Info.plist' file 9 '<plist/>\n'\n"
        "    'MacOS' directory 0\n"
        "  'empty' file 0 ''\n"
        "  'README' file 9 'Read me.\n'\n",
        Describe(Dismantle(blob).get()));
    for (size_t length = 1; length < blob.size(); ++length) {
      SCOPED_TRACE(std::string(name) + " cut to " + std::to_string(length));
      const BlobFault fault = ExpectRefused(blob.substr(0, length));
      EXPECT_EQ(length < 7 ? 0UL : 3UL, fault.offset);
      EXPECT_FALSE(fault.inDecodedContent);
    }
  }
}

TEST(HostileBlob, WithTheSizesOfACutStreamIsRefused) {
  const std::string blob = TestData("hostile/base-lzma.blob");
  for (size_t length = 17; length < blob.size(); ++length) {
    SCOPED_TRACE(length);
    std::string cut = blob.substr(0, length);
    cut.replace(3, 4, BigEndian32(length - 7));
    const BlobFault fault = ExpectRefused(cut);
    EXPECT_EQ(16UL, fault.offset);
  }
}

// With one flipped bit a blob may still be well formed. In any case memory accesses stay in bounds,
// and files are written in the bundle's folder only: the folders around it, as many as the tree is
// deep, contain nothing else.
TEST(HostileBlob, WithAnyBitFlippedStaysInBounds) {
  const TemporaryFolder folder;
  const std::string bundle = folder / "1/2/3/bundle";
  unsigned long written = 0;
  for (const char* name : {"hostile/base-stored.blob", "hostile/base-lzma.blob"}) {
    const std::string blob = TestData(name);
    for (size_t bit = 0; bit < blob.size() * 8; ++bit) {
      std::string flipped = blob;
      flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
      BlobFault fault;
      const ChunkList list = Dismantle(flipped, fault);
      EXPECT_EQ(fault.reason != nullptr, list == nullptr) << bit;
      if (!list) {
        continue;
      }
      fs::create_directories(bundle);
      PlatformWriteFileFromChunk(bundle.c_str(), list.get());
      if (!fs::is_empty(bundle)) {
        ++written;
      }
      fs::remove_all(bundle);
      EXPECT_EQ(std::vector<std::string>({"1", "1/2", "1/2/3"}),
                fs::list_recursively(folder.Path()))
          << bit;
    }
  }
  EXPECT_GT(written, 400UL);
}

// `count` nameless stored directories, one in the other, the innermost of `content`.
std::string NestedDirectories(unsigned long count, const std::string& content = "") {
  std::string bytes;
  for (unsigned long inner = count; inner != 0; --inner) {
    bytes += Header(0x80, "", (inner - 1) * 7 + content.size());
  }
  return bytes + content;
}

TEST(HostileBlob, WithDirectoriesNestedTooDeepIsRefused) {
  for (const unsigned long count : {kMaximumNesting + 1UL, 100000UL}) {
    const BlobFault fault = ExpectRefused(NestedDirectories(count));
    EXPECT_STREQ(kNestedTooDeep, fault.reason);
    EXPECT_EQ(kMaximumNesting * 7UL + 1, fault.offset);
    EXPECT_FALSE(fault.inDecodedContent);
  }
}

TEST(HostileBlob, WithDirectoriesNestedTooDeepInItsRootIsRefused) {
  EXPECT_NE(nullptr, Dismantle(LZMAEntry("", NestedDirectories(kMaximumNesting - 1), true)));
  const BlobFault fault = ExpectRefused(LZMAEntry("", NestedDirectories(100000), true));
  EXPECT_STREQ(kNestedTooDeep, fault.reason);
  EXPECT_EQ((kMaximumNesting - 1) * 7UL + 1, fault.offset);
  EXPECT_TRUE(fault.inDecodedContent);
}

TEST(HostileBlob, WithDirectoriesNestedTooDeepAroundAndInAStreamIsRefused) {
  const auto nested = [](unsigned long around, unsigned long within) {
    return NestedDirectories(around, LZMAEntry("", NestedDirectories(within), true));
  };
  EXPECT_NE(nullptr, Dismantle(nested(300, kMaximumNesting - 301)));
  for (const unsigned long within : {kMaximumNesting - 300UL, 300UL}) {
    const BlobFault fault = ExpectRefused(nested(300, within));
    EXPECT_STREQ(kNestedTooDeep, fault.reason);
    EXPECT_EQ((kMaximumNesting - 301) * 7UL + 1, fault.offset);
    EXPECT_TRUE(fault.inDecodedContent);
  }
}

TEST(HostileBlob, WithAnLZMADirectoryNestedTooDeepIsRefused) {
  const std::string directory = LZMAEntry("", StoredFile("zeros", std::string(500, '\0')), true);
  EXPECT_NE(nullptr, Dismantle(NestedDirectories(kMaximumNesting - 1, directory)));
  const BlobFault fault = ExpectRefused(NestedDirectories(kMaximumNesting, directory));
  EXPECT_STREQ(kNestedTooDeep, fault.reason);
  EXPECT_EQ(kMaximumNesting * 7UL + 1, fault.offset);
  EXPECT_FALSE(fault.inDecodedContent);
}

TEST(HostileBlob, FreesWhatWasDecodedBeforeTheFault) {
  // For the leak checker: a fault after a list, in the middle of one, and below both.
  std::string content;
  for (int count = 0; count < 100; ++count) {
    content += StoredFile("f", "contents");
  }
  const std::string fault = "\x03......";
  ExpectRefused(content + fault);
  ExpectRefused(StoredDirectory("a", content) + StoredDirectory("b", content + fault) + content);
  ExpectRefused(LZMAEntry("", content + StoredDirectory("b", content + fault), true));
}

}  // namespace
