#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback+Internal.h"

#import <SystemConfiguration/SystemConfiguration.h>
#include <errno.h>
#include <gmock/gmock.h>
#include <pwd.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "KPVendorConfig.h"
#include "shared/platform/mac/LanguageMapping.h"
#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Removal.h"
#include "tests/unit/UpdateServices/ConnectionRecorder.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

constexpr char kFlag[] = "/tmp/KPExpressInstall.flag";
constexpr char kVectorFile[] = "/Library/Application Support/Velmora/install_vector.txt";
constexpr char kSystemVersion[] = "/System/Library/CoreServices/SystemVersion.plist";

constexpr uid_t kAlice = 1001;

/// A kernel value: what sysctlbyname returns, and what it stores when it succeeds.
struct KernelValue {
  int result;
  int32_t value;
};

// The machine that the tested code sees, and what it did to it.
NSMutableString* s_consoleUser;
std::map<std::string, KernelValue> s_kernel;
std::map<std::string, NSString*> s_files;
NSDictionary* s_systemVersion;
const char* s_language;
bool s_languageRaises;
bool s_switchFails;
bool s_removalFails;
bool s_vectorIsRegular;
std::vector<std::string> s_events;
bool s_isArmed;

}  // namespace

// ---- What the tested class asks

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid) {
  EXPECT_EQ(nullptr, store);
  EXPECT_EQ(nullptr, uid);
  EXPECT_EQ(nullptr, gid);
  return (CFStringRef)[s_consoleUser retain];
}

extern "C" passwd* getpwnam(const char* name) {
  static passwd s_entry;
  if (!s_isArmed) {
    return nullptr;
  }
  s_events.push_back(std::string("look up ") + name);
  s_entry = {};
  s_entry.pw_uid = kAlice;
  return std::string(name) == "alice" ? &s_entry : nullptr;
}

extern "C" int seteuid(uid_t uid) {
  s_events.push_back("become " + std::to_string(static_cast<int>(uid)));
  return s_switchFails ? -1 : 0;
}

const char* ObtainMacOSLanguage() {
  s_events.push_back("language");
  if (s_languageRaises) {
    [NSException raise:NSInternalInconsistencyException format:@"no preferences"];
  }
  return s_language;
}

extern "C" int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp,
                            size_t newlen) {
  EXPECT_EQ(sizeof(int32_t), *oldlenp) << name;
  EXPECT_EQ(nullptr, newp);
  EXPECT_EQ(0u, newlen);
  s_events.push_back(name);
  const auto found = s_kernel.find(name);
  if (found == s_kernel.end() || found->second.result != 0) {
    errno = ENOENT;
    return -1;
  }
  memcpy(oldp, &found->second.value, sizeof(int32_t));
  return 0;
}

RemovalResult RemoveFileOrEmptyFolder(const char* root, const char* path) {
  const std::string whole = std::string(root) + "/" + path;
  s_events.push_back("remove " + whole);
  if (s_removalFails) {
    return {1, EACCES};
  }
  s_files.erase(whole);
  return {0, 0};
}

bool IsRegularFile(const char* path) {
  EXPECT_STREQ(kVectorFile, path);
  return s_vectorIsRegular;
}

int OpenRegularFile(const char* path, int /*flags*/, mode_t /*mode*/, FileNames /*names*/,
                    struct stat* /*status*/) {
  ADD_FAILURE() << path << " is not opened";
  return -1;
}

RemovalResult RemoveTree(const char* /*root*/, const char* path) {
  ADD_FAILURE() << path << " is not removed with what is in it";
  return {0, 0};
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

BOOL FileExists(id /*self*/, SEL /*selector*/, NSString* path) {
  return s_files.count(Text(path)) != 0;
}

NSString* FileContents(id /*self*/, SEL /*selector*/, NSString* path, NSStringEncoding encoding,
                       NSError** error) {
  EXPECT_EQ(NSUTF8StringEncoding, encoding);
  EXPECT_EQ(nullptr, error);
  return s_files.at(Text(path));
}

NSDictionary* DictionaryContents(id /*self*/, SEL /*selector*/, NSString* path) {
  EXPECT_EQ(kSystemVersion, Text(path));
  return s_systemVersion;
}

class KPIMPingbackTest : public testing::Test {
 protected:
  KPIMPingbackTest()
      : exists_(object_getClass([NSFileManager defaultManager]), @selector(fileExistsAtPath:),
                (IMP)FileExists),
        contents_([NSString class], @selector(stringWithContentsOfFile:encoding:error:),
                  (IMP)FileContents, ScopedMethodReplacement::kClassMethod),
        dictionary_([NSDictionary class], @selector(dictionaryWithContentsOfFile:),
                    (IMP)DictionaryContents, ScopedMethodReplacement::kClassMethod) {
    s_consoleUser = [[NSMutableString alloc] initWithString:@"alice"];
    s_kernel = {{"hw.cputype", {0, 7}},
                {"hw.cpu64bit_capable", {0, 1}},
                {"hw.optional.x86_64", {0, 1}},
                {"hw.optional.64bitops", {0, 1}}};
    s_files.clear();
    s_vectorIsRegular = true;
    s_systemVersion = [NSDictionary dictionaryWithObject:@"10.9.5" forKey:@"ProductVersion"];
    s_language = "en";
    s_languageRaises = false;
    s_switchFails = false;
    s_removalFails = false;
    s_events.clear();
    s_isArmed = true;
  }
  ~KPIMPingbackTest() override {
    s_isArmed = false;
    [s_consoleUser release];
    s_consoleUser = nil;
    [pool_ release];
  }

  void SetConsoleUser(NSString* user) {
    [s_consoleUser release];
    s_consoleUser = [user mutableCopy];
  }

  /// The address that the pingback asks for; "(absent)" for a request without one.
  std::string URL(NSString* previousVersion = nil) {
    [KPIMPingback doPingbackWithPreviousVersion:previousVersion];
    EXPECT_EQ(1, network_.requests());
    EXPECT_FALSE(network_.askedForMore());
    return Text([[network_.request() URL] absoluteString]);
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  ConnectionRecorder network_;

 private:
  ScopedMethodReplacement exists_;
  ScopedMethodReplacement contents_;
  ScopedMethodReplacement dictionary_;
};

std::string URLWith(const std::string& vector, const std::string& osVersion,
                    const std::string& previous, const std::string& language,
                    const std::string& word, const std::string& arch) {
  return "https://" KP_DOWNLOAD_HOST "/get/korvelplayer/update/current/install/"
         "version.xml32.0.0.269~installVector=" +
         vector + "&os=mac&osVer=" + osVersion + "&playerType=pep&previousVersion=" + previous +
         "&lang=" + language + "&cpuWordLength=" + word + "&cpuArch=" + arch;
}

// ---- The request

TEST_F(KPIMPingbackTest, IsRegisteredUnderItsLongName) {
  EXPECT_EQ("KP_DECOMP_KPIMPingback", Text(NSStringFromClass([KPIMPingback class])));
}

TEST_F(KPIMPingbackTest, FirstInstall) {
  EXPECT_EQ(
      "https://" KP_DOWNLOAD_HOST "/get/korvelplayer/update/current/install/"
      "version.xml32.0.0.269~installVector=15&os=mac&osVer=10.9.5&playerType=pep&previousVersion="
      "0.0.0.0&lang=en&cpuWordLength=64&cpuArch=x86_64",
      URL());
  EXPECT_EQ(1u, static_cast<unsigned>([network_.request() cachePolicy]));
  EXPECT_EQ(30, [network_.request() timeoutInterval]);
}

TEST_F(KPIMPingbackTest, PreviousVersionStandsInItsField) {
  EXPECT_EQ(URLWith("15", "10.9.5", "32.0.0.255", "en", "64", "x86_64"), URL(@"32.0.0.255"));
}

TEST_F(KPIMPingbackTest, EmptyPreviousVersionIsAVersion) {
  EXPECT_EQ(URLWith("15", "10.9.5", "", "en", "64", "x86_64"), URL(@""));
}

TEST_F(KPIMPingbackTest, RequestIsReleased) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  URL();
  [pool release];
  EXPECT_EQ(1u, [network_.request() retainCount]) << "the recorder's own";
}

TEST_F(KPIMPingbackTest, ConnectionThatRaisesLeavesNoRequest) {
  network_.MakeRequestsRaise();
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  bool hasRaised = false;
  @try {
    URL();
  } @catch (NSException*) {
    hasRaised = true;
  }
  EXPECT_TRUE(hasRaised) << "the stage's caller logs it";
  [pool release];
  EXPECT_EQ(1u, [network_.request() retainCount]) << "the request is released all the same";
}

TEST_F(KPIMPingbackTest, ValueThatNoURLCanHoldLeavesNoURL) {
  s_files[kVectorFile] = @"7\n";
  EXPECT_EQ("(absent)", URL());
}

TEST_F(KPIMPingbackTest, SecondFragmentLeavesNoURL) {
  s_files[kVectorFile] = @"7#";
  EXPECT_EQ("(absent)", URL(@"32#0"));
}

TEST_F(KPIMPingbackTest, PreviousVersionWithASpaceLeavesNoURL) {
  EXPECT_EQ("(absent)", URL(@"32.0 beta"));
}

TEST_F(KPIMPingbackTest, NothingIsEscaped) {
  s_files[kVectorFile] = @"7%20&os=x+y";
  EXPECT_EQ(URLWith("7%20&os=x+y", "10.9.5", "0.0.0.0", "en", "64", "x86_64"), URL());
}

// ---- Install vector

TEST_F(KPIMPingbackTest, ExpressInstallIsVectorThreeAndItsFlagIsRemoved) {
  s_files[kFlag] = @"";
  s_files[kVectorFile] = @"7";
  EXPECT_EQ(URLWith("3", "10.9.5", "0.0.0.0", "en", "64", "x86_64"), URL());
  EXPECT_EQ(std::string("remove ") + kFlag, s_events.at(0));
  EXPECT_EQ(0u, s_files.count(kFlag));
  EXPECT_EQ(1u, s_files.count(kVectorFile));
}

TEST_F(KPIMPingbackTest, FlagThatCannotBeRemovedCountsToo) {
  s_files[kFlag] = @"";
  s_files[kVectorFile] = @"7";
  s_removalFails = true;
  EXPECT_EQ(URLWith("3", "10.9.5", "0.0.0.0", "en", "64", "x86_64"), URL());
  EXPECT_EQ(std::string("remove ") + kFlag, s_events.at(0));
}

TEST_F(KPIMPingbackTest, VectorFileStandsAsItIs) {
  s_files[kVectorFile] = @"7";
  EXPECT_EQ("7", Text([KPIMPingback _getInstallVector]));
  s_files[kVectorFile] = @" 7\n";
  EXPECT_EQ(" 7\n", Text([KPIMPingback _getInstallVector])) << "nothing is trimmed";
  s_files[kVectorFile] = @"";
  EXPECT_EQ("", Text([KPIMPingback _getInstallVector]));
  s_files[kVectorFile] = nil;
  EXPECT_EQ("(absent)", Text([KPIMPingback _getInstallVector])) << "it cannot be read";
  s_files[kVectorFile] = @"7";
  s_vectorIsRegular = false;
  EXPECT_EQ("(absent)", Text([KPIMPingback _getInstallVector])) << "a FIFO is not waited for";
  EXPECT_THAT(s_events, IsEmpty());
}

TEST_F(KPIMPingbackTest, UnreadableVectorFileShowsInItsField) {
  s_files[kVectorFile] = nil;
  EXPECT_EQ(URLWith("(null)", "10.9.5", "0.0.0.0", "en", "64", "x86_64"), URL());
}

TEST_F(KPIMPingbackTest, DefaultVector) { EXPECT_EQ("15", Text([KPIMPingback _getInstallVector])); }

// ---- System version

TEST_F(KPIMPingbackTest, SystemVersionIsTheProductVersion) {
  EXPECT_EQ("10.9.5", Text([KPIMPingback _getOSVersion]));
}

TEST_F(KPIMPingbackTest, MissingSystemVersionShowsInItsField) {
  s_systemVersion = nil;
  EXPECT_EQ("(absent)", Text([KPIMPingback _getOSVersion]));
  EXPECT_EQ(URLWith("15", "(null)", "0.0.0.0", "en", "64", "x86_64"), URL());
  s_systemVersion = [NSDictionary dictionary];
  EXPECT_EQ("(absent)", Text([KPIMPingback _getOSVersion]));
}

// ---- Language

TEST_F(KPIMPingbackTest, LanguageIsTheConsoleUsers) {
  s_language = "zh-TW";
  EXPECT_THAT(URL(), HasSubstr("&lang=zh-TW&"));
  ASSERT_GE(s_events.size(), 4u);
  s_events.resize(4);
  EXPECT_THAT(s_events, ElementsAre("look up alice", "become 1001", "language", "become 0"));
  EXPECT_EQ(1u, [s_consoleUser retainCount]) << "the name is released";
}

TEST_F(KPIMPingbackTest, SecondSwitchTakesTheFirstOnesResult) {
  s_switchFails = true;
  EXPECT_THAT(URL(), HasSubstr("&lang=en&"));
  s_events.resize(4);
  EXPECT_THAT(s_events, ElementsAre("look up alice", "become 1001", "language", "become -1"));
}

TEST_F(KPIMPingbackTest, UserIsSwitchedBackWhenTheLanguageCannotBeRead) {
  s_languageRaises = true;
  EXPECT_THAT(URL(), HasSubstr("&lang=xu&"));
  s_events.resize(4);
  EXPECT_THAT(s_events, ElementsAre("look up alice", "become 1001", "language", "become 0"));
}

/// The kernel is asked in any case.
void ExpectNoSwitch() {
  for (const std::string& event : s_events) {
    EXPECT_NE(0u, event.find("become")) << event;
    EXPECT_NE("language", event);
  }
}

TEST_F(KPIMPingbackTest, NobodyAtTheConsole) {
  SetConsoleUser(nil);
  EXPECT_THAT(URL(), HasSubstr("&lang=xu&"));
  ExpectNoSwitch();
}

TEST_F(KPIMPingbackTest, LoginWindowAtTheConsole) {
  SetConsoleUser(@"loginwindow");
  EXPECT_THAT(URL(), HasSubstr("&lang=xu&"));
  EXPECT_EQ("hw.cpu64bit_capable", s_events.at(0)) << "it is not looked up";
  ExpectNoSwitch();
  EXPECT_EQ(1u, [s_consoleUser retainCount]) << "the name is released";
}

TEST_F(KPIMPingbackTest, ConsoleUserWithoutAnEntry) {
  SetConsoleUser(@"carol");
  EXPECT_THAT(URL(), HasSubstr("&lang=xu&"));
  EXPECT_EQ("look up carol", s_events.at(0));
  ExpectNoSwitch();
  EXPECT_EQ(1u, [s_consoleUser retainCount]) << "the name is released";
}

// ---- Processor

TEST_F(KPIMPingbackTest, AnyOfThreeValuesTellsOf64Bits) {
  const char* const names[] = {"hw.cpu64bit_capable", "hw.optional.x86_64", "hw.optional.64bitops"};
  for (const char* yes : names) {
    for (const char* name : names) {
      s_kernel[name] = {0, name == yes ? 1 : 0};
    }
    EXPECT_TRUE([KPIMPingback _getSupports64BitProcesses]) << yes;
    for (const char* name : names) {
      s_kernel[name] = {name == yes ? 0 : -1, 1};
    }
    EXPECT_TRUE([KPIMPingback _getSupports64BitProcesses]) << yes;
  }
}

TEST_F(KPIMPingbackTest, AsksInOrderAndNoFurtherThanNeeded) {
  EXPECT_TRUE([KPIMPingback _getSupports64BitProcesses]);
  EXPECT_THAT(s_events, ElementsAre("hw.cpu64bit_capable"));
  s_events.clear();
  s_kernel["hw.cpu64bit_capable"] = {0, 0};
  s_kernel["hw.optional.x86_64"] = {0, 0};
  s_kernel["hw.optional.64bitops"] = {0, 0};
  EXPECT_FALSE([KPIMPingback _getSupports64BitProcesses]);
  EXPECT_THAT(s_events,
              ElementsAre("hw.cpu64bit_capable", "hw.optional.x86_64", "hw.optional.64bitops"));
}

TEST_F(KPIMPingbackTest, OnlyOneMeansYes) {
  s_kernel["hw.cpu64bit_capable"] = {0, 2};
  s_kernel["hw.optional.x86_64"] = {0, -1};
  s_kernel["hw.optional.64bitops"] = {-1, 1};
  EXPECT_FALSE([KPIMPingback _getSupports64BitProcesses]);
}

TEST_F(KPIMPingbackTest, ThirtyTwoBitProcessor) {
  s_kernel = {{"hw.cputype", {0, 7}}};
  EXPECT_EQ(URLWith("15", "10.9.5", "0.0.0.0", "en", "32", "i386"), URL());
}

TEST_F(KPIMPingbackTest, UnknownProcessorMayRun64Bits) {
  s_kernel.erase("hw.cputype");
  EXPECT_EQ(URLWith("15", "10.9.5", "0.0.0.0", "en", "64", "unknown"), URL());
}

}  // namespace
