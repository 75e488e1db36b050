// lchflags on the file system that the tests run on. If it has no flags, or the test may not set
// them, the errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "shared/platform/posix/Removal.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

constexpr unsigned int kLocks = FS_IMMUTABLE_FL | FS_APPEND_FL;

// The file system's own flags; 0 where it has none.
unsigned int Flags(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  unsigned int flags = 0;
  if (descriptor < 0 || ioctl(descriptor, FS_IOC_GETFLAGS, &flags) != 0) {
    flags = 0;
  }
  close(descriptor);
  return flags;
}

class FileFlagsTest : public testing::Test {
 protected:
  FileFlagsTest() {
    fs::create_directory(folder_ / "folder");
    WriteWholeFile(folder_ / "file", "x");
    WriteWholeFile(folder_ / "folder/file", "x");
    // Without the right or the flags the calls are refused, with these and no other errors.
    errno = 0;
    hasLocks_ = lchflags(file_.c_str(), UF_IMMUTABLE) == 0;
    refusal_ = errno;
    if (hasLocks_) {
      EXPECT_EQ(unsigned{FS_IMMUTABLE_FL}, Flags(file_) & kLocks);
      EXPECT_EQ(0, lchflags(file_.c_str(), 0));
    } else {
      EXPECT_TRUE(refusal_ == EPERM || refusal_ == EOPNOTSUPP) << refusal_;
    }
  }

  TemporaryFolder folder_;
  const std::string file_ = folder_ / "file";
  bool hasLocks_ = false;
  int refusal_ = 0;
};

TEST_F(FileFlagsTest, SetsAndClearsLocks) {
  const struct {
    uint32_t macOS;
    unsigned int linux;
  } kCases[] = {{UF_IMMUTABLE, FS_IMMUTABLE_FL},
                {SF_IMMUTABLE, FS_IMMUTABLE_FL},
                {UF_APPEND, FS_APPEND_FL},
                {SF_APPEND, FS_APPEND_FL},
                {UF_NODUMP | UF_APPEND, FS_APPEND_FL}};
  for (const auto& flags : kCases) {
    const unsigned int before = Flags(file_);
    EXPECT_EQ(hasLocks_ ? 0 : -1, lchflags(file_.c_str(), flags.macOS)) << flags.macOS;
    EXPECT_EQ(hasLocks_ ? flags.linux : 0u, Flags(file_) & kLocks) << flags.macOS;
    if (hasLocks_) {
      EXPECT_EQ((flags.macOS & UF_NODUMP) != 0, (Flags(file_) & FS_NODUMP_FL) != 0);
      EXPECT_EQ(0, lchflags(file_.c_str(), 0));
      EXPECT_EQ(before, Flags(file_)) << "the file system's other flags stay";
    }
  }
}

TEST_F(FileFlagsTest, ALockedTreeIsRemoved) {
  const std::string inner = folder_ / "folder/file";
  const std::string folder = folder_ / "folder";
  if (hasLocks_) {
    ASSERT_EQ(0, lchflags(inner.c_str(), UF_IMMUTABLE));
    ASSERT_EQ(0, lchflags(folder.c_str(), UF_APPEND));
    ASSERT_EQ(-1, unlink(inner.c_str())) << "the lock locks";
  }
  EXPECT_EQ(0u, RemoveTree(folder_.Path().c_str(), "folder").refused);
  EXPECT_FALSE(fs::exists(folder));
}

TEST_F(FileFlagsTest, OnlyFilesAndFoldersHaveFlags) {
  const std::string link = folder_ / "link";
  fs::create_symlink("file", link);
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (const std::string& path : {link, fifo, std::string("/dev/null")}) {
    EXPECT_EQ(-1, lchflags(path.c_str(), 0)) << path;
    EXPECT_EQ(EOPNOTSUPP, errno) << path;
  }
}

TEST_F(FileFlagsTest, OtherFlagsAreRefused) {
  EXPECT_EQ(-1, lchflags(file_.c_str(), 0x00008000));
  EXPECT_EQ(EOPNOTSUPP, errno);
}

TEST_F(FileFlagsTest, AMissingItemHasNone) {
  EXPECT_EQ(-1, lchflags((folder_ / "missing").c_str(), 0));
  EXPECT_EQ(ENOENT, errno);
}

}  // namespace
