#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMInstallChecks.h"

#include <gmock/gmock.h>

#include <map>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

constexpr char kPepper[] =
    "/Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin/Contents/Info.plist";
constexpr char kOther[] = "/Library/Internet Plug-Ins/Korvel Player.plugin/Contents/Info.plist";

bool s_loggedIn;
unsigned int s_systemVersion;
NSDictionary* s_ownInfo;
/// Property lists by path; nil for a file that is not a property list.
std::map<std::string, NSDictionary*> s_files;

}  // namespace

@implementation KP_DECOMP_KPIMCommonUtil

+ (bool)isUserLoggedIn {
  return s_loggedIn;
}

+ (unsigned int)getSystemOSVersion {
  return s_systemVersion;
}

+ (NSString*)KorvelPlayerVersionBeingInstalled {
  return nil;
}

@end

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kChannelMessage[] =
    "[1] Failed install check. You must run the Korvel Player uninstaller before installing this "
    "version of Korvel Player. Please visit the Tarvix Labs web page to download the "
    "uninstaller. " KP_UNINSTALLER_URL;
constexpr char kDowngradeMessage[] =
    "[1] Failed install check. Version downgrade was attempted and explicitly prevented. System "
    "Korvel Player version is 33.0; Trying to install Korvel Player version 32.0.0.269";

BOOL FileExists(id /*self*/, SEL /*selector*/, NSString* path) {
  return s_files.count(Text(path)) != 0;
}

NSDictionary* DictionaryContents(id /*self*/, SEL /*selector*/, NSString* path) {
  const auto found = s_files.find(Text(path));
  EXPECT_NE(s_files.end(), found) << Text(path);
  return found != s_files.end() ? found->second : nil;
}

NSDictionary* InfoDictionary(id /*self*/, SEL /*selector*/) { return s_ownInfo; }

NSDictionary* Info(NSString* version, NSString* getInfo) {
  NSMutableDictionary* info = [NSMutableDictionary dictionary];
  [info setObject:@"never read" forKey:@"CFBundleVersion"];
  if (version != nil) {
    [info setObject:version forKey:@"CFBundleShortVersionString"];
  }
  if (getInfo != nil) {
    [info setObject:getInfo forKey:@"CFBundleGetInfoString"];
  }
  return info;
}

class KPIMInstallChecksTest : public testing::Test {
 protected:
  KPIMInstallChecksTest()
      : exists_(object_getClass([NSFileManager defaultManager]), @selector(fileExistsAtPath:),
                (IMP)FileExists),
        dictionary_([NSDictionary class], @selector(dictionaryWithContentsOfFile:),
                    (IMP)DictionaryContents, ScopedMethodReplacement::kClassMethod),
        info_(object_getClass([NSBundle mainBundle]), @selector(infoDictionary),
              (IMP)InfoDictionary) {
    s_loggedIn = false;
    s_systemVersion = 0x0A0905;
    s_files.clear();
    s_ownInfo =
        [NSDictionary dictionaryWithObjectsAndKeys:@"32.0.0.269", @"CFBundleVersion", @"never read",
                                                   @"CFBundleShortVersionString", nil];
    [KPIMVersionManager _logger];
    g_events.clear();
  }
  ~KPIMInstallChecksTest() override { [pool_ release]; }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];

 private:
  ScopedMethodReplacement exists_;
  ScopedMethodReplacement dictionary_;
  ScopedMethodReplacement info_;
};

// ---- Versions

TEST_F(KPIMInstallChecksTest, VersionToBeInstalledIsTheBundleVersion) {
  EXPECT_EQ("32.0.0.269", Text([KPIMVersionManager versionOfKorvelPlayerToBeInstalled]));
  s_ownInfo = [NSDictionary dictionary];
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerToBeInstalled]);
  s_ownInfo = nil;
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerToBeInstalled]);
  s_ownInfo = [NSDictionary dictionaryWithObject:[NSNumber numberWithInt:32]
                                          forKey:@"CFBundleVersion"];
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerToBeInstalled]);
}

TEST_F(KPIMInstallChecksTest, VersionOnSystemIsTheShortVersionOfTheKind) {
  s_files[kPepper] = Info(@"31.0", nil);
  s_files[kOther] = Info(@"30.0", nil);
  EXPECT_EQ("31.0", Text([KPIMVersionManager versionOfPlayerOnSystemFor:1]));
  for (int kind : {0, 2, -1, 257}) {
    EXPECT_EQ("30.0", Text([KPIMVersionManager versionOfPlayerOnSystemFor:kind])) << kind;
  }
  EXPECT_EQ("31.0", Text([KPIMVersionManager versionOfKorvelPlayerOnSystem]));
}

TEST_F(KPIMInstallChecksTest, VersionOnSystemIsAbsent) {
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerOnSystem]) << "no player";
  s_files[kPepper] = nil;
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerOnSystem]) << "no property list";
  s_files[kPepper] = Info(nil, nil);
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerOnSystem]) << "no version";
  s_files[kPepper] = Info((NSString*)[NSArray array], nil);
  EXPECT_EQ(nil, [KPIMVersionManager versionOfKorvelPlayerOnSystem]) << "not a text";
}

// ---- Minimum system

TEST_F(KPIMInstallChecksTest, SystemsThatAreNewEnough) {
  for (unsigned int version : {0x0A0600u, 0x0A0608u, 0x0A0905u, 0x0B0000u, 0xFFFFFFFFu}) {
    s_systemVersion = version;
    EXPECT_EQ(0u, [KPIMVersionManager checkMinimumSystemRequirements]) << std::hex << version;
  }
  EXPECT_THAT(g_events, IsEmpty());
}

TEST_F(KPIMInstallChecksTest, SystemsThatAreTooOld) {
  for (unsigned int version : {0x0A05FFu, 0x0A0508u, 0u}) {
    s_systemVersion = version;
    EXPECT_EQ(1u, [KPIMVersionManager checkMinimumSystemRequirements]) << std::hex << version;
  }
  EXPECT_THAT(g_events, ElementsAre("[1] Failed install check: System OS version is A05FF",
                                    "[1] Failed install check: System OS version is A0508",
                                    "[1] Failed install check: System OS version is 0"));
}

// ---- Downgrade

TEST_F(KPIMInstallChecksTest, NothingInstalledIsNoDowngrade) {
  s_files[kOther] = Info(@"99.0", nil);
  EXPECT_EQ(0u, [KPIMVersionManager checkDowngradeAttempt]);
  EXPECT_THAT(g_events, IsEmpty());
}

TEST_F(KPIMInstallChecksTest, SameAndOlderVersionsMayBeReplaced) {
  for (NSString *version in
       [NSArray arrayWithObjects:@"32.0.0.269", @"32,0,0,269", @"32.0.0.268", @"32.0", @"", nil]) {
    s_files[kPepper] = Info(version, nil);
    EXPECT_EQ(0u, [KPIMVersionManager checkDowngradeAttempt]) << Text(version);
  }
  EXPECT_THAT(g_events, IsEmpty());
}

TEST_F(KPIMInstallChecksTest, NewerVersionsMayNotBeReplaced) {
  for (NSString *version in
       [NSArray arrayWithObjects:@"33.0", @"32.0.0.270", @"32.0.0.269.1", nil]) {
    s_files[kPepper] = Info(version, nil);
    EXPECT_EQ(2u, [KPIMVersionManager checkDowngradeAttempt]) << Text(version);
  }
  ASSERT_EQ(3u, g_events.size());
  EXPECT_EQ(kDowngradeMessage, g_events[0]);
}

TEST_F(KPIMInstallChecksTest, UnknownVersionToBeInstalledIsOlder) {
  s_ownInfo = nil;
  s_files[kPepper] = Info(@"1", nil);
  EXPECT_EQ(2u, [KPIMVersionManager checkDowngradeAttempt]);
  EXPECT_THAT(g_events, ElementsAre("[1] Failed install check. Version downgrade was attempted and "
                                    "explicitly prevented. System Korvel Player version is 1; "
                                    "Trying to install Korvel Player version (null)"));
}

// ---- Channel switch

TEST_F(KPIMInstallChecksTest, ChannelOfTheMarkMayBeReplaced) {
  for (NSString *info in
       [NSArray arrayWithObjects:@"Korvel Player 32.0 d0", @"d0", @"32.0d0b1", @"add0", nil]) {
    s_files[kPepper] = Info(@"32.0", info);
    EXPECT_EQ(0u, [KPIMVersionManager checkChannelSwitch]) << Text(info);
  }
  EXPECT_THAT(g_events, IsEmpty());
}

TEST_F(KPIMInstallChecksTest, OtherChannelMustBeUninstalled) {
  for (NSString *info in [NSArray arrayWithObjects:@"Korvel Player 32.0 r0", @"", @"D0", nil]) {
    s_files[kPepper] = Info(@"32.0", info);
    EXPECT_EQ(4u, [KPIMVersionManager checkChannelSwitch]) << Text(info);
  }
  EXPECT_THAT(g_events, ElementsAre(kChannelMessage, kChannelMessage, kChannelMessage));
}

TEST_F(KPIMInstallChecksTest, AbsentTextIsOfTheRightChannel) {
  EXPECT_EQ(0u, [KPIMVersionManager checkChannelSwitch]) << "no player";
  s_files[kPepper] = Info(@"32.0", nil);
  EXPECT_EQ(0u, [KPIMVersionManager checkChannelSwitch]) << "no text";
  s_files[kPepper] = nil;
  EXPECT_EQ(0u, [KPIMVersionManager checkChannelSwitch]) << "no property list";
  s_files[kPepper] = Info(@"32.0", (NSString*)[NSNumber numberWithInt:1]);
  EXPECT_EQ(0u, [KPIMVersionManager checkChannelSwitch]) << "not a text";
  s_files[kOther] = Info(@"32.0", @"r0");
  s_files.erase(kPepper);
  EXPECT_EQ(0u, [KPIMVersionManager checkChannelSwitch]) << "the other player does not count";
  EXPECT_THAT(g_events, IsEmpty());
}

// ---- All together

TEST_F(KPIMInstallChecksTest, AllPass) {
  EXPECT_EQ(0u, [KPIMVersionManager performInstallChecks]);
  EXPECT_THAT(g_events, ElementsAre("[3] All install checks pass"));
}

TEST_F(KPIMInstallChecksTest, AllFail) {
  s_systemVersion = 0x0A0508;
  s_files[kPepper] = Info(@"33.0", @"r0");
  EXPECT_EQ(7u, [KPIMVersionManager performInstallChecks]);
  EXPECT_THAT(g_events, ElementsAre("[1] Failed install check: System OS version is A0508",
                                    kDowngradeMessage, kChannelMessage));
}

TEST_F(KPIMInstallChecksTest, EachFailsAlone) {
  s_systemVersion = 0x0A0508;
  EXPECT_EQ(1u, [KPIMVersionManager performInstallChecks]);
  s_systemVersion = 0x0A0600;
  s_files[kPepper] = Info(@"33.0", @"d0");
  EXPECT_EQ(2u, [KPIMVersionManager performInstallChecks]);
  s_files[kPepper] = Info(@"32.0", @"r0");
  EXPECT_EQ(4u, [KPIMVersionManager performInstallChecks]);
  EXPECT_EQ(3u, g_events.size()) << "nothing says that all pass";
}

TEST_F(KPIMInstallChecksTest, TwoFail) {
  s_files[kPepper] = Info(@"33.0", @"r0");
  EXPECT_EQ(6u, [KPIMVersionManager performInstallChecks]);
  EXPECT_THAT(g_events, ElementsAre(kDowngradeMessage, kChannelMessage));
}

// ---- Comparison

NSInteger Compare(NSString* tuple1, NSString* tuple2) {
  const NSInteger result = [KPIMVersionManager compareTuple1:tuple1 withTuple2:tuple2];
  EXPECT_EQ(-result, [KPIMVersionManager compareTuple1:tuple2 withTuple2:tuple1]);
  return result;
}

TEST_F(KPIMInstallChecksTest, ComparesNumbers) {
  EXPECT_EQ(0, Compare(@"32.0.0.269", @"32.0.0.269"));
  EXPECT_EQ(1, Compare(@"32.0.0.269", @"32.0.0.268"));
  EXPECT_EQ(1, Compare(@"32.0.0.10", @"32.0.0.9")) << "as numbers, not as text";
  EXPECT_EQ(1, Compare(@"33", @"32.9.9.9"));
  EXPECT_EQ(0, Compare(@"032.00", @"32.0"));
}

TEST_F(KPIMInstallChecksTest, CommasAreDots) {
  EXPECT_EQ(0, Compare(@"32,0,0,269", @"32.0.0.269"));
  EXPECT_EQ(1, Compare(@"32,0.0,270", @"32.0.0.269"));
}

TEST_F(KPIMInstallChecksTest, MissingComponentsAreZero) {
  EXPECT_EQ(0, Compare(@"32.0", @"32.0.0.0"));
  EXPECT_EQ(1, Compare(@"32.0.0.1", @"32.0"));
  EXPECT_EQ(-1, Compare(@"32.0.-1", @"32.0"));
  EXPECT_EQ(0, Compare(@"", @"0"));
  EXPECT_EQ(0, Compare(@"", @"..."));
  EXPECT_EQ(0, Compare(@"1..2", @"1.0.2"));
}

TEST_F(KPIMInstallChecksTest, AbsentTuplesHaveNoComponents) {
  EXPECT_EQ(0, Compare(nil, nil));
  EXPECT_EQ(0, Compare(nil, @""));
  EXPECT_EQ(-1, Compare(nil, @"0.1"));
}

TEST_F(KPIMInstallChecksTest, LeadingDigitsCount) {
  EXPECT_EQ(0, Compare(@"10b2", @"10"));
  EXPECT_EQ(1, Compare(@"10b2", @"9z"));
  EXPECT_EQ(0, Compare(@"b10", @"0"));
  EXPECT_EQ(0, Compare(@"0x10", @"0"));
  EXPECT_EQ(0, Compare(@"+7", @"7"));
  EXPECT_EQ(-1, Compare(@"-7", @"0"));
  EXPECT_EQ(0, Compare(@" 7 ", @"7"));
  EXPECT_EQ(0, Compare(@"-", @"0"));
}

TEST_F(KPIMInstallChecksTest, HugeNumbersStopAtTheLimits) {
  EXPECT_EQ(0, Compare(@"2147483647", @"2147483648"));
  EXPECT_EQ(0, Compare(@"2147483647", @"4294967297"));
  EXPECT_EQ(0, Compare(@"2147483647", @"99999999999999999999999999999999999999999999"));
  EXPECT_EQ(1, Compare(@"2147483647", @"2147483646"));
  EXPECT_EQ(0, Compare(@"-2147483648", @"-2147483649"));
  EXPECT_EQ(0, Compare(@"-2147483648", @"-99999999999999999999999999999999999999999999"));
  EXPECT_EQ(-1, Compare(@"-99999999999999999999", @"99999999999999999999"));
  EXPECT_EQ(0, Compare(@"00000000000000000000000000000000000000000000000000012", @"12"));
}

}  // namespace
