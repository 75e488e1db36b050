#include "shared/platform/posix/RegularFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

class RegularFileTest : public testing::Test {
 protected:
  ~RegularFileTest() override { Close(); }

  /// Opens the file; 0, or the errno value of the failure.
  int Open(int flags, FileNames names = FileNames::kOne) {
    Close();
    descriptor_ = OpenRegularFile(file_.c_str(), flags, 0640, names);
    return descriptor_ >= 0 ? 0 : errno;
  }
  void Close() {
    if (descriptor_ >= 0) {
      close(descriptor_);
    }
  }

  TemporaryFolder folder_;
  std::string file_ = folder_ / "file";
  std::string other_ = folder_ / "other";
  int descriptor_ = -1;
};

TEST_F(RegularFileTest, CreatesAFileWithTheModeLessTheUmask) {
  const mode_t saved = umask(0040);
  EXPECT_EQ(0, Open(O_WRONLY | O_CREAT));
  umask(saved);
  struct stat status = {};
  ASSERT_EQ(0, stat(file_.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
}

TEST_F(RegularFileTest, MissingFile) { EXPECT_EQ(ENOENT, Open(O_RDONLY)); }

TEST_F(RegularFileTest, KeepsOrEmptiesWhatTheFileHolds) {
  WriteWholeFile(file_, "content");
  EXPECT_EQ(0, Open(O_WRONLY));
  EXPECT_EQ("content", ReadWholeFile(file_));
  EXPECT_EQ(0, Open(O_WRONLY | O_TRUNC));
  EXPECT_EQ("", ReadWholeFile(file_));
}

TEST_F(RegularFileTest, IsNotPassedOnToPrograms) {
  ASSERT_EQ(0, Open(O_WRONLY | O_CREAT));
  EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor_, F_GETFD));
}

TEST_F(RegularFileTest, ReportsTheStateOfTheFile) {
  WriteWholeFile(file_, "1234");
  struct stat status = {};
  descriptor_ = OpenRegularFile(file_.c_str(), O_RDONLY, 0, FileNames::kAny, &status);
  EXPECT_EQ(4, status.st_size);
}

TEST_F(RegularFileTest, LinkIsFollowedOrNot) {
  WriteWholeFile(other_, "content");
  ASSERT_EQ(0, symlink("other", file_.c_str()));
  EXPECT_EQ(0, Open(O_WRONLY));
  EXPECT_EQ(ELOOP, Open(O_WRONLY | O_NOFOLLOW | O_TRUNC));
  EXPECT_EQ("content", ReadWholeFile(other_));
}

TEST_F(RegularFileTest, DanglingLinkIsNotCreatedThrough) {
  ASSERT_EQ(0, symlink("other", file_.c_str()));
  EXPECT_EQ(ELOOP, Open(O_WRONLY | O_CREAT | O_NOFOLLOW));
  EXPECT_FALSE(fs::exists(other_));
}

TEST_F(RegularFileTest, FileOfTwoNamesIsRefusedUnchanged) {
  WriteWholeFile(other_, "content");
  ASSERT_EQ(0, link(other_.c_str(), file_.c_str()));
  EXPECT_EQ(EMLINK, Open(O_WRONLY | O_CREAT | O_TRUNC));
  EXPECT_EQ("content", ReadWholeFile(other_));
  EXPECT_EQ(0, Open(O_WRONLY, FileNames::kAny));
}

TEST_F(RegularFileTest, WhatIsNoRegularFile) {
  ASSERT_EQ(0, mkfifo(file_.c_str(), 0600));
  EXPECT_EQ(ENOTSUP, Open(O_RDONLY));
  EXPECT_EQ(ENXIO, Open(O_WRONLY)) << "no reader, and none is waited for";
  EXPECT_EQ(ENOTSUP, Open(O_RDWR)) << "its own reader";
  ASSERT_EQ(0, unlink(file_.c_str()));
  ASSERT_EQ(0, mkdir(file_.c_str(), 0700));
  EXPECT_EQ(ENOTSUP, Open(O_RDONLY));
  ASSERT_EQ(0, rmdir(file_.c_str()));
  ASSERT_EQ(0, symlink("/dev/zero", file_.c_str()));
  EXPECT_EQ(ENOTSUP, Open(O_RDONLY));
}

TEST_F(RegularFileTest, IsRegularFile) {
  EXPECT_FALSE(IsRegularFile(file_.c_str()));
  WriteWholeFile(other_, "");
  ASSERT_EQ(0, symlink("other", file_.c_str()));
  EXPECT_TRUE(IsRegularFile(file_.c_str()));
  EXPECT_FALSE(IsRegularFile(folder_.Path().c_str()));
  EXPECT_FALSE(IsRegularFile("/dev/zero"));
}

}  // namespace
