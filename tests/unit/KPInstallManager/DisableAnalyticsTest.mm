#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

constexpr char kSettingsFolder[] = "Library/Application Support/Velmora";

class DisableAnalyticsTest : public testing::Test {
 protected:
  DisableAnalyticsTest() {
    fs::create_directories(mRoot / kSettingsFolder);
    mPath = mRoot / kSettingsFolder + "/rks.cfg";
  }

  void Run() { DisableAnalytics(String(mRoot.Path())); }

  /// What the file holds after a run on a file with `content`.
  std::string After(std::string const& content) {
    WriteWholeFile(mPath, content);
    Run();
    return ReadWholeFile(mPath);
  }

  TemporaryFolder mRoot;
  std::string mPath;
};

TEST_F(DisableAnalyticsTest, CreatesTheFile) {
  Run();
  EXPECT_EQ(ReadWholeFile(mPath), "DisableAnalytics=1\n");
}

TEST_F(DisableAnalyticsTest, ChangesTheLineInItsPlace) {
  EXPECT_EQ(After("ExampleSetting = 1\r\n#comment\r\nDisableAnalytics=0\r\n"),
            "ExampleSetting=1\nDisableAnalytics=1\n");
  EXPECT_EQ(After("DisableAnalytics=0\nb=2\n"), "DisableAnalytics=1\nb=2\n");
  EXPECT_EQ(After("DisableAnalytics=1\nb=2\n"), "DisableAnalytics=1\nb=2\n");
  EXPECT_EQ(After("DisableAnalytics = yes, please \nb=2\n"), "DisableAnalytics=1\nb=2\n");
}

TEST_F(DisableAnalyticsTest, AppendsTheLine) {
  EXPECT_EQ(After("a=1\nb=2"), "a=1\nb=2\nDisableAnalytics=1\n");
  EXPECT_EQ(After("disableanalytics=0\n"), "disableanalytics=0\nDisableAnalytics=1\n");
}

TEST_F(DisableAnalyticsTest, LastOfSeveralLinesKeepsItsPlace) {
  EXPECT_EQ(After("DisableAnalytics=0\na=1\nDisableAnalytics=2\nb=2\n"),
            "a=1\nDisableAnalytics=1\nb=2\n");
}

TEST_F(DisableAnalyticsTest, NormalisesTheRest) {
  EXPECT_EQ(After("\xEF\xBB\xBF# note\n\n# note = x\n k = v = w \n"),
            "# note=x\nk=v = w\nDisableAnalytics=1\n");
}

TEST_F(DisableAnalyticsTest, ReplacesWhatIsNotRead) {
  EXPECT_EQ(After(std::string("\xFF\xFE"
                              "a\0=\0"
                              "1\0",
                              8)),
            "DisableAnalytics=1\n");
  EXPECT_EQ(After(std::string("\xFE\xFF\0a\0=\0"
                              "1",
                              8)),
            "DisableAnalytics=1\n");
  EXPECT_EQ(After("a=1"), "DisableAnalytics=1\n");
}

TEST_F(DisableAnalyticsTest, KeepsBytesThatAreNotUtf8) {
  EXPECT_EQ(After("a=x\xFFy\n"), "a=x\xFFy\nDisableAnalytics=1\n");
}

TEST_F(DisableAnalyticsTest, RootMayEndInASlash) {
  DisableAnalytics(String(mRoot.Path() + "/"));
  EXPECT_EQ(ReadWholeFile(mPath), "DisableAnalytics=1\n");
}

TEST_F(DisableAnalyticsTest, MakesNoFolder) {
  fs::remove_all(mRoot / "Library");
  Run();
  EXPECT_TRUE(fs::is_empty(mRoot.Path()));
}

TEST_F(DisableAnalyticsTest, LeavesADirectoryInItsPlaceAlone) {
  fs::create_directory(mPath);
  Run();
  EXPECT_TRUE(fs::is_directory(mPath));
  EXPECT_TRUE(fs::is_empty(mPath));
}

TEST_F(DisableAnalyticsTest, WritesThroughALink) {
  const std::string target = mRoot / "elsewhere.cfg";
  WriteWholeFile(target, "a=1\n");
  fs::create_symlink(target, mPath);
  Run();
  EXPECT_TRUE(fs::is_symlink(mPath));
  EXPECT_EQ(ReadWholeFile(target), "a=1\nDisableAnalytics=1\n");
}

// ---- The path; the file at the real one belongs to the machine and is not opened

/// The paths passed to initWithConfigFile:, which the test replaces by a method that returns nil.
std::vector<std::string> sOpened;

id RecordPath(id self, SEL, NSString* path) {
  sOpened.push_back(Text(path));
  [self release];
  return nil;
}

std::vector<std::string> OpenedBy(NSString* installRoot) {
  sOpened.clear();
  const ScopedMethodReplacement recording(NSClassFromString(@"KSConfigFileManager"),
                                          @selector(initWithConfigFile:),
                                          reinterpret_cast<IMP>(RecordPath));
  DisableAnalytics(installRoot);
  return sOpened;
}

TEST(DisableAnalyticsPath, IsBelowTheRoot) {
  const std::vector<std::string> onBootVolume{"/Library/Application Support/Velmora/rks.cfg"};
  NSString* const noRoot = nil;
  EXPECT_EQ(OpenedBy(@"/"), onBootVolume);
  EXPECT_EQ(OpenedBy(noRoot), onBootVolume);
  EXPECT_EQ(
      OpenedBy(@"/Volumes/Target"),
      std::vector<std::string>{"/Volumes/Target/Library/Application Support/Velmora/rks.cfg"});
}

}  // namespace
