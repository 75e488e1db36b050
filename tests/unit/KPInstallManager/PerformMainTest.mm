#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PerformMain.h"

#import <SystemConfiguration/SystemConfiguration.h>
#include <gmock/gmock.h>

#include <cstring>
#include <deque>
#include <map>
#include <set>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

// ---- The stages' places are taken by functions that record how they are called

namespace {

constexpr char kFlag[] = "/tmp/KPExpressInstall.flag";
constexpr char kUpdater[] =
    "/Users/alice/Library/Preferences/Velmora/Korvel Player/www.tarvix.example/bin/kpupdatepl/"
    "kpupdatepl";
constexpr char kLaunch[] =
    "launch /usr/bin/open [http://www.tarvix.example/software/korvel/about/installerRedirect.html]";

/// Answers of `isUserLoggedIn`, one per call; the last one stays.
std::deque<bool> s_loggedIn;
NSMutableString* s_consoleUser;
int s_decompressionResult;
std::set<std::string> s_files;
std::set<std::string> s_filesThatStay;
/// Files that the pingback takes away.
std::set<std::string> s_filesTakenByPingback;
/// Files that the pingback puts in place, as another process might while it runs.
std::set<std::string> s_filesAfterPingback;
NSDictionary* s_environment;
bool s_launchRaises;

}  // namespace

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid) {
  EXPECT_EQ(nullptr, store);
  EXPECT_EQ(nullptr, uid);
  EXPECT_EQ(nullptr, gid);
  g_events.push_back("console user");
  return (CFStringRef)[s_consoleUser retain];
}

int DecompressLZMA(NSString* installRoot) {
  g_events.push_back("decompress " + Text(installRoot));
  return s_decompressionResult;
}

bool RemoveObsoletePluginFiles() {
  g_events.push_back("remove obsolete files");
  return false;
}

void DisableAnalytics(NSString* installRoot) {
  g_events.push_back("disable analytics " + Text(installRoot));
}

@implementation KP_DECOMP_KPIMCommonUtil

+ (bool)isUserLoggedIn {
  const bool answer = s_loggedIn.front();
  if (s_loggedIn.size() > 1) {
    s_loggedIn.pop_front();
  }
  g_events.push_back(answer ? "logged in" : "nobody");
  return answer;
}

+ (unsigned int)getSystemOSVersion {
  return 0;
}

+ (NSString*)KorvelPlayerVersionBeingInstalled {
  return nil;
}

@end

@implementation KP_DECOMP_KPIMPingback

+ (void)doPingbackWithPreviousVersion:(NSString*)previousVersion {
  g_events.push_back("pingback " + Text(previousVersion));
  for (const std::string& file : s_filesTakenByPingback) {
    s_files.erase(file);
  }
  s_files.insert(s_filesAfterPingback.begin(), s_filesAfterPingback.end());
}

@end

/// A task that nobody may wait for or ask for its status.
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

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;

ScopedMethodReplacement* s_exists;
UntouchableTask* s_task;

/// Knows the files of the tests; the rest of the disk is left to the real file manager only
/// below the tests' own folder, which `s_realFolder` names.
std::string s_realFolder;

BOOL FileExists(id self, SEL selector, NSString* path) {
  const std::string file = Text(path);
  if (!s_realFolder.empty() && file.rfind(s_realFolder, 0) == 0) {
    return ((BOOL(*)(id, SEL, NSString*))s_exists->original())(self, selector, path);
  }
  g_events.push_back("exists " + file);
  return s_files.count(file) != 0;
}

BOOL RemoveItem(id /*self*/, SEL /*selector*/, NSString* path, NSError** error) {
  EXPECT_EQ(nullptr, error);
  const std::string file = Text(path);
  g_events.push_back("remove " + file);
  return s_filesThatStay.count(file) == 0 && s_files.erase(file) != 0;
}

NSTask* Launch(id /*self*/, SEL /*selector*/, NSString* path, NSArray* arguments) {
  g_events.push_back("launch " + Text(path) + " [" +
                     Text([arguments componentsJoinedByString:@"|"]) + "]");
  if (s_launchRaises) {
    [NSException raise:NSInvalidArgumentException format:@"launch path not accessible"];
  }
  return (NSTask*)s_task;
}

NSDictionary* Environment(id /*self*/, SEL /*selector*/) { return s_environment; }

class PerformMainTest : public testing::Test {
 protected:
  PerformMainTest()
      : exists_(object_getClass([NSFileManager defaultManager]), @selector(fileExistsAtPath:),
                (IMP)FileExists),
        remove_(object_getClass([NSFileManager defaultManager]), @selector(removeItemAtPath:error:),
                (IMP)RemoveItem),
        launch_([NSTask class], @selector(launchedTaskWithLaunchPath:arguments:), (IMP)Launch,
                ScopedMethodReplacement::kClassMethod),
        environment_(object_getClass([NSProcessInfo processInfo]), @selector(environment),
                     (IMP)Environment) {
    s_exists = &exists_;
    s_realFolder.clear();
    s_loggedIn = {true};
    s_consoleUser = [[NSMutableString alloc] initWithString:@"alice"];
    s_decompressionResult = 0;
    s_files.clear();
    s_filesThatStay.clear();
    s_filesTakenByPingback.clear();
    s_filesAfterPingback.clear();
    s_task = [UntouchableTask alloc];
    s_launchRaises = false;
    SetHome(@"/Users/alice");
    g_events.clear();
    g_logCanBeOpened = true;
  }
  ~PerformMainTest() override {
    Forget();
    [s_task release];
    s_task = nil;
    [s_consoleUser release];
    s_consoleUser = nil;
    [pool_ release];
  }

  /// Runs the finalizer with these arguments behind its own name.
  int Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "finalizer");
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return PerformMain(static_cast<int>(arguments.size()), argv.data());
  }

  /// Makes the next run the first one.
  void Forget() {
    g_events.clear();
    [g_logger release];
    g_logger = nil;
  }

  void SetHome(NSString* home) {
    s_environment = [NSDictionary dictionaryWithObject:home forKey:@"HOME"];
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;

 private:
  ScopedMethodReplacement exists_;
  ScopedMethodReplacement remove_;
  ScopedMethodReplacement launch_;
  ScopedMethodReplacement environment_;
};

const std::vector<std::string> kLogOfAlice = {
    "logged in",
    "console user",
    "log file /Users/alice/Library/Logs/KorvelPlayerInstallManager.log",
    "log level 4",
    "log prefix FIN: ",
    "[3] [finalizer started]"};

const std::vector<std::string> kLogOfTheMachine = {
    "nobody", "log file /Library/Logs/KorvelPlayerInstallManager.log", "log level 4",
    "log prefix FIN: ", "[3] [finalizer started]"};

std::vector<std::string> operator+(std::vector<std::string> left,
                                   const std::vector<std::string>& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// ---- The sequence

TEST_F(PerformMainTest, BootVolumeWithTheSwitch) {
  EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
  EXPECT_EQ(kLogOfAlice + std::vector<std::string>(
                              {"decompress /", "logged in", "remove obsolete files",
                               "exists /Library/Application Support/Velmora/previous_version.txt",
                               "pingback (absent)", "logged in", std::string("exists ") + kFlag,
                               "[3] Disabling Analytics in rks.cfg", "disable analytics /",
                               "[3] [finalizer succeeded]"}),
            g_events);
}

TEST_F(PerformMainTest, BootVolumeWithoutTheSwitch) {
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(kLogOfAlice + std::vector<std::string>(
                              {"decompress /", "logged in", "remove obsolete files",
                               "exists /Library/Application Support/Velmora/previous_version.txt",
                               "pingback (absent)", "logged in", std::string("exists ") + kFlag,
                               "[3] [finalizer succeeded]"}),
            g_events);
}

TEST_F(PerformMainTest, OtherVolumeSkipsWhatIsTheBootVolumes) {
  s_files.insert(kFlag);
  EXPECT_EQ(0, Run({"/Volumes/Target", "-disableAnalytics"}));
  EXPECT_EQ(
      kLogOfAlice + std::vector<std::string>(
                        {"decompress /Volumes/Target", "logged in",
                         "exists /Volumes/Target/Library/Application Support/Velmora/"
                         "previous_version.txt",
                         "pingback (absent)", "logged in", "[3] Disabling Analytics in rks.cfg",
                         "disable analytics /Volumes/Target", "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, NobodyAtTheConsole) {
  s_loggedIn = {false};
  s_files.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(
      kLogOfTheMachine + std::vector<std::string>(
                             {"decompress /", "nobody",
                              "exists /Library/Application Support/Velmora/previous_version.txt",
                              "pingback (absent)", "nobody", "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, NobodyAtTheConsoleWithTheSwitch) {
  s_loggedIn = {false};
  s_files.insert(kFlag);
  EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
  EXPECT_EQ(
      kLogOfTheMachine + std::vector<std::string>(
                             {"decompress /", "nobody",
                              "exists /Library/Application Support/Velmora/previous_version.txt",
                              "pingback (absent)", "nobody", "[3] Disabling Analytics in rks.cfg",
                              "disable analytics /", "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, NoArguments) {
  s_files.insert(kFlag);
  EXPECT_EQ(0, Run({}));
  EXPECT_EQ(kLogOfAlice + std::vector<std::string>({"decompress (absent)", "logged in",
                                                    "exists (absent)", "pingback (absent)",
                                                    "logged in", "[3] [finalizer succeeded]"}),
            g_events);
}

TEST_F(PerformMainTest, NotEvenAProgramName) {
  char* argv[] = {nullptr};
  EXPECT_EQ(0, PerformMain(0, argv));
  EXPECT_THAT(g_events, Contains("decompress (absent)"));
}

TEST_F(PerformMainTest, SwitchAsTheFirstArgumentIsTheInstallRootToo) {
  EXPECT_EQ(0, Run({"-disableAnalytics"}));
  EXPECT_EQ(
      kLogOfAlice + std::vector<std::string>(
                        {"decompress -disableAnalytics", "logged in",
                         "exists -disableAnalytics/Library/Application Support/Velmora/"
                         "previous_version.txt",
                         "pingback (absent)", "logged in", "[3] Disabling Analytics in rks.cfg",
                         "disable analytics -disableAnalytics", "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, SwitchInAnyPosition) {
  EXPECT_EQ(0, Run({"/", "x", "-disableAnalytics"}));
  EXPECT_THAT(g_events, Contains("disable analytics /"));
}

TEST_F(PerformMainTest, SwitchSpelledOtherwiseIsIgnored) {
  EXPECT_EQ(0, Run({"/", "-DisableAnalytics"}));
  EXPECT_THAT(g_events, Not(Contains("disable analytics /")));
  EXPECT_THAT(g_events, Not(Contains("[3] Disabling Analytics in rks.cfg")));
}

TEST_F(PerformMainTest, EmptyRootHasThePathsOfTheBootVolumeAlone) {
  s_files.insert(kFlag);
  EXPECT_EQ(0, Run({"", "-disableAnalytics"}));
  EXPECT_EQ(
      kLogOfAlice + std::vector<std::string>(
                        {"decompress ", "logged in",
                         "exists /Library/Application Support/Velmora/previous_version.txt",
                         "pingback (absent)", "logged in", "[3] Disabling Analytics in rks.cfg",
                         "disable analytics ", "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, RootThatOnlyLooksLikeTheBootVolume) {
  s_files.insert(kFlag);
  for (const char* root : {"//", "/.", "./", "/ "}) {
    EXPECT_EQ(0, Run({root}));
    EXPECT_THAT(g_events, Not(Contains("remove obsolete files"))) << root;
    EXPECT_THAT(g_events, Not(Contains(kLaunch))) << root;
    EXPECT_THAT(g_events, Contains(std::string("decompress ") + root));
    Forget();
  }
}

TEST_F(PerformMainTest, RootInUTF8) {
  EXPECT_EQ(0, Run({"/Volumes/V\xC3\xB6l 漢字"}));
  EXPECT_THAT(g_events, Contains("decompress /Volumes/V\xC3\xB6l 漢字"));
}

TEST_F(PerformMainTest, RootThatIsNotUTF8IsAbsent) {
  for (const char* root : {"\xFF\xFE", "/Volumes/\xC3", "/\xC0\xAF", "/\xED\xA0\x80"}) {
    EXPECT_EQ(0, Run({root, "-disableAnalytics"}));
    EXPECT_EQ(
        kLogOfAlice + std::vector<std::string>(
                          {"decompress (absent)", "logged in", "exists (absent)",
                           "pingback (absent)", "logged in", "[3] Disabling Analytics in rks.cfg",
                           "disable analytics (absent)", "[3] [finalizer succeeded]"}),
        g_events);
    Forget();
  }
}

TEST_F(PerformMainTest, FailedDecompressionEndsTheRun) {
  for (int status : {1, 2, -1}) {
    s_decompressionResult = status;
    EXPECT_EQ(status, Run({"/", "-disableAnalytics"}));
    EXPECT_EQ(kLogOfAlice + std::vector<std::string>(
                                {"decompress /", "[1] [finalizer failed to decompress plugin]"}),
              g_events);
    Forget();
  }
}

// ---- The log

TEST_F(PerformMainTest, LogThatCannotBeOpenedSilencesTheLogAlone) {
  g_logCanBeOpened = false;
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
  EXPECT_EQ(nil, g_logger);
  EXPECT_THAT(g_events,
              ElementsAre("logged in", "console user",
                          "log file /Users/alice/Library/Logs/KorvelPlayerInstallManager.log",
                          "decompress /", "logged in", "remove obsolete files",
                          "exists /Library/Application Support/Velmora/previous_version.txt",
                          "pingback (absent)", "logged in", std::string("exists ") + kFlag,
                          std::string("exists ") + kUpdater, kLaunch,
                          std::string("remove ") + kFlag, "disable analytics /"));
}

TEST_F(PerformMainTest, LogThatCannotBeOpenedKeepsTheStatus) {
  g_logCanBeOpened = false;
  s_decompressionResult = 1;
  EXPECT_EQ(1, Run({"/"}));
}

TEST_F(PerformMainTest, LoggerOutlivesTheRun) {
  for (int status : {0, 1}) {
    s_decompressionResult = status;
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    EXPECT_EQ(status, Run({"/"}));
    ASSERT_NE(nil, g_logger);
    EXPECT_EQ(1u, [g_logger retainCount]);
    // Held meanwhile, so that a logger which the pool releases can be told.
    KPIMLogger* logger = [g_logger retain];
    [pool drain];
    EXPECT_EQ(logger, g_logger);
    ASSERT_EQ(2u, [logger retainCount]);
    [logger release];
    Forget();
  }
}

TEST_F(PerformMainTest, ConsoleUsersNameIsReleasedOnce) {
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(1u, [s_consoleUser retainCount]);
}

TEST_F(PerformMainTest, HomeIsAssumedNotLookedUp) {
  [s_consoleUser setString:@"no such user"];
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_THAT(g_events, Contains("log file /Users/no such user/Library/Logs/"
                                 "KorvelPlayerInstallManager.log"));
}

TEST_F(PerformMainTest, UserWhoLogsOutBetweenTestAndQuery) {
  [s_consoleUser release];
  s_consoleUser = nil;
  s_loggedIn = {true, false};
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_THAT(g_events,
              Contains("log file /Users/(null)/Library/Logs/KorvelPlayerInstallManager.log"));
  EXPECT_EQ("[3] [finalizer succeeded]", g_events.back());
}

// ---- The console, asked three times

TEST_F(PerformMainTest, UserWhoLogsOutBeforeTheObsoleteFiles) {
  s_loggedIn = {true, false, true};
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_THAT(g_events, Not(Contains("remove obsolete files")));
  EXPECT_THAT(g_events, Contains(kLaunch));
}

TEST_F(PerformMainTest, UserWhoLogsInBeforeTheObsoleteFiles) {
  s_loggedIn = {false, true, false};
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_THAT(g_events, Contains("log file /Library/Logs/KorvelPlayerInstallManager.log"));
  EXPECT_THAT(g_events, Contains("remove obsolete files"));
  EXPECT_THAT(g_events, Not(Contains(std::string("exists ") + kFlag)));
  EXPECT_THAT(g_events, Not(Contains(kLaunch)));
}

// ---- The previous version

class PreviousVersionTest : public PerformMainTest {
 protected:
  PreviousVersionTest() { SetRoot(folder_.Path().string()); }

  void SetRoot(const std::string& root) {
    root_ = root;
    file_ = root + "/Library/Application Support/Velmora/previous_version.txt";
    std::filesystem::create_directories(std::filesystem::path(file_).parent_path());
    s_realFolder = root;
  }

  /// The part of the events that tells of the previous version, after a run.
  std::vector<std::string> Events() {
    EXPECT_EQ(0, Run({root_}));
    std::vector<std::string> events;
    for (const std::string& event : g_events) {
      if (event.rfind("pingback ", 0) == 0 || event == "[3] Reading previous version file") {
        events.push_back(event);
      }
    }
    EXPECT_EQ("[3] [finalizer succeeded]", g_events.back());
    return events;
  }

  std::vector<std::string> EventsFor(const std::string& contents) {
    WriteWholeFile(file_, contents);
    return Events();
  }

  std::string root_;
  std::string file_;
};

constexpr char kReading[] = "[3] Reading previous version file";

TEST_F(PreviousVersionTest, IsTrimmed) {
  EXPECT_THAT(EventsFor("32.0.0.255\n"), ElementsAre(kReading, "pingback 32.0.0.255"));
}

TEST_F(PreviousVersionTest, WindowsLineEnd) {
  EXPECT_THAT(EventsFor("32.0.0.255\r\n"), ElementsAre(kReading, "pingback 32.0.0.255"));
}

TEST_F(PreviousVersionTest, BlanksInsideStay) {
  EXPECT_THAT(EventsFor("\n\t 32.0 \n 0.255 \n\n"),
              ElementsAre(kReading, "pingback 32.0 \n 0.255"));
}

TEST_F(PreviousVersionTest, OnlyBlanksIsEmptyNotAbsent) {
  EXPECT_THAT(EventsFor(" \t\r\n \n"), ElementsAre(kReading, "pingback "));
}

TEST_F(PreviousVersionTest, EmptyFileIsEmptyNotAbsent) {
  EXPECT_THAT(EventsFor(""), ElementsAre(kReading, "pingback "));
}

TEST_F(PreviousVersionTest, NotUTF8IsAbsent) {
  EXPECT_THAT(EventsFor("32.0\xFF\n"), ElementsAre(kReading, "pingback (absent)"));
}

TEST_F(PreviousVersionTest, FolderInItsPlaceIsAbsent) {
  std::filesystem::create_directory(file_);
  EXPECT_THAT(Events(), ElementsAre(kReading, "pingback (absent)"));
}

TEST_F(PreviousVersionTest, MissingFileIsNotRead) {
  EXPECT_THAT(Events(), ElementsAre("pingback (absent)"));
}

TEST_F(PreviousVersionTest, UnreadableFileIsAbsent) {
  WriteWholeFile(file_, "32.0.0.255\n");
  chmod(file_.c_str(), 0);
  std::filesystem::permissions(root_, std::filesystem::perms(0755));
  // Permissions do not bind root.
  const uid_t user = geteuid();
  if (user == 0) {
    ASSERT_EQ(0, seteuid(65534));
  }
  const std::vector<std::string> events = Events();
  if (user == 0) {
    ASSERT_EQ(0, seteuid(0));
  }
  EXPECT_THAT(events, ElementsAre(kReading, "pingback (absent)"));
}

TEST_F(PreviousVersionTest, RootsThatAreNoURLs) {
  for (const char* name : {"100% #1?;x", "a%20b", "[x]", "\xF0\x9F\x93\x80"}) {
    SetRoot(folder_.Path() / name);
    EXPECT_THAT(EventsFor("32.0.0.255\n"), ElementsAre(kReading, "pingback 32.0.0.255")) << name;
    Forget();
  }
}

TEST_F(PreviousVersionTest, RelativeRoot) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder_.Path());
  SetRoot("volume");
  const std::vector<std::string> events = EventsFor("32.0.0.255\n");
  std::filesystem::current_path(before);
  EXPECT_THAT(events, ElementsAre(kReading, "pingback 32.0.0.255"));
}

TEST_F(PreviousVersionTest, NobodyAtTheConsole) {
  s_loggedIn = {false};
  EXPECT_THAT(EventsFor("32.0.0.255\n"), ElementsAre(kReading, "pingback 32.0.0.255"));
}

constexpr char kPreviousVersion[] = "/Library/Application Support/Velmora/previous_version.txt";

/// What the tests' boot volume holds in its previous-version file.
NSString* Contents(id /*self*/, SEL /*selector*/, NSURL* url, NSStringEncoding encoding,
                   NSError** error) {
  EXPECT_TRUE([url isFileURL]);
  EXPECT_EQ(kPreviousVersion, Text([url path]));
  EXPECT_EQ(NSUTF8StringEncoding, encoding);
  EXPECT_EQ(nullptr, error);
  return @"32.0.0.255\n";
}

TEST_F(PerformMainTest, PreviousVersionOnTheBootVolume) {
  ScopedMethodReplacement contents([NSString class],
                                   @selector(stringWithContentsOfURL:encoding:error:),
                                   (IMP)Contents, ScopedMethodReplacement::kClassMethod);
  s_files.insert(kPreviousVersion);
  for (bool loggedIn : {true, false}) {
    s_loggedIn = {loggedIn};
    EXPECT_EQ(0, Run({"/"}));
    EXPECT_THAT(g_events, Contains(kReading));
    EXPECT_THAT(g_events, Contains("pingback 32.0.0.255"));
    Forget();
  }
}

// ---- The express-install hand-off

const std::vector<std::string> kUpToTheFlag =
    kLogOfAlice +
    std::vector<std::string>({"decompress /", "logged in", "remove obsolete files",
                              "exists /Library/Application Support/Velmora/previous_version.txt",
                              "pingback (absent)", "logged in", std::string("exists ") + kFlag});

TEST_F(PerformMainTest, ExpressInstall) {
  s_files.insert(kUpdater);
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(
      kUpToTheFlag + std::vector<std::string>(
                         {std::string("exists ") + kUpdater, std::string("remove ") + kUpdater,
                          kLaunch, std::string("remove ") + kFlag, "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, ExpressInstallWithoutAnUpdater) {
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(kUpToTheFlag + std::vector<std::string>({std::string("exists ") + kUpdater, kLaunch,
                                                     std::string("remove ") + kFlag,
                                                     "[3] [finalizer succeeded]"}),
            g_events);
}

TEST_F(PerformMainTest, ExpressInstallWithoutALauncherStillRemovesTheFlag) {
  s_launchRaises = true;
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
  EXPECT_EQ(
      kUpToTheFlag + std::vector<std::string>({std::string("exists ") + kUpdater, kLaunch,
                                               std::string("remove ") + kFlag,
                                               "[3] Disabling Analytics in rks.cfg",
                                               "disable analytics /", "[3] [finalizer succeeded]"}),
      g_events);
}

TEST_F(PerformMainTest, ExpressInstallWithoutAHome) {
  s_environment = [NSDictionary dictionary];
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(kUpToTheFlag + std::vector<std::string>({"exists (absent)", kLaunch,
                                                     std::string("remove ") + kFlag,
                                                     "[3] [finalizer succeeded]"}),
            g_events);
}

TEST_F(PerformMainTest, ExpressInstallWithHomesOfOtherShapes) {
  const std::map<std::string, std::string> foldersOfHomes = {{"", ""}, {"/var/root/", "/var/root"}};
  for (const auto& [home, folder] : foldersOfHomes) {
    const std::string updater = folder + std::string(kUpdater).substr(strlen("/Users/alice"));
    SetHome(String(home));
    s_files = {updater};
    s_filesAfterPingback = {kFlag};
    EXPECT_EQ(0, Run({"/"}));
    EXPECT_EQ(kUpToTheFlag + std::vector<std::string>({"exists " + updater, "remove " + updater,
                                                       kLaunch, std::string("remove ") + kFlag,
                                                       "[3] [finalizer succeeded]"}),
              g_events);
    Forget();
  }
}

TEST_F(PerformMainTest, ExpressInstallWithAnUpdaterThatCannotBeRemoved) {
  s_files.insert(kUpdater);
  s_filesThatStay.insert(kUpdater);
  s_filesAfterPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(
      kUpToTheFlag + std::vector<std::string>(
                         {std::string("exists ") + kUpdater, std::string("remove ") + kUpdater,
                          kLaunch, std::string("remove ") + kFlag, "[3] [finalizer succeeded]"}),
      g_events);
  EXPECT_THAT(s_files, ElementsAre(kUpdater));
}

TEST_F(PerformMainTest, ExpressInstallThatThePingbackConsumes) {
  s_files = {kFlag, kUpdater};
  s_filesTakenByPingback.insert(kFlag);
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(kUpToTheFlag + std::vector<std::string>({"[3] [finalizer succeeded]"}), g_events);
  EXPECT_THAT(s_files, ElementsAre(kUpdater));
}

}  // namespace
