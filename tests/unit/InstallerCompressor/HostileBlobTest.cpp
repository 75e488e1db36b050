// Malformed blobs: each is refused whole, with the reason and the place, and nothing of it
// reaches the disk. tests/data/hostile/make_hostile_blobs.py makes most of them.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

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
    if (line.empty() || line[0] == '#') continue;
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

// Decodes `blob`, which must be refused, as the finalizer does, and writes what there is.
BlobFault ExpectRefused(const std::string& blob) {
  const TemporaryFolder folder;
  const ChunkList source = List({NewFile("blob", blob)});
  BlobFault fault;
  const ChunkList tree(DismantleInstallerBlob(source.get(), fault));
  EXPECT_EQ(nullptr, tree);
  EXPECT_NE(nullptr, fault.reason);
  EXPECT_TRUE(PlatformWriteFileFromChunk((folder / "bundle").c_str(), tree.get()));
  EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
  return fault;
}

TEST(HostileBlob, IsRefusedWithReasonAndPlace) {
  const std::vector<Expectation> expectations = Expectations();
  EXPECT_GT(expectations.size(), 60UL);
  for (const Expectation& expected : expectations) {
    SCOPED_TRACE(expected.file);
    const BlobFault fault = ExpectRefused(TestData("hostile/" + expected.file));
    if (!fault.reason) continue;
    EXPECT_EQ(expected.reason, fault.reason);
    EXPECT_EQ(expected.content == "decoded", fault.inDecodedContent);
    if (expected.offset != "*") EXPECT_EQ(expected.offset, std::to_string(fault.offset));
  }
}

TEST(HostileBlob, HasAnExpectationForEachFile) {
  std::set<std::string> files;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::string(KP_TEST_DATA_DIR) + "/hostile")) {
    if (entry.path().extension() == ".blob") files.insert(entry.path().filename());
  }
  EXPECT_EQ(1UL, files.erase("base-stored.blob"));
  EXPECT_EQ(1UL, files.erase("base-lzma.blob"));
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

// One flipped bit may leave a well-formed blob; whatever it is, memory stays in bounds and the
// disk outside of the folder stays as it was.
TEST(HostileBlob, WithAnyBitFlippedStaysInBounds) {
  for (const char* name : {"hostile/base-stored.blob", "hostile/base-lzma.blob"}) {
    const std::string blob = TestData(name);
    for (size_t bit = 0; bit < blob.size() * 8; ++bit) {
      std::string flipped = blob;
      flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
      BlobFault fault;
      const ChunkList list = Dismantle(flipped, fault);
      EXPECT_EQ(fault.reason != nullptr, list == nullptr) << bit;
    }
  }
}

std::string NestedDirectories(unsigned long count) {
  std::string bytes;
  for (unsigned long inner = count; inner != 0; --inner) bytes += Header(0x80, "", (inner - 1) * 7);
  return bytes;
}

TEST(HostileBlob, WithDirectoriesNestedTooDeepIsRefused) {
  for (const unsigned long count : {kMaximumNesting + 1UL, 100000UL}) {
    const BlobFault fault = ExpectRefused(NestedDirectories(count));
    EXPECT_STREQ(kNestedTooDeep, fault.reason);
    EXPECT_EQ(kMaximumNesting * 7UL + 1, fault.offset);
    EXPECT_FALSE(fault.inDecodedContent);
  }
}

// A solid root of encoded bytes as they stand.
std::string SolidBlobOf(const std::string& content) {
  const ChunkList root(NewFile(nullptr, content));
  root->isDirectory = true;
  const ChunkList formatted(PrepareFileChunk(root.get(), kCompressionLZMA));
  return Contents(*formatted);
}

TEST(HostileBlob, WithDirectoriesNestedTooDeepInItsRootIsRefused) {
  EXPECT_NE(nullptr, Dismantle(SolidBlobOf(NestedDirectories(kMaximumNesting - 1))));
  const BlobFault fault = ExpectRefused(SolidBlobOf(NestedDirectories(100000)));
  EXPECT_STREQ(kNestedTooDeep, fault.reason);
  EXPECT_EQ((kMaximumNesting - 1) * 7UL + 1, fault.offset);
  EXPECT_TRUE(fault.inDecodedContent);
}

TEST(HostileBlob, FreesWhatWasDecodedBeforeTheFault) {
  // For the leak checker: a fault behind a list, in the middle of one, and below both.
  std::string content;
  for (int count = 0; count < 100; ++count) content += StoredFile("f", "contents");
  const std::string fault = "\x03......";
  ExpectRefused(content + fault);
  ExpectRefused(StoredDirectory("a", content) + StoredDirectory("b", content + fault) + content);
  ExpectRefused(SolidBlobOf(content + StoredDirectory("b", content + fault)));
}

}  // namespace
