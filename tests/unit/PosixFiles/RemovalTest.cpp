#include "shared/platform/posix/Removal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

class RemovalTest : public testing::Test {
 protected:
  RemovalTest() {
    fs::create_directories(folder_ / "root/bundle/a/b");
    fs::create_directories(folder_ / "elsewhere/bundle");
    WriteWholeFile(folder_ / "root/bundle/a/b/file", "x");
    WriteWholeFile(folder_ / "root/bundle/.hidden", "x");
    WriteWholeFile(folder_ / "elsewhere/bundle/kept", "x");
    WriteWholeFile(folder_ / "elsewhere/kept", "x");
  }

  bool Has(const char* path) { return fs::symlink_exists(folder_ / path); }

  TemporaryFolder folder_;
  const std::string root_ = folder_ / "root";
};

TEST_F(RemovalTest, RemovesATreeAndNothingBesideIt) {
  const RemovalResult result = RemoveTree(root_.c_str(), "/bundle");
  EXPECT_EQ(0u, result.refused);
  EXPECT_EQ(0, result.error);
  EXPECT_FALSE(Has("root/bundle"));
  EXPECT_TRUE(Has("root"));
  EXPECT_TRUE(Has("elsewhere/kept"));
}

TEST_F(RemovalTest, RemovesAnItemFurtherDown) {
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "bundle/a/b").refused);
  EXPECT_FALSE(Has("root/bundle/a/b"));
  EXPECT_TRUE(Has("root/bundle/a"));
}

TEST_F(RemovalTest, RemovesLinksThemselves) {
  fs::create_symlink(folder_ / "elsewhere", folder_ / "root/bundle/a/link");
  fs::create_symlink("nowhere", folder_ / "root/dangling");
  fs::create_symlink("../elsewhere", folder_ / "root/folder");
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "bundle").refused);
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "dangling").refused);
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "folder").refused);
  EXPECT_FALSE(Has("root/bundle") || Has("root/dangling") || Has("root/folder"));
  EXPECT_TRUE(Has("elsewhere/kept"));
}

TEST_F(RemovalTest, GoesThroughNoLinkBelowTheRoot) {
  fs::create_symlink("../elsewhere", folder_ / "root/link");
  RemovalResult result = RemoveTree(root_.c_str(), "link/bundle");
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(ELOOP, result.error);
  result = RemoveFileOrEmptyFolder(root_.c_str(), "link/kept");
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(ELOOP, result.error);
  EXPECT_TRUE(Has("elsewhere/bundle/kept") && Has("elsewhere/kept"));
  EXPECT_EQ(0u, RemoveTree((folder_ / "root/link").c_str(), "bundle").refused)
      << "the root itself is trusted";
}

TEST_F(RemovalTest, WhatIsMissingIsNotRefused) {
  for (const char* path : {"missing", "missing/item", "bundle/.hidden/item"}) {
    EXPECT_EQ(0u, RemoveTree(root_.c_str(), path).refused) << path;
    EXPECT_EQ(0u, RemoveFileOrEmptyFolder(root_.c_str(), path).refused) << path;
  }
  EXPECT_EQ(0u, RemoveTree((folder_ / "missing").c_str(), "item").refused);
  EXPECT_TRUE(Has("root/bundle/.hidden"));
}

TEST_F(RemovalTest, RemovesWhatIsNoRegularFile) {
  ASSERT_EQ(0, mkfifo((folder_ / "root/bundle/a/fifo").c_str(), 0600));
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "bundle").refused);
  EXPECT_FALSE(Has("root/bundle"));
}

TEST_F(RemovalTest, FileOrEmptyFolderAlone) {
  EXPECT_EQ(0u, RemoveFileOrEmptyFolder(root_.c_str(), "bundle/.hidden").refused);
  EXPECT_FALSE(Has("root/bundle/.hidden"));
  fs::create_directory(folder_ / "root/empty");
  EXPECT_EQ(0u, RemoveFileOrEmptyFolder(root_.c_str(), "/empty").refused);
  EXPECT_FALSE(Has("root/empty"));
  fs::create_symlink("../elsewhere", folder_ / "root/link");
  EXPECT_EQ(0u, RemoveFileOrEmptyFolder(root_.c_str(), "link").refused);
  EXPECT_FALSE(Has("root/link"));

  const RemovalResult result = RemoveFileOrEmptyFolder(root_.c_str(), "bundle");
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(ENOTEMPTY, result.error);
  EXPECT_TRUE(Has("root/bundle/a/b/file"));
}

TEST_F(RemovalTest, GoesOnAfterARefusal) {
  // Permissions do not bind root: a folder that only another user may change.
  const uid_t user = geteuid();
  for (const char* name : {"1", "2", "3"}) {
    fs::create_directory(root_ + "/bundle/" + name);
    WriteWholeFile(root_ + "/bundle/" + name + "/file", "x");
  }
  ASSERT_EQ(0, chmod((folder_ / "root/bundle/2").c_str(), 0555));
  if (user == 0) {
    ASSERT_EQ(0, system(("chown -R 65534 " + root_ + " && chmod 755 " + folder_.Path()).c_str()));
    ASSERT_EQ(0, chown((folder_ / "root/bundle/2").c_str(), 0, 0));
    ASSERT_EQ(0, seteuid(65534));
  }
  const RemovalResult result = RemoveTree(root_.c_str(), "bundle");
  if (user == 0) {
    ASSERT_EQ(0, seteuid(0));
  }
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(EACCES, result.error);
  EXPECT_TRUE(Has("root/bundle/2/file"));
  EXPECT_FALSE(Has("root/bundle/1") || Has("root/bundle/3") || Has("root/bundle/a"));
}

TEST_F(RemovalTest, FoldersOfThirdUsersStayBelowAUsersFolder) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can make folders of other users";
  }
  const auto give = [&](const char* path, uid_t user) {
    ASSERT_EQ(0, chown((folder_ / path).c_str(), user, user)) << path;
  };
  give("root", 4242);
  give("root/bundle", 4242);
  give("root/bundle/a", 4243);
  EXPECT_EQ(1u, RemoveTree(root_.c_str(), "bundle/a/b").refused) << "on the way";
  const RemovalResult result = RemoveTree(root_.c_str(), "bundle");
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(EPERM, result.error);
  EXPECT_TRUE(Has("root/bundle/a/b/file"));
  EXPECT_FALSE(Has("root/bundle/.hidden"));

  give("root/bundle/a", 0);
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "bundle").refused) << "root's and the user's own go";
}

TEST_F(RemovalTest, FoldersOfAllUsersGoBelowAFolderOfRoots) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can make folders of other users";
  }
  ASSERT_EQ(0, chown((folder_ / "root/bundle/a").c_str(), 4243, 4243));
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "bundle").refused);
}

TEST_F(RemovalTest, ManyNamesInOneFolder) {
  for (int number = 0; number < 300; ++number) {
    WriteWholeFile(root_ + "/bundle/a/" + std::to_string(number), "");
  }
  EXPECT_EQ(0u, RemoveTree(root_.c_str(), "bundle").refused);
  EXPECT_FALSE(Has("root/bundle"));
}

TEST_F(RemovalTest, DepthThatNoPayloadHasStays) {
  for (const bool isTooDeep : {false, true}) {
    const std::string before = fs::current_path();
    fs::current_path(folder_ / "root/bundle");
    for (int depth = 0; depth < 1023 + isTooDeep; ++depth) {
      ASSERT_EQ(0, mkdir("d", 0700));
      ASSERT_EQ(0, chdir("d"));
    }
    fs::current_path(before);
    const RemovalResult result = RemoveTree(root_.c_str(), "bundle");
    EXPECT_EQ(isTooDeep ? 1u : 0u, result.refused);
    EXPECT_EQ(isTooDeep ? ELOOP : 0, result.error);
    EXPECT_EQ(isTooDeep, Has("root/bundle/d/d"));
    fs::create_directories(folder_ / "root/bundle");
  }
}

}  // namespace
