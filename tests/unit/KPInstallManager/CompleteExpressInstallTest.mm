#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CompleteExpressInstall.h"

#import <Foundation/Foundation.h>
#include <gmock/gmock.h>

#include <set>

#include "KPVendorConfig.h"
#include "shared/platform/posix/Removal.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

std::vector<std::string> s_events;
/// The files of the disk, by their whole paths.
std::set<std::string> s_files;
std::set<std::string> s_filesThatStay;
NSDictionary* s_environment;
bool s_launchRaises;

}  // namespace

// The test replaces the functions that remove: the flag's path is a real one of the machine.
RemovalResult RemoveFileOrEmptyFolder(const char* root, const char* path) {
  s_events.push_back("remove in " + std::string(root) + ": " + path);
  std::string whole = root;
  if (whole.back() == '/') {
    whole.pop_back();
  }
  whole += path[0] == '/' ? path : "/" + std::string(path);
  if (s_filesThatStay.count(whole) != 0) {
    return {1, EACCES};
  }
  s_files.erase(whole);
  return {0, 0};
}

RemovalResult RemoveTree(const char* /*root*/, const char* path) {
  ADD_FAILURE() << path << " is not removed with what is in it";
  return {0, 0};
}

/// A task that fails the test when it is sent a message of NSTask, such as to wait for it.
@interface UntouchableTask : NSProxy
@end

@implementation UntouchableTask

- (NSMethodSignature*)methodSignatureForSelector:(SEL)selector {
  return [NSTask instanceMethodSignatureForSelector:selector];
}

- (void)forwardInvocation:(NSInvocation*)invocation {
  ADD_FAILURE() << "The task was sent " << sel_getName([invocation selector]);
}

@end

namespace {

using testing::ElementsAre;

constexpr char kFlag[] = "/tmp/KPExpressInstall.flag";
constexpr char kUpdater[] =
    "/Library/Preferences/Velmora/Korvel Player/" KP_VENDOR_WEB_HOST "/bin/kpupdatepl/kpupdatepl";
constexpr char kRemoveFlag[] = "remove in /tmp: KPExpressInstall.flag";
constexpr char kLaunch[] = "launch /usr/bin/open http://" KP_VENDOR_WEB_HOST
                           "/software/korvel/about/installerRedirect.html";

UntouchableTask* s_task;

BOOL FileExists(id /*self*/, SEL /*selector*/, NSString* path) {
  return s_files.count(Text(path)) != 0;
}

NSTask* Launch(id /*self*/, SEL /*selector*/, NSString* path, NSArray* arguments) {
  s_events.push_back("launch " + Text(path) + " " +
                     Text([arguments componentsJoinedByString:@"|"]));
  if (s_launchRaises) {
    [NSException raise:NSInvalidArgumentException format:@"launch path not accessible"];
  }
  return (NSTask*)s_task;
}

NSDictionary* Environment(id /*self*/, SEL /*selector*/) { return s_environment; }

class CompleteExpressInstallTest : public testing::Test {
 protected:
  CompleteExpressInstallTest()
      : exists_(object_getClass([NSFileManager defaultManager]), @selector(fileExistsAtPath:),
                (IMP)FileExists),
        launch_([NSTask class], @selector(launchedTaskWithLaunchPath:arguments:), (IMP)Launch,
                ScopedMethodReplacement::kClassMethod),
        environment_(object_getClass([NSProcessInfo processInfo]), @selector(environment),
                     (IMP)Environment) {
    s_events.clear();
    s_files = {kFlag, std::string("/Users/alice") + kUpdater};
    s_filesThatStay.clear();
    s_task = [UntouchableTask alloc];
    s_launchRaises = false;
    SetHome(@"/Users/alice");
  }
  ~CompleteExpressInstallTest() override {
    [s_task release];
    [pool_ release];
  }

  void SetHome(NSString* home) {
    s_environment = [NSDictionary dictionaryWithObject:home forKey:@"HOME"];
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];

 private:
  ScopedMethodReplacement exists_;
  ScopedMethodReplacement launch_;
  ScopedMethodReplacement environment_;
};

TEST_F(CompleteExpressInstallTest, RemovesTheUpdaterOpensThePageRemovesTheFlag) {
  CompleteExpressInstall();
  EXPECT_THAT(s_events, ElementsAre("remove in /Users/alice: " + std::string(kUpdater), kLaunch,
                                    kRemoveFlag));
  EXPECT_THAT(s_files, ElementsAre());
}

TEST_F(CompleteExpressInstallTest, WithoutTheFlagDoesNothing) {
  s_files.erase(kFlag);
  CompleteExpressInstall();
  EXPECT_THAT(s_events, ElementsAre());
}

TEST_F(CompleteExpressInstallTest, WithoutAnUpdater) {
  s_files = {kFlag};
  CompleteExpressInstall();
  EXPECT_THAT(s_events, ElementsAre(kLaunch, kRemoveFlag));
}

TEST_F(CompleteExpressInstallTest, UpdaterThatCannotBeRemoved) {
  s_filesThatStay.insert(std::string("/Users/alice") + kUpdater);
  CompleteExpressInstall();
  EXPECT_EQ(3u, s_events.size());
  EXPECT_THAT(s_files, ElementsAre(std::string("/Users/alice") + kUpdater));
}

TEST_F(CompleteExpressInstallTest, WithoutALauncherStillRemovesTheFlag) {
  s_launchRaises = true;
  CompleteExpressInstall();
  EXPECT_EQ(kRemoveFlag, s_events.back());
}

TEST_F(CompleteExpressInstallTest, WithoutAHome) {
  s_environment = [NSDictionary dictionary];
  CompleteExpressInstall();
  EXPECT_THAT(s_events, ElementsAre(kLaunch, kRemoveFlag));
}

TEST_F(CompleteExpressInstallTest, HomesOfOtherShapes) {
  for (const std::string home : {"", "/var/root/"}) {
    s_events.clear();
    SetHome(String(home));
    const std::string updater = (home.empty() ? "" : "/var/root") + std::string(kUpdater);
    s_files = {kFlag, updater};
    CompleteExpressInstall();
    EXPECT_THAT(s_files, ElementsAre()) << home;
  }
}

}  // namespace
