#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

constexpr char kSystemPlugin[] = "/Library/Internet Plug-Ins/Korvel Player Enabler.plugin";
const std::vector<std::string> kNames = {
    "Korvel Player.plugin",
    "Korvel Player Enabler.plugin",
    "Quorrel Korvel NP-PPC",
    "korvelplayer.xpt",
};

/// What the stage asked of the file manager. The system-wide path is the machine's own, so it
/// is answered here and never touched.
struct Requests {
  std::vector<std::string> asked;
  std::vector<std::string> removed;
  bool hasSystemPlugin = false;
  bool canRemove = true;
};
Requests sRequests;
NSString* sHome;
IMP sFileExists;
IMP sRemoveItem;

NSDictionary* Environment(id, SEL) {
  return sHome != nil ? [NSDictionary dictionaryWithObject:sHome forKey:@"HOME"]
                      : [NSDictionary dictionary];
}

BOOL FileExists(id self, SEL command, NSString* path) {
  sRequests.asked.push_back(Text(path));
  if (Text(path) == kSystemPlugin) return sRequests.hasSystemPlugin;
  return reinterpret_cast<BOOL (*)(id, SEL, NSString*)>(sFileExists)(self, command, path);
}

BOOL RemoveItem(id self, SEL command, NSString* path, NSError** error) {
  sRequests.removed.push_back(Text(path));
  if (!sRequests.canRemove) return NO;
  if (Text(path) == kSystemPlugin) return YES;
  return reinterpret_cast<BOOL (*)(id, SEL, NSString*, NSError**)>(sRemoveItem)(self, command, path,
                                                                                error);
}

class RemoveObsoletePluginFilesTest : public testing::Test {
 protected:
  RemoveObsoletePluginFilesTest()
      : mEnvironment([NSProcessInfo class], @selector(environment),
                     reinterpret_cast<IMP>(Environment)),
        mFileExists([NSFileManager class], @selector(fileExistsAtPath:),
                    reinterpret_cast<IMP>(FileExists)),
        mRemoveItem([NSFileManager class], @selector(removeItemAtPath:error:),
                    reinterpret_cast<IMP>(RemoveItem)) {
    sRequests = Requests();
    sFileExists = mFileExists.original();
    sRemoveItem = mRemoveItem.original();
    sHome = String(mHome.Path().string());
    std::filesystem::create_directories(mFolder);
  }

  std::filesystem::path InFolder(std::string const& name) const { return mFolder / name; }

  std::vector<std::string> AllPaths() const {
    std::vector<std::string> paths;
    for (std::string const& name : kNames) paths.push_back(InFolder(name).string());
    paths.push_back(kSystemPlugin);
    return paths;
  }

  void WriteAll() const {
    for (std::string const& name : kNames) WriteWholeFile(InFolder(name).string(), "old");
  }

  TemporaryFolder mHome;
  std::filesystem::path mFolder = mHome.Path() / "Library/Internet Plug-Ins";
  ScopedMethodReplacement mEnvironment;
  ScopedMethodReplacement mFileExists;
  ScopedMethodReplacement mRemoveItem;
};

TEST_F(RemoveObsoletePluginFilesTest, NothingThereIsNoFailure) {
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_EQ(sRequests.asked, AllPaths());
  EXPECT_EQ(sRequests.removed, std::vector<std::string>{});
}

TEST_F(RemoveObsoletePluginFilesTest, RemovesFilesInOrderTheSystemsLast) {
  WriteAll();
  WriteWholeFile(InFolder("Another.plugin").string(), "kept");
  sRequests.hasSystemPlugin = true;
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_EQ(sRequests.removed, AllPaths());
  for (std::string const& name : kNames) EXPECT_FALSE(std::filesystem::exists(InFolder(name)));
  EXPECT_EQ(ReadWholeFile(InFolder("Another.plugin").string()), "kept");
}

TEST_F(RemoveObsoletePluginFilesTest, RemovesBundlesWithEverythingInThem) {
  for (std::string const& name : kNames) {
    std::filesystem::create_directories(InFolder(name) / "Contents/MacOS");
    WriteWholeFile((InFolder(name) / "Contents/MacOS/plugin").string(), "old");
  }
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_TRUE(std::filesystem::is_empty(mFolder));
}

TEST_F(RemoveObsoletePluginFilesTest, RemovesALinkAndNotWhatItLeadsTo) {
  const std::filesystem::path target = mHome.Path() / "target";
  std::filesystem::create_directories(target);
  WriteWholeFile((target / "file").string(), "kept");
  std::filesystem::create_symlink(target, InFolder(kNames[0]));
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_FALSE(std::filesystem::is_symlink(InFolder(kNames[0])));
  EXPECT_EQ(ReadWholeFile((target / "file").string()), "kept");
}

TEST_F(RemoveObsoletePluginFilesTest, DanglingLinkStays) {
  // Existence is asked of what a link leads to.
  for (std::string const& name : kNames) {
    std::filesystem::create_symlink(mHome.Path() / "missing", InFolder(name));
  }
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_EQ(sRequests.removed, std::vector<std::string>{});
  for (std::string const& name : kNames) {
    EXPECT_TRUE(std::filesystem::is_symlink(InFolder(name)));
  }
}

TEST_F(RemoveObsoletePluginFilesTest, SystemPluginAlone) {
  sRequests.hasSystemPlugin = true;
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_EQ(sRequests.removed, std::vector<std::string>{kSystemPlugin});
}

TEST_F(RemoveObsoletePluginFilesTest, FailedRemovalsStopNothing) {
  WriteAll();
  sRequests.hasSystemPlugin = true;
  sRequests.canRemove = false;
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_EQ(sRequests.removed, AllPaths());
}

TEST_F(RemoveObsoletePluginFilesTest, WithoutAHomeTheSystemsFolderIsCleaned) {
  WriteAll();
  sHome = nil;
  sRequests.hasSystemPlugin = true;
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_EQ(sRequests.removed, std::vector<std::string>{kSystemPlugin});
  for (std::string const& name : kNames) EXPECT_TRUE(std::filesystem::exists(InFolder(name)));
}

TEST_F(RemoveObsoletePluginFilesTest, HomeMayEndInASlashOrBeMissing) {
  sHome = String(mHome.Path().string() + "/");
  WriteAll();
  EXPECT_TRUE(RemoveObsoletePluginFiles());
  EXPECT_TRUE(std::filesystem::is_empty(mFolder));
  sHome = String(mHome / "nobody");
  EXPECT_TRUE(RemoveObsoletePluginFiles());
}

}  // namespace
