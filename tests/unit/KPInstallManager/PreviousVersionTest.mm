#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PreviousVersion.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

using testing::ElementsAre;

constexpr char kReading[] = "[3] Reading previous version file";

class PreviousVersionTest : public testing::Test {
 protected:
  PreviousVersionTest() {
    g_logger = [[KPIMLogger alloc] initWithPath:@"log"];
    SetRoot(folder_.Path());
  }
  ~PreviousVersionTest() override {
    [g_logger release];
    g_logger = nil;
    [pool_ release];
  }

  void SetRoot(const std::string& root) {
    root_ = root;
    file_ = root + "/Library/Application Support/Velmora/previous_version.txt";
    fs::create_directories(fs::parent_path(file_));
  }

  /// The version, from a file that exists.
  std::string Version() {
    g_events.clear();
    const std::string version = Text(ReadPreviousVersion(String(root_)));
    EXPECT_THAT(g_events, ElementsAre(kReading));
    return version;
  }

  std::string VersionIn(const std::string& contents) {
    WriteWholeFile(file_, contents);
    return Version();
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
  std::string root_;
  std::string file_;
};

TEST_F(PreviousVersionTest, IsTrimmedAtBothEnds) {
  EXPECT_EQ("32.0.0.255", VersionIn("32.0.0.255\n"));
  EXPECT_EQ("32.0.0.255", VersionIn("32.0.0.255\r\n"));
  EXPECT_EQ("32.0 \n 0.255", VersionIn("\n\t 32.0 \n 0.255 \n\n"));
  EXPECT_EQ("32.0", VersionIn(u8"\u00A0\u202832.0\u0085\u3000"));
}

TEST_F(PreviousVersionTest, WithoutTextIsEmptyNotAbsent) {
  EXPECT_EQ("", VersionIn(" \t\r\n \n"));
  EXPECT_EQ("", VersionIn(""));
}

TEST_F(PreviousVersionTest, NotUTF8IsAbsent) { EXPECT_EQ("(absent)", VersionIn("32.0\xFF\n")); }

TEST_F(PreviousVersionTest, FolderInItsPlaceIsAbsent) {
  fs::create_directory(file_);
  EXPECT_EQ("(absent)", Version());
}

TEST_F(PreviousVersionTest, FIFOInItsPlaceIsNotWaitedFor) {
  ASSERT_EQ(0, mkfifo(file_.c_str(), 0600));
  EXPECT_EQ("(absent)", Version());
}

TEST_F(PreviousVersionTest, MissingFileIsNotRead) {
  g_events.clear();
  EXPECT_EQ(nil, ReadPreviousVersion(String(root_)));
  EXPECT_EQ(nil, ReadPreviousVersion(nil));
  EXPECT_THAT(g_events, ElementsAre());
}

TEST_F(PreviousVersionTest, UnreadableFileIsAbsent) {
  WriteWholeFile(file_, "32.0.0.255\n");
  chmod(file_.c_str(), 0);
  fs::permissions(root_, 0755);
  // Permissions do not bind root.
  const uid_t user = geteuid();
  if (user == 0) {
    ASSERT_EQ(0, seteuid(65534));
  }
  const std::string version = Version();
  if (user == 0) {
    ASSERT_EQ(0, seteuid(0));
  }
  EXPECT_EQ("(absent)", version);
}

TEST_F(PreviousVersionTest, RootsThatAreNoURLs) {
  for (const char* name : {"100% #1?;x", "a%20b", "[x]", "\xF0\x9F\x93\x80"}) {
    SetRoot(folder_ / name);
    EXPECT_EQ("32.0.0.255", VersionIn("32.0.0.255\n")) << name;
  }
}

TEST_F(PreviousVersionTest, RelativeRoot) {
  const std::string before = fs::current_path();
  fs::current_path(folder_.Path());
  SetRoot("volume");
  EXPECT_EQ("32.0.0.255", VersionIn("32.0.0.255\n"));
  fs::current_path(before);
}

/// What is read of the file at the URL, which must be the test's.
ScopedMethodReplacement* s_contents;
std::string s_file;

NSString* Contents(id self, SEL selector, NSURL* url, NSStringEncoding encoding, NSError** error) {
  EXPECT_THAT(g_events, ElementsAre(kReading)) << "logged before it is read";
  EXPECT_TRUE([url isFileURL]);
  EXPECT_EQ(s_file, Text([url path]));
  EXPECT_EQ(NSUTF8StringEncoding, encoding);
  EXPECT_EQ(nullptr, error);
  return reinterpret_cast<NSString* (*)(id, SEL, NSURL*, NSStringEncoding, NSError**)>(
      s_contents->original())(self, selector, url, encoding, error);
}

TEST_F(PreviousVersionTest, IsLoggedThenReadAsUTF8ThroughAURL) {
  ScopedMethodReplacement contents([NSString class],
                                   @selector(stringWithContentsOfURL:encoding:error:),
                                   (IMP)Contents, ScopedMethodReplacement::kClassMethod);
  s_contents = &contents;
  s_file = file_;
  EXPECT_EQ("32.0.0.255", VersionIn("32.0.0.255"));
}

}  // namespace
