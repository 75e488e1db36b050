#include "shared/platform/posix/FolderWalk.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

class FolderWalkTest : public testing::Test {
 protected:
  FolderWalkTest() {
    fs::create_directories(folder_ / "outer/inner");
    fs::create_symlink("outer", folder_ / "link");
    WriteWholeFile(folder_ / "file", "");
  }

  TemporaryFolder folder_;
  const std::string before_ = fs::current_path();
};

TEST_F(FolderWalkTest, ReturnsToTheWorkingDirectory) {
  {
    FolderWalk walk;
    EXPECT_EQ(before_, fs::current_path()) << "goes nowhere by itself";
    ASSERT_TRUE(walk.Start(folder_.Path().c_str()));
    ASSERT_TRUE(walk.Enter("outer"));
    EXPECT_EQ(fs::canonical(folder_ / "outer"), fs::current_path());
  }
  EXPECT_EQ(before_, fs::current_path());
}

TEST_F(FolderWalkTest, LeavesNoDescriptorOpen) {
  const int before = dup(0);
  close(before);
  {
    FolderWalk walk;
    ASSERT_TRUE(walk.Start(folder_.Path().c_str()));
    ASSERT_TRUE(walk.EnterEach("outer/inner"));
    EXPECT_FALSE(walk.Enter("missing"));
    EXPECT_FALSE(walk.Enter("file"));
  }
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

TEST_F(FolderWalkTest, StartFollowsLinksAndEnterDoesNot) {
  FolderWalk walk;
  ASSERT_TRUE(walk.Start((folder_ / "link").c_str()));
  EXPECT_EQ(fs::canonical(folder_ / "outer"), fs::current_path());
  ASSERT_TRUE(walk.Start(folder_.Path().c_str()));
  EXPECT_FALSE(walk.Enter("link"));
  EXPECT_EQ(ELOOP, errno);
  for (const char* name : {"link/", "outer/inner", "/", ".."}) {
    EXPECT_FALSE(walk.Enter(name)) << name;
    EXPECT_EQ(EINVAL, errno) << name;
  }
  EXPECT_FALSE(walk.EnterEach("link/inner"));
  EXPECT_EQ(fs::canonical(folder_.Path()), fs::current_path());
}

TEST_F(FolderWalkTest, EntersFoldersAlone) {
  ASSERT_EQ(0, mkfifo((folder_ / "fifo").c_str(), 0600));
  FolderWalk walk;
  ASSERT_TRUE(walk.Start(folder_.Path().c_str()));
  for (const char* name : {"file", "fifo"}) {
    EXPECT_FALSE(walk.Enter(name)) << name;
    EXPECT_EQ(ENOTDIR, errno) << name;
  }
  EXPECT_FALSE(walk.Enter("missing"));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(FolderWalkTest, EntersEachComponentOfAPath) {
  FolderWalk walk;
  ASSERT_TRUE(walk.Start(folder_.Path().c_str()));
  ASSERT_TRUE(walk.EnterEach("//outer//inner/"));
  EXPECT_EQ(fs::canonical(folder_ / "outer/inner"), fs::current_path());
  EXPECT_TRUE(walk.EnterEach(""));
  fs::create_directory(std::string(255, 'n'));
  EXPECT_TRUE(walk.EnterEach(std::string(255, 'n').c_str()));
  EXPECT_FALSE(walk.EnterEach(std::string(256, 'n').c_str()));
  EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(FolderWalkTest, KnowsItsFolderAndTheOwner) {
  FolderWalk walk;
  ASSERT_TRUE(walk.Start((folder_ / "outer").c_str()));
  struct stat status = {};
  ASSERT_EQ(0, stat(".", &status));
  EXPECT_EQ(status.st_dev, walk.Here().device);
  EXPECT_EQ(status.st_ino, walk.Here().file);
  EXPECT_EQ(getuid(), walk.Owner());
  if (geteuid() == 0) {
    ASSERT_EQ(0, chown("inner", 4242, 4242));
    ASSERT_TRUE(walk.Enter("inner"));
    EXPECT_EQ(4242u, walk.Owner());
  }
}

TEST_F(FolderWalkTest, ReturnsToTheFolderAround) {
  FolderWalk walk;
  ASSERT_TRUE(walk.Start((folder_ / "outer").c_str()));
  const FolderIdentity outer = walk.Here();
  ASSERT_TRUE(walk.Enter("inner"));
  EXPECT_TRUE(walk.Return(outer));
  EXPECT_EQ(fs::canonical(folder_ / "outer"), fs::current_path());
}

TEST_F(FolderWalkTest, DoesNotReturnFromAFolderThatHasBeenMoved) {
  FolderWalk walk;
  ASSERT_TRUE(walk.Start((folder_ / "outer").c_str()));
  const FolderIdentity outer = walk.Here();
  ASSERT_TRUE(walk.Enter("inner"));
  fs::rename(folder_ / "outer/inner", folder_ / "moved");
  EXPECT_FALSE(walk.Return(outer));
  EXPECT_EQ(ESTALE, errno);
  EXPECT_EQ(fs::canonical(folder_ / "moved"), fs::current_path());
}

TEST_F(FolderWalkTest, WithoutAWayBackEndsInTheRoot) {
  // Permissions do not bind root.
  const uid_t user = geteuid();
  fs::create_directory(folder_ / "closed");
  fs::current_path(folder_ / "closed");
  ASSERT_EQ(0, chmod(".", 0100));
  if (user == 0) {
    ASSERT_EQ(0, seteuid(65534));
  }
  {
    FolderWalk walk;
    EXPECT_TRUE(walk.Start("/usr"));
    EXPECT_EQ("/usr", fs::current_path());
  }
  if (user == 0) {
    ASSERT_EQ(0, seteuid(0));
  }
  EXPECT_EQ("/", fs::current_path());
  fs::current_path(before_);
}

}  // namespace
