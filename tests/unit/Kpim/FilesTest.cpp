// How kpim's files handle the results of read(2) and write(2). The linker routes both through the
// wrappers below.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"
#include "tests/unit/support/Files.h"
#include "tools/kpim/Disk.h"
#include "tools/kpim/InputFile.h"
#include "tools/kpim/OutputFile.h"

namespace {

constexpr size_t kGiB = 1UL << 30;

// The results of the next calls, which then touch neither memory nor disk: a count, or an errno
// value negated. After the last of them the real functions are called.
std::vector<ssize_t> results;
// The counts that the calls asked for.
std::vector<size_t> counts;

// The next of the results; false when there is none.
bool TakeResult(size_t count, ssize_t& result) {
  counts.push_back(count);
  if (results.empty()) {
    return false;
  }
  result = results.front();
  results.erase(results.begin());
  if (result < 0) {
    errno = static_cast<int>(-result);
    result = -1;
  }
  return true;
}

}  // namespace

// The names that the linker's --wrap gives to a function and to its replacement.
extern "C" {
ssize_t __real_read(int descriptor, void* buffer, size_t count);
ssize_t __real_write(int descriptor, const void* buffer, size_t count);

ssize_t __wrap_read(int descriptor, void* buffer, size_t count) {
  ssize_t result = 0;
  return TakeResult(count, result) ? result : __real_read(descriptor, buffer, count);
}

ssize_t __wrap_write(int descriptor, const void* buffer, size_t count) {
  ssize_t result = 0;
  return TakeResult(count, result) ? result : __real_write(descriptor, buffer, count);
}
}

namespace {

class FilesTest : public testing::Test {
 protected:
  FilesTest() { counts.clear(); }
  ~FilesTest() override { results.clear(); }

  void Expect(std::vector<ssize_t> calls) { results = std::move(calls); }

  bool Open(kpim::OutputFile& file) { return file.Choose(folder_ / "f") && file.Open(); }

  int Open(kpim::InputFile& file) {
    WriteFile(folder_ / "f", "contents");
    return file.Open(folder_ / "f");
  }

  const TemporaryFolder folder_;
  unsigned char bytes_[8] = {'n', 'o', 't', 'h', 'i', 'n', 'g', '.'};
};

TEST(NormalizedPath, BeginsWithoutDotsAndSlashes) {
  EXPECT_EQ("a", kpim::NormalizedPath("././/a"));
  EXPECT_EQ(".a", kpim::NormalizedPath("./.a"));
  EXPECT_EQ(".", kpim::NormalizedPath("./"));
  EXPECT_EQ(".", kpim::NormalizedPath(".//"));
}

TEST_F(FilesTest, NoWriteAsksForMoreThanTheSystemsTake) {
  kpim::OutputFile file;
  ASSERT_TRUE(Open(file));
  Expect({kGiB, 5, kGiB, kGiB - 5, 1});
  EXPECT_TRUE(file.Write(bytes_, 3 * kGiB + 1));
  EXPECT_EQ((std::vector<size_t>{kGiB, kGiB, kGiB, kGiB - 4, 1}), counts);
}

TEST_F(FilesTest, AWriteGoesOnAfterSignalsAndPieces) {
  kpim::OutputFile file;
  ASSERT_TRUE(Open(file));
  EXPECT_TRUE(file.Write(bytes_, 3));
  counts.clear();
  Expect({-EINTR, -EINTR});
  EXPECT_TRUE(file.Write(bytes_ + 3, 5));
  EXPECT_EQ((std::vector<size_t>{5, 5, 5}), counts);
  EXPECT_TRUE(file.Commit());
  EXPECT_EQ("nothing.", ReadFile(folder_ / "f"));
}

TEST_F(FilesTest, AWriteThatFailsOrTakesNothingIsReported) {
  for (const auto& [result, why] :
       {std::pair(-ENOSPC, "No space left on device"), std::pair(0, "Input/output error")}) {
    kpim::OutputFile file;
    ASSERT_TRUE(Open(file));
    Expect({3, result});
    testing::internal::CaptureStderr();
    EXPECT_FALSE(file.Write(bytes_, 8));
    EXPECT_EQ("kpim: " + (folder_ / "f") + ": " + why + "\n",
              testing::internal::GetCapturedStderr());
  }
  EXPECT_TRUE(fs::is_empty(folder_.Path()));
}

TEST_F(FilesTest, NoReadAsksForMoreThanTheSystemsGive) {
  kpim::InputFile file;
  ASSERT_EQ(0, Open(file));
  Expect({kGiB, 5, -EINTR, kGiB, kGiB - 5, 1});
  size_t filled = 0;
  EXPECT_EQ(0, file.Read(bytes_, 3 * kGiB + 1, filled));
  EXPECT_EQ(3 * kGiB + 1, filled);
  EXPECT_EQ((std::vector<size_t>{kGiB, kGiB, kGiB, kGiB, kGiB - 4, 1}), counts);
}

TEST_F(FilesTest, AReadTellsTheEndFromAnError) {
  kpim::InputFile file;
  ASSERT_EQ(0, Open(file));
  size_t filled = 0;
  EXPECT_EQ(0, file.Read(bytes_, 5, filled));
  EXPECT_EQ(5UL, filled);
  EXPECT_EQ(0, file.Read(bytes_, 8, filled));
  EXPECT_EQ(3UL, filled);
  EXPECT_EQ("nts", std::string(reinterpret_cast<char*>(bytes_), 3));
  Expect({2, -EIO});
  EXPECT_EQ(EIO, file.Read(bytes_, 8, filled));
}

}  // namespace
