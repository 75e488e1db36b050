#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PerformMain.h"

#import <SystemConfiguration/SystemConfiguration.h>
#include <gmock/gmock.h>

#include <csignal>
#include <deque>
#include <functional>
#include <map>
#include <new>
#include <optional>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CompleteExpressInstall.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PreviousVersion.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

// ---- Replacements of the stages, which record their calls

namespace {

using Events = std::vector<std::string>;

/// Answers of `isUserLoggedIn`, one per call; the last one stays.
std::deque<bool> s_loggedIn;
NSMutableString* s_consoleUser;
int s_decompressionResult;
NSString* s_previousVersion;
/// What else a stage does after it is recorded, by its name.
std::map<std::string, std::function<void()>> s_actions;

void Record(const std::string& stage, const std::string& argument = "") {
  g_events.push_back(argument.empty() ? stage : stage + " " + argument);
  const auto action = s_actions.find(stage);
  if (action != s_actions.end()) {
    action->second();
  }
}

}  // namespace

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid) {
  EXPECT_EQ(nullptr, store);
  EXPECT_EQ(nullptr, uid);
  EXPECT_EQ(nullptr, gid);
  g_events.push_back("console user");
  return (CFStringRef)[s_consoleUser retain];
}

int DecompressLZMA(NSString* installRoot) {
  Record("decompress", Text(installRoot));
  return s_decompressionResult;
}

bool RemoveObsoletePluginFiles() {
  Record("remove obsolete files");
  return false;
}

NSString* ReadPreviousVersion(NSString* installRoot) {
  Record("previous version", Text(installRoot));
  return s_previousVersion;
}

void CompleteExpressInstall() { Record("express install"); }

void DisableAnalytics(NSString* installRoot) { Record("disable analytics", Text(installRoot)); }

@implementation KP_DECOMP_KPIMCommonUtil

+ (bool)isUserLoggedIn {
  const bool answer = s_loggedIn.front();
  if (s_loggedIn.size() > 1) {
    s_loggedIn.pop_front();
  }
  g_events.push_back(answer ? "user" : "no user");
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
  Record("pingback", Text(previousVersion));
}

@end

@interface ExceptionWithoutReason : NSException
@end

@implementation ExceptionWithoutReason

- (NSString*)reason {
  return nil;
}

@end

namespace {

using testing::Contains;
using testing::ElementsAreArray;
using testing::Not;

class PerformMainTest : public testing::Test {
 protected:
  PerformMainTest() {
    s_loggedIn = {true};
    s_consoleUser = [[NSMutableString alloc] initWithString:@"alice"];
    s_decompressionResult = 0;
    s_previousVersion = nil;
    s_actions.clear();
    g_events.clear();
    g_logCanBeOpened = true;
  }
  ~PerformMainTest() override {
    Forget();
    [s_consoleUser release];
    s_consoleUser = nil;
    [pool_ release];
  }

  /// Runs the finalizer with these arguments after its own name.
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

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
};

Events operator+(Events left, const Events& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Events kLogSetUp = {"log level 4", "log prefix FIN: ", "[3] [finalizer started]"};
const Events kLogOfAlice =
    Events{"user", "console user",
           "log file /Users/alice/Library/Logs/KorvelPlayerInstallManager.log"} +
    kLogSetUp;
const Events kLogOfTheMachine =
    Events{"no user", "log file /Library/Logs/KorvelPlayerInstallManager.log"} + kLogSetUp;
constexpr char kDisabling[] = "[3] Disabling Analytics in rks.cfg";
constexpr char kSucceeded[] = "[3] [finalizer succeeded]";

// ---- The sequence

struct Sequence {
  const char* name;
  std::vector<std::string> arguments;
  std::deque<bool> loggedIn;
  Events afterTheStart;
};

const Sequence kSequences[] = {
    {"BootVolume",
     {"/"},
     {true},
     {"decompress /", "user", "remove obsolete files", "previous version /", "pingback (absent)",
      "user", "express install", kSucceeded}},
    {"BootVolumeWithTheSwitch",
     {"/", "-disableAnalytics"},
     {true},
     {"decompress /", "user", "remove obsolete files", "previous version /", "pingback (absent)",
      "user", "express install", kDisabling, "disable analytics /", kSucceeded}},
    {"SwitchInAnyPosition",
     {"/", "x", "-disableAnalytics"},
     {true},
     {"decompress /", "user", "remove obsolete files", "previous version /", "pingback (absent)",
      "user", "express install", kDisabling, "disable analytics /", kSucceeded}},
    {"SwitchInAnotherCase",
     {"/", "-DisableAnalytics"},
     {true},
     {"decompress /", "user", "remove obsolete files", "previous version /", "pingback (absent)",
      "user", "express install", kSucceeded}},
    {"AnotherVolume",
     {"/Volumes/Target", "-disableAnalytics"},
     {true},
     {"decompress /Volumes/Target", "user", "previous version /Volumes/Target", "pingback (absent)",
      "user", kDisabling, "disable analytics /Volumes/Target", kSucceeded}},
    {"NoUser",
     {"/"},
     {false},
     {"decompress /", "no user", "previous version /", "pingback (absent)", "no user", kSucceeded}},
    {"NoUserWithTheSwitch",
     {"/", "-disableAnalytics"},
     {false},
     {"decompress /", "no user", "previous version /", "pingback (absent)", "no user", kDisabling,
      "disable analytics /", kSucceeded}},
    {"NoArguments",
     {},
     {true},
     {"decompress (absent)", "user", "previous version (absent)", "pingback (absent)", "user",
      kSucceeded}},
    {"SwitchThatIsTheInstallRootToo",
     {"-disableAnalytics"},
     {true},
     {"decompress -disableAnalytics", "user", "previous version -disableAnalytics",
      "pingback (absent)", "user", kDisabling, "disable analytics -disableAnalytics", kSucceeded}},
    {"EmptyRootIsNotTheBootVolume",
     {"", "-disableAnalytics"},
     {true},
     {"decompress", "user", "previous version", "pingback (absent)", "user", kDisabling,
      "disable analytics", kSucceeded}},
    {"TwoSlashesAreNotTheBootVolume",
     {"//"},
     {true},
     {"decompress //", "user", "previous version //", "pingback (absent)", "user", kSucceeded}},
    {"SlashAndDotAreNotTheBootVolume",
     {"/."},
     {true},
     {"decompress /.", "user", "previous version /.", "pingback (absent)", "user", kSucceeded}},
    {"RootInUTF8",
     {"/Volumes/V\xC3\xB6l 漢字"},
     {true},
     {"decompress /Volumes/V\xC3\xB6l 漢字", "user", "previous version /Volumes/V\xC3\xB6l 漢字",
      "pingback (absent)", "user", kSucceeded}},
    {"RootThatIsNotUTF8IsAbsent",
     {"/Volumes/\xC3", "-disableAnalytics"},
     {true},
     {"decompress (absent)", "user", "previous version (absent)", "pingback (absent)", "user",
      kDisabling, "disable analytics (absent)", kSucceeded}},
    {"UserWhoLogsOutBeforeTheObsoleteFiles",
     {"/"},
     {true, false, true},
     {"decompress /", "no user", "previous version /", "pingback (absent)", "user",
      "express install", kSucceeded}},
    {"UserWhoLogsInBeforeTheObsoleteFiles",
     {"/"},
     {false, true, false},
     {"decompress /", "user", "remove obsolete files", "previous version /", "pingback (absent)",
      "no user", kSucceeded}},
};

class SequenceTest : public PerformMainTest, public testing::WithParamInterface<Sequence> {};

TEST_P(SequenceTest, RunsItsStagesInOrder) {
  s_loggedIn = GetParam().loggedIn;
  const bool isLoggedInFirst = s_loggedIn.front();
  EXPECT_EQ(0, Run(GetParam().arguments));
  EXPECT_THAT(g_events, ElementsAreArray((isLoggedInFirst ? kLogOfAlice : kLogOfTheMachine) +
                                         GetParam().afterTheStart));
}

INSTANTIATE_TEST_SUITE_P(PerformMain, SequenceTest, testing::ValuesIn(kSequences),
                         [](const auto& row) { return row.param.name; });

TEST_F(PerformMainTest, NotEvenAProgramName) {
  char* argv[] = {nullptr};
  EXPECT_EQ(0, PerformMain(0, argv));
  EXPECT_THAT(g_events, Contains("decompress (absent)"));
}

TEST_F(PerformMainTest, PreviousVersionIsReported) {
  s_previousVersion = @"32.0.0.255";
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_THAT(g_events, Contains("pingback 32.0.0.255"));
}

TEST_F(PerformMainTest, FailedDecompressionEndsTheRun) {
  for (int status : {1, 2, -1}) {
    s_decompressionResult = status;
    EXPECT_EQ(status, Run({"/", "-disableAnalytics"}));
    EXPECT_THAT(g_events, ElementsAreArray(kLogOfAlice +
                                           Events{"decompress /",
                                                  "[1] [finalizer failed to decompress plugin]"}));
    Forget();
  }
}

// ---- Stages that fail

const std::vector<std::pair<std::string, std::function<void()>>> kFailures = {
    {"it was told to", [] { [NSException raise:NSMallocException format:@"it was told to"]; }},
    {"(null)", [] { [ExceptionWithoutReason raise:@"x" format:@"x"]; }},
    {"not enough memory", [] { throw std::bad_alloc(); }},
    {"an exception of an unknown kind", [] { throw 1; }},
    {"an exception of an unknown kind", [] { @throw @"text"; }},
};

const std::map<std::string, std::string> kStages = {
    {"remove obsolete files", "Obsolete file removal"},
    {"previous version", "Previous version"},
    {"pingback", "Pingback"},
    {"express install", "Express install"},
    {"disable analytics", "Analytics opt-out"},
};

TEST_F(PerformMainTest, StageThatFailsIsLoggedAndEndsAlone) {
  for (const auto& [stage, name] : kStages) {
    EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
    const Events undisturbed = g_events;
    Forget();
    for (const auto& [reason, fail] : kFailures) {
      s_actions = {{stage, fail}};
      EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
      Events expected;
      for (const std::string& event : undisturbed) {
        expected.push_back(event);
        if (event.rfind(stage, 0) == 0) {
          expected.push_back("[1] ERROR: " + name + " failed: " + reason + ".");
        }
      }
      EXPECT_THAT(g_events, ElementsAreArray(expected)) << stage;
      EXPECT_EQ(undisturbed.size() + 1, g_events.size());
      Forget();
    }
    s_actions.clear();
  }
}

void RaiseAlways(id /*self*/, SEL /*selector*/, NSString* /*message*/, unsigned int /*level*/) {
  [NSException raise:NSMallocException format:@"no memory for a line"];
}

/// While it is set, each line of the log fails.
std::optional<ScopedMethodReplacement> s_noLines;

void LogNoLines() {
  s_noLines.emplace([KPIMLogger class], @selector(logTimeStampedString:withLoggingLevel:),
                    (IMP)RaiseAlways);
}

TEST_F(PerformMainTest, StageWhoseFailureCannotBeLoggedEndsAlone) {
  s_actions["pingback"] = [] {
    LogNoLines();
    throw std::bad_alloc();
  };
  s_actions["express install"] = [] { s_noLines.reset(); };
  EXPECT_EQ(0, Run({"/"}));
  EXPECT_EQ(kSucceeded, g_events.back());
}

TEST_F(PerformMainTest, LastLineThatCannotBeLoggedChangesNothing) {
  s_actions["express install"] = LogNoLines;
  EXPECT_EQ(0, Run({"/"}));
  s_noLines.reset();
  EXPECT_EQ("express install", g_events.back());
}

TEST_F(PerformMainTest, SignalsOfFailedWritesAreSurvived) {
  for (const int number : {SIGPIPE, SIGXFSZ}) {
    signal(number, SIG_DFL);
    EXPECT_EQ(0, Run({"/"}));
    Forget();
    EXPECT_EQ(0, raise(number));
    struct sigaction action = {};
    ASSERT_EQ(0, sigaction(number, nullptr, &action));
    EXPECT_NE(SIG_IGN, action.sa_handler) << "launched programs would inherit it";
  }
}

// ---- The log

TEST_F(PerformMainTest, LogThatCannotBeOpenedSilencesTheLogAlone) {
  EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
  Events withoutLines;
  for (const std::string& event : g_events) {
    if (event[0] != '[' && event.rfind("log level", 0) != 0 && event.rfind("log prefix", 0) != 0) {
      withoutLines.push_back(event);
    }
  }
  Forget();
  g_logCanBeOpened = false;
  EXPECT_EQ(0, Run({"/", "-disableAnalytics"}));
  EXPECT_EQ(nil, g_logger);
  EXPECT_THAT(g_events, ElementsAreArray(withoutLines));
  EXPECT_THAT(g_events, Contains("disable analytics /"));
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
    // Retained here, so that the test notices a logger that the pool releases.
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
  EXPECT_EQ(kSucceeded, g_events.back());
}

}  // namespace
