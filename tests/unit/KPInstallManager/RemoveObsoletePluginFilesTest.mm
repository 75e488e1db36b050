#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "shared/platform/posix/Removal.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

using Paths = std::vector<std::string>;

const Paths kNames = {"Korvel Player.plugin", "Korvel Player Enabler.plugin",
                      "Quorrel Korvel NP-PPC", "korvelplayer.xpt"};
constexpr char kSystemPlugin[] = "/Library/Internet Plug-Ins/Korvel Player Enabler.plugin";

/// The paths that the stage looked for and removed on a disk where those in `s_existing` exist.
Paths s_asked;
Paths s_removed;
std::set<std::string> s_existing;
bool s_canRemove;
NSString* s_home;

}  // namespace

// The test replaces the functions that remove: one of the paths is a real one of the machine.
RemovalResult RemoveTree(const char* root, const char* path) {
  s_removed.push_back("in " + std::string(root) + ": " + path);
  return s_canRemove ? RemovalResult{0, 0} : RemovalResult{1, EACCES};
}

RemovalResult RemoveFileOrEmptyFolder(const char* /*root*/, const char* path) {
  ADD_FAILURE() << path << " may be a bundle";
  return {0, 0};
}

namespace {

NSDictionary* Environment(id /*self*/, SEL /*selector*/) {
  return s_home != nil ? [NSDictionary dictionaryWithObject:s_home forKey:@"HOME"]
                       : [NSDictionary dictionary];
}

BOOL FileExists(id /*self*/, SEL /*selector*/, NSString* path) {
  s_asked.push_back(Text(path));
  return s_existing.count(Text(path)) != 0;
}

/// Runs the stage on a disk where these paths exist.
void RunStage(const Paths& existing, bool canRemove = true) {
  const ScopedMethodReplacement environment(object_getClass([NSProcessInfo processInfo]),
                                            @selector(environment), (IMP)Environment);
  const ScopedMethodReplacement exists(object_getClass([NSFileManager defaultManager]),
                                       @selector(fileExistsAtPath:), (IMP)FileExists);
  s_existing = {existing.begin(), existing.end()};
  s_canRemove = canRemove;
  s_asked.clear();
  s_removed.clear();
  EXPECT_TRUE(RemoveObsoletePluginFiles());
}

/// The paths of everything that is obsolete, with the home folder `home`.
Paths AllPaths(const std::string& home) {
  Paths paths;
  for (const std::string& name : kNames) {
    paths.push_back(home + "/Library/Internet Plug-Ins/" + name);
  }
  paths.push_back(kSystemPlugin);
  return paths;
}

Paths Removals(const std::string& home) {
  Paths removals;
  for (const std::string& name : kNames) {
    removals.push_back("in " + home + ": Library/Internet Plug-Ins/" + name);
  }
  removals.push_back("in /: Library/Internet Plug-Ins/Korvel Player Enabler.plugin");
  return removals;
}

TEST(RemoveObsoletePluginFiles, AsksForEachInOrderTheSystemsLast) {
  s_home = @"/Users/alice";
  RunStage({});
  EXPECT_EQ(AllPaths("/Users/alice"), s_asked);
  EXPECT_EQ(Paths{}, s_removed) << "a link that leads nowhere does not exist, and stays";
}

TEST(RemoveObsoletePluginFiles, RemovesEachFromItsTrustedRoot) {
  s_home = @"/Users/alice";
  RunStage(AllPaths("/Users/alice"));
  EXPECT_EQ(Removals("/Users/alice"), s_removed);
}

TEST(RemoveObsoletePluginFiles, SystemPluginAlone) {
  s_home = @"/Users/alice";
  RunStage({kSystemPlugin});
  EXPECT_EQ(Paths{Removals("").back()}, s_removed);
}

TEST(RemoveObsoletePluginFiles, FailedRemovalsStopNothing) {
  s_home = @"/Users/alice";
  RunStage(AllPaths("/Users/alice"), false);
  EXPECT_EQ(Removals("/Users/alice"), s_removed);
}

TEST(RemoveObsoletePluginFiles, WithoutAHomeTheSystemsFolderIsCleaned) {
  s_home = nil;
  RunStage({kSystemPlugin});
  EXPECT_EQ(Paths{Removals("").back()}, s_removed);
}

TEST(RemoveObsoletePluginFiles, HomesOfOtherShapes) {
  s_home = @"/var/root/";
  RunStage(AllPaths("/var/root"));
  EXPECT_EQ(Removals("/var/root/"), s_removed);
  s_home = @"";
  RunStage({"Library/Internet Plug-Ins/" + kNames[0]});
  EXPECT_EQ(Paths{"in .: Library/Internet Plug-Ins/" + kNames[0]}, s_removed)
      << "the current folder is the home";
}

}  // namespace
