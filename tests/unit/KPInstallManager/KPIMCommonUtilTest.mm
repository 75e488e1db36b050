#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"

#import <SystemConfiguration/SystemConfiguration.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "shared/platform/mac/MacSystemVersion.h"
#include "tests/unit/support/EndChild.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

// ---- What the tested class asks

static NSMutableString* s_consoleUser;
static int s_consoleQueries;
static unsigned int s_version[3];
static int s_versionQueries;
static bool s_versionIsTold = true;

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid) {
  EXPECT_EQ(nullptr, store);
  EXPECT_EQ(nullptr, uid);
  EXPECT_EQ(nullptr, gid);
  ++s_consoleQueries;
  return (CFStringRef)[s_consoleUser retain];
}

void ObtainMacSystemVersion(unsigned int* major, unsigned int* minor, unsigned int* bugfix) {
  ++s_versionQueries;
  if (!s_versionIsTold) {
    return;
  }
  *major = s_version[0];
  *minor = s_version[1];
  *bugfix = s_version[2];
}

namespace {

bool LoggedIn(NSString* consoleUser) {
  s_consoleUser = [consoleUser mutableCopy];
  const bool result = [KPIMCommonUtil isUserLoggedIn];
  if (s_consoleUser != nil) {
    EXPECT_EQ(1u, [s_consoleUser retainCount]) << "the name is released once";
  }
  [s_consoleUser release];
  s_consoleUser = nil;
  return result;
}

TEST(KPIMCommonUtil, IsRegisteredUnderItsLongName) {
  EXPECT_EQ("KP_DECOMP_KPIMCommonUtil", Text(NSStringFromClass([KPIMCommonUtil class])));
}

TEST(KPIMCommonUtil, UserIsLoggedIn) {
  EXPECT_TRUE(LoggedIn(@"alice"));
  EXPECT_TRUE(LoggedIn(@"root"));
  EXPECT_TRUE(LoggedIn(@"501"));
  EXPECT_TRUE(LoggedIn(@"LoginWindow"));
  EXPECT_TRUE(LoggedIn(@"loginwindow2"));
  EXPECT_TRUE(LoggedIn(@""));
}

TEST(KPIMCommonUtil, NobodyIsLoggedIn) {
  EXPECT_FALSE(LoggedIn(nil));
  EXPECT_FALSE(LoggedIn(@"loginwindow"));
}

TEST(KPIMCommonUtil, ConsoleIsAskedAnewEachTime) {
  s_consoleQueries = 0;
  EXPECT_TRUE(LoggedIn(@"alice"));
  EXPECT_FALSE(LoggedIn(nil));
  EXPECT_TRUE(LoggedIn(@"alice"));
  EXPECT_EQ(3, s_consoleQueries);
}

/// The packed version in a new process on a system with this version. Checks that the system is
/// asked once.
unsigned int PackedVersion(unsigned int major, unsigned int minor, unsigned int bugfix) {
  int results[2];
  EXPECT_EQ(0, pipe(results));
  const pid_t child = fork();
  if (child == 0) {
    s_version[0] = major;
    s_version[1] = minor;
    s_version[2] = bugfix;
    const unsigned int first = [KPIMCommonUtil getSystemOSVersion];
    s_version[0] = 99;
    const unsigned int again = [KPIMCommonUtil getSystemOSVersion];
    const bool cached = again == first && s_versionQueries == 1;
    EndChild(write(results[1], &first, sizeof(first)) == sizeof(first) && cached ? 0 : 1);
  }
  close(results[1]);
  unsigned int packed = 0;
  EXPECT_EQ(static_cast<ssize_t>(sizeof(packed)), read(results[0], &packed, sizeof(packed)));
  close(results[0]);
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status) << "asked once per process";
  return packed;
}

TEST(KPIMCommonUtil, PackedVersionIsKeptForTheProcess) {
  EXPECT_EQ(0x0A0608u, PackedVersion(10, 6, 8));
  EXPECT_EQ(0x0A0600u, PackedVersion(10, 6, 0));
  EXPECT_EQ(0x0A0705u, PackedVersion(10, 7, 5));
  EXPECT_EQ(0x0A0F07u, PackedVersion(10, 15, 7));
  EXPECT_EQ(0x0B0203u, PackedVersion(11, 2, 3));
  EXPECT_EQ(0u, PackedVersion(0, 0, 0)) << "zero is a version too, not an empty cache";
}

TEST(KPIMCommonUtil, PackedVersionStartsFromTenZeroZero) {
  s_versionIsTold = false;
  EXPECT_EQ(0x0A0000u, PackedVersion(11, 2, 3));
  s_versionIsTold = true;
}

TEST(KPIMCommonUtil, PackedVersionMasksNothing) {
  EXPECT_EQ(0x0A0000u | 0x10000u | 0x100u | 0x1FFu, PackedVersion(10, 0x101, 0x1FF));
  EXPECT_EQ(0xFFFF0000u, PackedVersion(0xFFFFFFFFu, 0, 0));
}

NSDictionary* s_infoDictionary;

NSDictionary* InfoDictionary(id /*self*/, SEL /*selector*/) { return s_infoDictionary; }

std::string VersionBeingInstalled(id bundleVersion) {
  ScopedMethodReplacement info(object_getClass([NSBundle mainBundle]), @selector(infoDictionary),
                               (IMP)InfoDictionary);
  s_infoDictionary = bundleVersion != nil ? [NSDictionary dictionaryWithObject:bundleVersion
                                                                        forKey:@"CFBundleVersion"]
                                          : [NSDictionary dictionary];
  return Text([KPIMCommonUtil KorvelPlayerVersionBeingInstalled]);
}

TEST(KPIMCommonUtil, VersionBeingInstalled) {
  EXPECT_EQ("32.0", VersionBeingInstalled(@"32.0.0.269"));
  EXPECT_EQ("32.0", VersionBeingInstalled(@"32.0.0"));
  EXPECT_EQ("32.1", VersionBeingInstalled(@"32.1"));
  EXPECT_EQ("32", VersionBeingInstalled(@"32"));
  EXPECT_EQ("", VersionBeingInstalled(@""));
  EXPECT_EQ(".", VersionBeingInstalled(@"."));
  EXPECT_EQ("32.", VersionBeingInstalled(@"32."));
  EXPECT_EQ("a b.c", VersionBeingInstalled(@"a b.c.d"));
}

TEST(KPIMCommonUtil, VersionBeingInstalledIsUnknown) {
  EXPECT_EQ("XX.y", VersionBeingInstalled(nil));
  EXPECT_EQ("XX.y", VersionBeingInstalled([NSNumber numberWithInt:32]));
}

NSDictionary* NoInfoDictionary(id /*self*/, SEL /*selector*/) { return nil; }

TEST(KPIMCommonUtil, VersionBeingInstalledWithoutInfoDictionary) {
  ScopedMethodReplacement info(object_getClass([NSBundle mainBundle]), @selector(infoDictionary),
                               (IMP)NoInfoDictionary);
  EXPECT_EQ("XX.y", Text([KPIMCommonUtil KorvelPlayerVersionBeingInstalled]));
}

TEST(KPIMCommonUtil, VersionBeingInstalledIsWorkedOutAnew) {
  EXPECT_EQ("1.2", VersionBeingInstalled(@"1.2.3"));
  EXPECT_EQ("4.5", VersionBeingInstalled(@"4.5.6"));
}

}  // namespace
