#import "player/Installers/Mac/KPInstallManager/source/application/InstallLogFile.h"

#import <SystemConfiguration/SystemConfiguration.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

constexpr uid_t kUser = 4242;
constexpr gid_t kGroup = 4243;
constexpr uid_t kAnother = 4244;

/// Who is at the console; nil for no one.
NSString* s_console;
gid_t s_group;

}  // namespace

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid) {
  EXPECT_EQ(nullptr, store);
  if (s_console == nil) {
    return nullptr;
  }
  *uid = kUser;
  *gid = s_group;
  return (CFStringRef)[s_console copy];
}

namespace {

/// A log in a folder of the user 4242, who has no passwd entry and is at the console.
class InstallLogFileTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root acts for the console user";
    }
    s_console = @"user of the test";
    s_group = kGroup;
    chmod(folder_.Path().c_str(), 0755);
    fs::create_directory(logs_);
    ASSERT_EQ(0, chown(logs_.c_str(), kUser, kGroup));
  }
  ~InstallLogFileTest() override { [pool_ release]; }

  /// Writes a line into the log, if it can be opened; false otherwise.
  bool Log(const std::string& path) {
    const int descriptor = OpenInstallLogFile(String(path));
    if (descriptor < 0) {
      return false;
    }
    EXPECT_EQ(4, write(descriptor, "line", 4));
    close(descriptor);
    return true;
  }
  bool Log() { return Log(log_); }

  static struct stat Status(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status;
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
  const std::string logs_ = folder_ / "Logs";
  const std::string log_ = logs_ + "/install.log";
  const std::string secret_ = folder_ / "secret";
};

TEST_F(InstallLogFileTest, CreatedLogIsTheConsoleUsers) {
  EXPECT_TRUE(Log());
  EXPECT_EQ(kUser, Status(log_).st_uid);
  EXPECT_EQ(kGroup, Status(log_).st_gid);
  EXPECT_EQ("line", ReadWholeFile(log_));
}

/// setgroups(2), which takes the count as an int on macOS and as a size_t on Linux.
template <typename Count>
int SetGroups(int (*function)(Count, const gid_t*), const std::vector<gid_t>& groups) {
  return function(static_cast<Count>(groups.size()), groups.data());
}

TEST_F(InstallLogFileTest, IdsAndGroupsAreRestored) {
  std::vector<gid_t> before(static_cast<size_t>(getgroups(0, nullptr)));
  ASSERT_LE(0, getgroups(static_cast<int>(before.size()), before.data()));
  ASSERT_EQ(0, SetGroups(setgroups, {0, 4711}));
  EXPECT_TRUE(Log());
  EXPECT_EQ(0u, geteuid());
  EXPECT_EQ(0u, getegid());
  gid_t after[8] = {};
  EXPECT_EQ(2, getgroups(8, after));
  EXPECT_EQ(4711u, after[1]);
  ASSERT_EQ(0, SetGroups(setgroups, before));
}

TEST_F(InstallLogFileTest, LogThatAnEarlierRunHasLeftAsRootsIsAppendedTo) {
  WriteWholeFile(log_, "before ");
  chmod(log_.c_str(), 0644);
  EXPECT_TRUE(Log());
  EXPECT_EQ("before line", ReadWholeFile(log_));
}

TEST_F(InstallLogFileTest, FolderOfRootsGetsALogOfRoots) {
  ASSERT_EQ(0, chown(logs_.c_str(), 0, 0));
  EXPECT_TRUE(Log());
  EXPECT_EQ(0u, Status(log_).st_uid);
}

TEST_F(InstallLogFileTest, FileOfAnotherUserIsNoLog) {
  WriteWholeFile(log_, "before");
  chmod(log_.c_str(), 0644);
  ASSERT_EQ(0, chown(log_.c_str(), kAnother, kAnother));
  EXPECT_FALSE(Log());
  EXPECT_EQ("before", ReadWholeFile(log_));
}

TEST_F(InstallLogFileTest, FolderOfAnotherUserGetsNoLog) {
  ASSERT_EQ(0, chown(logs_.c_str(), kAnother, kAnother));
  EXPECT_FALSE(Log());
  EXPECT_FALSE(fs::exists(log_));
}

TEST_F(InstallLogFileTest, GroupsOfRootDoNotHelpTheUser) {
  ASSERT_EQ(0, chown(logs_.c_str(), kAnother, 0));
  chmod(logs_.c_str(), 0775);
  EXPECT_FALSE(Log());
  EXPECT_FALSE(fs::exists(log_));
}

TEST_F(InstallLogFileTest, LinksInTheLogsPlaceAreNotFollowed) {
  WriteWholeFile(secret_, "secret");
  fs::create_symlink(secret_, log_);
  EXPECT_FALSE(Log());
  fs::remove(log_);
  fs::create_symlink(folder_ / "missing", log_);
  EXPECT_FALSE(Log());
  EXPECT_FALSE(fs::exists(folder_ / "missing"));
  fs::remove(log_);
  fs::create_hard_link(secret_, log_);
  EXPECT_FALSE(Log());
  EXPECT_EQ("secret", ReadWholeFile(secret_));
}

TEST_F(InstallLogFileTest, FolderThatIsALinkLeadsRootNowhere) {
  const std::string closed = folder_ / "closed";
  fs::create_directory(closed);
  fs::create_symlink(closed, folder_ / "link");
  EXPECT_FALSE(Log(folder_ / "link/install.log"));
  EXPECT_FALSE(fs::exists(closed + "/install.log"));
  // With the user's own rights links are followed.
  fs::create_symlink(logs_, folder_ / "own");
  EXPECT_TRUE(Log(folder_ / "own/install.log"));
  EXPECT_EQ(kUser, Status(log_).st_uid);
}

TEST_F(InstallLogFileTest, WhatIsNoRegularFileIsNoLog) {
  ASSERT_EQ(0, mkfifo(log_.c_str(), 0666));
  EXPECT_FALSE(Log());
  const int reader = open(log_.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_FALSE(Log()) << "with a reader";
  close(reader);
  fs::remove(log_);
  fs::create_directory(log_);
  EXPECT_FALSE(Log());
}

TEST_F(InstallLogFileTest, LoginWindowAndNoOneLogWhereOnlyRootMayWrite) {
  for (NSString* console : {(NSString*)nil, @"loginwindow"}) {
    s_console = console;
    ASSERT_EQ(0, chown(logs_.c_str(), kUser, kGroup));
    EXPECT_FALSE(Log()) << "a folder of a user who has left";
    ASSERT_EQ(0, chown(logs_.c_str(), 0, 0));
    EXPECT_TRUE(Log());
    EXPECT_EQ(0u, Status(log_).st_uid);
    fs::remove(log_);
    fs::create_symlink(secret_, log_);
    EXPECT_FALSE(Log());
    fs::remove(log_);
    fs::create_symlink(logs_, folder_ / "link");
    EXPECT_FALSE(Log(folder_ / "link/install.log"));
    fs::remove(folder_ / "link");
  }
  EXPECT_FALSE(fs::exists(secret_));
}

TEST_F(InstallLogFileTest, UserWithoutAKnownGroupHasNobodys) {
  s_group = static_cast<gid_t>(-1);
  ASSERT_EQ(0, chown(logs_.c_str(), kUser, 0));
  EXPECT_TRUE(Log());
  EXPECT_EQ(static_cast<gid_t>(-2), Status(log_).st_gid);
}

TEST_F(InstallLogFileTest, UserWithAPasswdEntryHasTheirGroups) {
  s_console = @"nobody";
  EXPECT_TRUE(Log());
  EXPECT_EQ(kUser, Status(log_).st_uid);
  EXPECT_EQ(kGroup, Status(log_).st_gid);
}

}  // namespace
