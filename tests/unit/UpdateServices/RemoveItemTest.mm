#import "player/Installers/Mac/KPInstallManager/source/utility/NSFileManager+RemoveItem.h"

#include <gtest/gtest.h>
#include <objc/runtime.h>
#include <unistd.h>

#include <cerrno>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

bool Remove(const std::string& path, NSError** error = nullptr) {
  return [[NSFileManager defaultManager] removeItemAtPathIfItExists:String(path) error:error];
}

TEST(RemoveItem, RemovesAFile) {
  TemporaryFolder folder;
  WriteWholeFile(folder / "file", "content");
  EXPECT_TRUE(Remove(folder / "file"));
  EXPECT_FALSE(fs::exists(folder / "file"));
}

TEST(RemoveItem, RemovesAFolderWithEverythingInIt) {
  TemporaryFolder folder;
  fs::create_directories(folder / "a/b");
  WriteWholeFile(folder / "a/b/file", "content");
  EXPECT_TRUE(Remove(folder / "a"));
  EXPECT_FALSE(fs::exists(folder / "a"));
}

TEST(RemoveItem, RemovesALinkAndNotWhatItPointsTo) {
  TemporaryFolder folder;
  WriteWholeFile(folder / "file", "content");
  fs::create_symlink(folder / "file", folder / "link");
  EXPECT_TRUE(Remove(folder / "link"));
  EXPECT_FALSE(fs::is_symlink(folder / "link"));
  EXPECT_EQ("content", ReadWholeFile(folder / "file"));
}

TEST(RemoveItem, RemovesALinkToAFolderAndNothingInTheFolder) {
  TemporaryFolder folder;
  fs::create_directory(folder / "a");
  WriteWholeFile(folder / "a/file", "content");
  fs::create_symlink(folder / "a", folder / "link");
  EXPECT_TRUE(Remove(folder / "link"));
  EXPECT_FALSE(fs::is_symlink(folder / "link"));
  EXPECT_EQ("content", ReadWholeFile(folder / "a/file"));
}

TEST(RemoveItem, RemovesADanglingLink) {
  TemporaryFolder folder;
  fs::create_symlink("nowhere", folder / "link");
  EXPECT_TRUE(Remove(folder / "link"));
  EXPECT_FALSE(fs::is_symlink(folder / "link"));
}

TEST(RemoveItem, SucceedsWhenNothingIsThere) {
  TemporaryFolder folder;
  NSError* error = nil;
  EXPECT_TRUE(Remove(folder / "file", &error));
  EXPECT_EQ(nil, error);
  EXPECT_TRUE([[NSFileManager defaultManager] removeItemAtPathIfItExists:nil error:&error]);
  EXPECT_EQ(nil, error);
}

TEST(RemoveItem, SucceedsBelowAFile) {
  TemporaryFolder folder;
  WriteWholeFile(folder / "file", "content");
  NSError* error = nil;
  EXPECT_TRUE(Remove(folder / "file/below", &error));
  EXPECT_EQ(nil, error);
  EXPECT_EQ("content", ReadWholeFile(folder / "file"));
}

TEST(RemoveItem, TellsWhatCannotBeLookedAt) {
  TemporaryFolder folder;
  fs::create_symlink("loop", folder / "loop");
  for (const std::string& path : {folder / "loop/file", folder / std::string(300, 'x').c_str()}) {
    NSError* error = nil;
    EXPECT_FALSE(Remove(path, &error)) << path;
    EXPECT_NE(nil, error) << path;
    EXPECT_FALSE(Remove(path)) << path;
  }
}

BOOL RefuseToRemove(id /*self*/, SEL /*selector*/, NSString* /*path*/, NSError** error) {
  if (error != nullptr) {
    *error = [NSError errorWithDomain:NSPOSIXErrorDomain code:EPERM userInfo:nil];
  }
  return NO;
}

TEST(RemoveItem, ReportsWhatCannotBeRemoved) {
  const TemporaryFolder folder;
  WriteWholeFile(folder / "file", "x");
  const ScopedMethodReplacement refusal(object_getClass([NSFileManager defaultManager]),
                                        @selector(removeItemAtPath:error:), (IMP)RefuseToRemove);
  NSError* error = nil;
  EXPECT_FALSE(Remove(folder / "file", &error));
  EXPECT_EQ(EPERM, [error code]);
  EXPECT_FALSE(Remove(folder / "file"));
}

}  // namespace
