// Removing locked items, and folders that another user moves meanwhile. The test simulates the
// locks, because the file system of a build machine may have none, and the other user.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "shared/platform/posix/Removal.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

// The locked items by their inodes, those whose locks cannot be cleared, and the paths that were to
// be unlocked.
std::set<ino_t> s_locked;
std::set<ino_t> s_fixed;
std::vector<std::string> s_unlocked;
// What another user does before the next item is removed.
std::function<void()> s_interference;

ino_t Inode(const char* path) {
  struct stat status = {};
  return lstat(path, &status) == 0 ? status.st_ino : 0;
}

int Remove(const char* name) {
  if (const auto interference = std::exchange(s_interference, nullptr)) {
    interference();
  }
  if (s_locked.count(Inode(name)) != 0 || s_locked.count(Inode(".")) != 0) {
    errno = EPERM;
    return -1;
  }
  return remove(name);
}

}  // namespace

// ---- What the tested code calls

extern "C" int lchflags(const char* path, uint32_t flags) {
  EXPECT_EQ(0u, flags);
  s_unlocked.push_back(path);
  if (s_fixed.count(Inode(path)) != 0) {
    errno = EPERM;
    return -1;
  }
  s_locked.erase(Inode(path));
  return 0;
}

extern "C" int unlink(const char* name) { return Remove(name); }
extern "C" int rmdir(const char* name) { return Remove(name); }

namespace {

using Paths = std::vector<std::string>;

class LockedItemsTest : public testing::Test {
 protected:
  LockedItemsTest() {
    fs::create_directories(folder_ / "bundle/a");
    WriteWholeFile(folder_ / "bundle/a/file", "x");
    WriteWholeFile(folder_ / "bundle/other", "x");
    s_locked.clear();
    s_fixed.clear();
    s_unlocked.clear();
  }
  ~LockedItemsTest() override { s_locked.clear(); }

  void Lock(const char* path) { s_locked.insert(Inode((folder_ / path).c_str())); }
  // Locked for good, as by a flag that only the system may clear.
  void Fix(const char* path) {
    Lock(path);
    s_fixed.insert(Inode((folder_ / path).c_str()));
  }
  bool Has(const char* path) { return Inode((folder_ / path).c_str()) != 0; }
  RemovalResult RemoveBundle() { return RemoveTree(folder_.Path().c_str(), "bundle"); }

  TemporaryFolder folder_;
};

TEST_F(LockedItemsTest, WhatIsNotLockedIsNotTouched) {
  EXPECT_EQ(0u, RemoveBundle().refused);
  EXPECT_EQ(Paths(), s_unlocked);
}

TEST_F(LockedItemsTest, ALockedFileIsUnlockedAndRemoved) {
  Lock("bundle/other");
  EXPECT_EQ(0u, RemoveBundle().refused);
  EXPECT_FALSE(Has("bundle"));
}

TEST_F(LockedItemsTest, ALockedLinkIsRemovedItself) {
  fs::create_symlink("other", folder_ / "bundle/link");
  Lock("bundle/link");
  EXPECT_EQ(0u, RemoveBundle().refused);
  EXPECT_FALSE(Has("bundle"));
}

TEST_F(LockedItemsTest, LockedFoldersAreUnlockedForTheirItemsAndThemselves) {
  Lock("bundle/a");
  Lock("bundle");
  EXPECT_EQ(0u, RemoveBundle().refused);
  EXPECT_FALSE(Has("bundle"));
}

TEST_F(LockedItemsTest, TheFolderAroundTheItemStaysLocked) {
  Lock(".");
  const RemovalResult result = RemoveBundle();
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(EPERM, result.error);
  EXPECT_TRUE(Has("bundle"));
  EXPECT_EQ(1u, s_locked.size());
}

TEST_F(LockedItemsTest, WhatCannotBeUnlockedStaysAndTheRestGoes) {
  Fix("bundle/a/file");
  const RemovalResult result = RemoveBundle();
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(EPERM, result.error);
  EXPECT_TRUE(Has("bundle/a/file"));
  EXPECT_FALSE(Has("bundle/other"));
}

TEST_F(LockedItemsTest, AFileWithAnotherNameElsewhereKeepsItsLock) {
  WriteWholeFile(folder_ / "roots", "x");
  fs::create_hard_link(folder_ / "roots", folder_ / "bundle/a/linked");
  Lock("roots");
  const RemovalResult result = RemoveBundle();
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(EPERM, result.error);
  EXPECT_EQ(1u, s_locked.count(Inode((folder_ / "roots").c_str())));
}

TEST_F(LockedItemsTest, AnotherRefusalUnlocksNothing) {
  // The folder that is not empty is refused with ENOTEMPTY.
  EXPECT_EQ(1u, RemoveFileOrEmptyFolder(folder_.Path().c_str(), "bundle").refused);
  EXPECT_EQ(Paths(), s_unlocked);
}

TEST_F(LockedItemsTest, ALockedFlagFileIsRemoved) {
  Lock("bundle/other");
  const std::string root = folder_ / "bundle";
  EXPECT_EQ(0u, RemoveFileOrEmptyFolder(root.c_str(), "other").refused);
  EXPECT_FALSE(Has("bundle/other"));
  EXPECT_EQ(Paths({"other"}), s_unlocked);
}

TEST_F(LockedItemsTest, NothingIsRemovedOnceTheFolderHasMoved) {
  const std::string root = folder_ / "walked";
  for (const char* folder : {"walked/bundle/a", "walked/bundle/b", "elsewhere"}) {
    fs::create_directories(folder_ / folder);
  }
  WriteWholeFile(root + "/bundle/a/file", "x");
  WriteWholeFile(root + "/bundle/b/file", "x");
  // The first of the two folders gets items with the names of those that are still to be removed.
  s_interference = [&] {
    fs::rename(fs::current_path(), folder_ / "elsewhere/moved");
    for (const char* name : {"a", "b"}) {
      fs::create_directories(folder_ / "elsewhere/moved" + std::string("/") + name);
      WriteWholeFile(folder_ / "elsewhere/moved" + std::string("/") + name + "/kept", "x");
    }
  };
  const RemovalResult result = RemoveTree(root.c_str(), "bundle");
  EXPECT_EQ(1u, result.refused);
  EXPECT_EQ(ESTALE, result.error);
  EXPECT_TRUE(Has("elsewhere/moved/a/kept"));
  EXPECT_TRUE(Has("elsewhere/moved/b/kept"));
}

}  // namespace
