#import "shared/platform/mac/ElevatedLaunch.h"

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <thread>

#include "shared/platform/mac/MacSystemVersion.h"
#include "tests/unit/ElevatedLaunch/FakePlatform.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;

NSString* const kLabel = @"com.example.tool";
constexpr MacSystemVersion kSnowLeopard = {10, 6, 8};
constexpr MacSystemVersion kLion = {10, 7, 0};
constexpr pid_t kToolProcess = 70001;

const char kCreate[] = "create 19 com.apple.ServiceManagement.blesshelper no value 0 0";
const char kRemove[] = "remove system com.example.tool authorized wait";
const char kSubmit[] = "submit system authorized";
const char kFree[] = "free authorized 0";
const char kExecute[] = "execute authorized 0";

std::string Text(NSString* text) { return text == nil ? "(nil)" : [text UTF8String]; }

NSString* Character(unichar character) {
  return [NSString stringWithCharacters:&character length:1];
}

class ElevatedLaunchTest : public testing::Test {
 protected:
  ElevatedLaunchTest() {
    ResetFakePlatform();
    MacSystemVersion::sCachedSystemVersion = kLion;
    toolPath_ = folder_ / "tool";
    std::ofstream(toolPath_) << "#";
    char* resolved = realpath(toolPath_.c_str(), nullptr);
    executable_ = resolved;
    free(resolved);
    // The tool's process is there at the first look, and gone at the second.
    fakePlatform->tables = {{kToolProcess, 1}, {1, 1}};
    fakePlatform->paths[kToolProcess] = executable_;
  }
  ~ElevatedLaunchTest() override {
    NSString* file = OutputPath();
    if (file != nil) {
      unlink([file UTF8String]);
    }
    MacSystemVersion::sCachedSystemVersion = MacSystemVersion::sMacSystemVersionUninitialized;
  }

  NSString* Tool() const { return [NSString stringWithUTF8String:toolPath_.c_str()]; }
  static NSString* OutputPath() { return [fakePlatform->job objectForKey:@"StandardOutPath"]; }
  bool Launch(NSString** output) const {
    return launchElevatedWithAuthorization(kFakeAuthorization, kLabel, Tool(), nil, output);
  }
  /// Lets the tool print `text` when its job is submitted.
  static void ToolPrints(const std::string& text) {
    fakePlatform->onSubmit = [text] {
      std::ofstream([OutputPath() UTF8String], std::ios::binary) << text;
    };
  }
  static bool LaunchDirectly(NSArray* arguments, NSString** output) {
    return launchElevatedWithAuthorizationOnSnowLeopard(kFakeAuthorization, @"/bin/tool", arguments,
                                                        output);
  }
  static std::string DirectOutput(const std::string& printed) {
    fakePlatform->printed = printed;
    NSString* output = nil;
    EXPECT_TRUE(LaunchDirectly(nil, &output));
    return Text(output);
  }

  TemporaryFolder folder_;
  std::string toolPath_;
  std::string executable_;
};

// --- The authorization ---

TEST_F(ElevatedLaunchTest, AuthorizationIsAskedForUsedAndFreed) {
  EXPECT_TRUE(launchElevated(kLabel, Tool(), nil, nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kCreate, kRemove, kSubmit, kFree));
}

TEST_F(ElevatedLaunchTest, RefusedAuthorizationRunsNothing) {
  for (const OSStatus status : {errAuthorizationDenied, errAuthorizationCanceled}) {
    ResetFakePlatform();
    fakePlatform->createStatus = status;
    NSString* output = @"before";
    EXPECT_FALSE(launchElevated(kLabel, Tool(), nil, &output));
    EXPECT_THAT(fakePlatform->calls, ElementsAre(kCreate));
    EXPECT_EQ("before", Text(output));
  }
}

TEST_F(ElevatedLaunchTest, AuthorizationIsFreedAfterAFailure) {
  fakePlatform->submitResult = false;
  EXPECT_FALSE(launchElevated(kLabel, Tool(), nil, nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kCreate, kRemove, kSubmit, kFree));
}

TEST_F(ElevatedLaunchTest, AuthorizationIsFreedWhenAnObjectRaises) {
  fakePlatform->onSubmit = [] { [NSException raise:NSGenericException format:@"raised"]; };
  bool raised = false;
  @try {
    launchElevated(kLabel, Tool(), nil, nullptr);
  } @catch (NSException*) {
    raised = true;
  }
  EXPECT_TRUE(raised);
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kCreate, kRemove, kSubmit, kFree));
}

TEST_F(ElevatedLaunchTest, EmptyTextsAreArgumentsToo) {
  NSArray* arguments = [NSArray arrayWithObjects:@"", @"x", @"", nil];
  EXPECT_TRUE(LaunchDirectly(arguments, nullptr));
  EXPECT_THAT(fakePlatform->toolArguments, ElementsAre("", "x", ""));
}

TEST_F(ElevatedLaunchTest, WhatTheToolPrintsIsPassedOn) {
  ToolPrints("hello\n");
  NSString* output = nil;
  EXPECT_TRUE(launchElevated(kLabel, Tool(), nil, &output));
  EXPECT_EQ("hello\n", Text(output));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kCreate, kRemove, kSubmit, kRemove, kFree));
}

// --- The system's version ---

TEST_F(ElevatedLaunchTest, SystemsUpTo10_6RunTheToolDirectly) {
  for (const MacSystemVersion& version : {kSnowLeopard, MacSystemVersion{10, 6, 0},
                                          MacSystemVersion{10, 5, 8}, MacSystemVersion{9, 99, 0}}) {
    fakePlatform->calls.clear();
    MacSystemVersion::sCachedSystemVersion = version;
    EXPECT_TRUE(Launch(nullptr));
    EXPECT_THAT(fakePlatform->calls, ElementsAre(kExecute))
        << version.major << "." << version.minor;
  }
}

TEST_F(ElevatedLaunchTest, SystemsFrom10_7OnSubmitAJob) {
  for (const MacSystemVersion& version :
       {kLion, MacSystemVersion{10, 15, 7}, MacSystemVersion{11, 0, 0}, MacSystemVersion{14, 5, 0},
        MacSystemVersion{40000, 0, 0}}) {
    fakePlatform->calls.clear();
    unlink([OutputPath() UTF8String] == nullptr ? "" : [OutputPath() UTF8String]);
    MacSystemVersion::sCachedSystemVersion = version;
    EXPECT_TRUE(Launch(nullptr));
    EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit))
        << version.major << "." << version.minor;
  }
}

NSString* versionInFile;

NSDictionary* VersionProperties(id /*self*/, SEL /*selector*/, NSURL* /*url*/) {
  return [NSDictionary dictionaryWithObject:versionInFile forKey:@"ProductVersion"];
}

TEST_F(ElevatedLaunchTest, TheVersionIsFoundOnFirstUseAndKept) {
  const ScopedMethodReplacement replacement(
      [NSDictionary class], @selector(dictionaryWithContentsOfURL:), (IMP)VersionProperties,
      ScopedMethodReplacement::kClassMethod);
  MacSystemVersion::sCachedSystemVersion = MacSystemVersion::sMacSystemVersionUninitialized;
  versionInFile = @"10.6.8";
  EXPECT_TRUE(Launch(nullptr));
  EXPECT_EQ(kSnowLeopard, MacSystemVersion::sCachedSystemVersion);
  versionInFile = @"10.9.5";
  EXPECT_TRUE(Launch(nullptr));
  EXPECT_EQ(kSnowLeopard, MacSystemVersion::sCachedSystemVersion);
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kExecute, kExecute));
}

// --- The job ---

TEST_F(ElevatedLaunchTest, JobHasFiveKeys) {
  NSArray* arguments = [NSArray arrayWithObjects:@"-a", @"", @"b c", @"\u00e9", nil];
  EXPECT_TRUE(
      launchElevatedWithAuthorization(kFakeAuthorization, kLabel, Tool(), arguments, nullptr));
  NSDictionary* expected =
      [NSDictionary dictionaryWithObjectsAndKeys:kLabel, @"Label", [NSNumber numberWithBool:YES],
                                                 @"RunAtLoad", [NSNumber numberWithBool:NO],
                                                 @"KeepAlive", OutputPath(), @"StandardOutPath",
                                                 [[NSArray arrayWithObject:Tool()]
                                                     arrayByAddingObjectsFromArray:arguments],
                                                 @"ProgramArguments", nil];
  for (NSString *key in [NSArray arrayWithObjects:@"RunAtLoad", @"KeepAlive", nil]) {
    EXPECT_STREQ([[NSNumber numberWithBool:YES] objCType],
                 [[fakePlatform->job objectForKey:key] objCType]);
  }
  EXPECT_TRUE([fakePlatform->job isEqual:expected]) << [[fakePlatform->job description] UTF8String];
}

TEST_F(ElevatedLaunchTest, ToolIsNamedAsGivenAndLookedForByItsRealPath) {
  const std::string link = folder_ / "link";
  ASSERT_EQ(0, symlink("tool", link.c_str()));
  ToolPrints("x");
  NSString* output = nil;
  NSString* path = [NSString stringWithUTF8String:(folder_ / "./link").c_str()];
  EXPECT_TRUE(launchElevatedWithAuthorization(kFakeAuthorization, kLabel, path, nil, &output));
  EXPECT_EQ("x", Text(output));
  EXPECT_TRUE([[fakePlatform->job objectForKey:@"ProgramArguments"]
      isEqual:[NSArray arrayWithObject:path]]);
}

TEST_F(ElevatedLaunchTest, OutputFileIsNewPrivateAndStays) {
  std::set<std::string> paths;
  for (int i = 0; i < 3; ++i) {
    fakePlatform->tables = {{kToolProcess, 1}, {1, 1}};
    NSString* output = nil;
    EXPECT_TRUE(Launch(&output));
    const std::string path = Text(OutputPath());
    EXPECT_THAT(path, testing::MatchesRegex("/tmp/tarvixsmuoutp[A-Za-z0-9]{6}"));
    EXPECT_TRUE(paths.insert(path).second);
    struct stat status = {};
    ASSERT_EQ(0, lstat(path.c_str(), &status));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), status.st_mode);
    EXPECT_EQ(geteuid(), status.st_uid);
  }
  for (const std::string& path : paths) {
    EXPECT_EQ(0, unlink(path.c_str()));
  }
}

TEST_F(ElevatedLaunchTest, ToolThatIsMissingIsNotSubmitted) {
  for (NSString* path : {@"/no/such/tool", @"", (NSString*)nil}) {
    fakePlatform->calls.clear();
    NSString* output = @"before";
    EXPECT_FALSE(launchElevatedWithAuthorization(kFakeAuthorization, kLabel, path, nil, &output));
    EXPECT_EQ("(nil)", Text(output));
    EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove));
  }
}

TEST_F(ElevatedLaunchTest, ToolPathWithAZeroCharacterIsNotCut) {
  NSString* path = [Tool() stringByAppendingString:Character(0)];
  EXPECT_FALSE(launchElevatedWithAuthorization(kFakeAuthorization, kLabel, path, nil, nullptr));
  EXPECT_FALSE(
      launchElevatedWithAuthorizationOnSnowLeopard(kFakeAuthorization, path, nil, nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove));
}

TEST_F(ElevatedLaunchTest, JobWithoutLabelIsRefused) {
  NSString* output = @"before";
  EXPECT_FALSE(launchElevatedWithAuthorization(kFakeAuthorization, nil, Tool(), nil, &output));
  EXPECT_EQ("(nil)", Text(output));
  EXPECT_THAT(fakePlatform->calls, ElementsAre());
}

TEST_F(ElevatedLaunchTest, RefusedSubmission) {
  fakePlatform->submitResult = false;
  NSString* output = @"before";
  EXPECT_FALSE(Launch(&output));
  EXPECT_EQ("(nil)", Text(output));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit));
  EXPECT_EQ(0u, fakePlatform->listings);
}

TEST_F(ElevatedLaunchTest, WithoutOutputNobodyWaits) {
  EXPECT_TRUE(Launch(nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit));
  EXPECT_EQ(0u, fakePlatform->listings);
}

TEST_F(ElevatedLaunchTest, RemovalThatSucceedsChangesNothing) {
  fakePlatform->removeResult = true;
  EXPECT_TRUE(Launch(nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit));
}

TEST_F(ElevatedLaunchTest, OutputIsReadWhenTheProcessIsGone) {
  ToolPrints("early");
  fakePlatform->tables = {{1, 1}, {1, 1}, {kToolProcess, 1}, {kToolProcess, 1}, {kToolProcess, 1},
                          {1, 1}};
  fakePlatform->onPoll = [](size_t listing) {
    if (listing == 5) {
      std::ofstream([OutputPath() UTF8String], std::ios::app) << " and late";
    }
  };
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ("early and late", Text(output));
  EXPECT_EQ(6u, fakePlatform->listings);
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit, kRemove));
}

TEST_F(ElevatedLaunchTest, ProcessThatNeverAppearsIsGivenUpAfter3Seconds) {
  fakePlatform->tables = {{1, 1}};
  fakePlatform->times = {1000, 1000, 1001, 1002, 1002, 1003, 1004};
  ToolPrints("unseen");
  NSString* output = @"before";
  EXPECT_FALSE(Launch(&output));
  EXPECT_EQ("(nil)", Text(output));
  EXPECT_EQ(5u, fakePlatform->listings);
  EXPECT_EQ(6u, fakePlatform->timesTold);
  // The job is left to the next launch.
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit));
}

TEST_F(ElevatedLaunchTest, TheLastLookIsAtTheThirdSecond) {
  fakePlatform->tables = {{1, 1}, {1, 1}, {kToolProcess, 1}, {1, 1}};
  fakePlatform->times = {1000, 1002, 1002, 1003};
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ(3u, fakePlatform->timesTold);
}

TEST_F(ElevatedLaunchTest, OnlyTheAppearanceHasALimit) {
  fakePlatform->tables.assign(50, {kToolProcess, 1});
  fakePlatform->tables.push_back({1, 1});
  fakePlatform->times = {1000, 5000};
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ(51u, fakePlatform->listings);
  EXPECT_EQ(1u, fakePlatform->timesTold);
}

TEST_F(ElevatedLaunchTest, OutputThatIsNotUTF8IsAbsent) {
  ToolPrints("\xff\xfe\x80");
  NSString* output = @"before";
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ("(nil)", Text(output));
}

TEST_F(ElevatedLaunchTest, OutputFileThatIsGoneIsAbsent) {
  fakePlatform->onSubmit = [] { unlink([OutputPath() UTF8String]); };
  NSString* output = @"before";
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ("(nil)", Text(output));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove, kSubmit, kRemove));
}

TEST_F(ElevatedLaunchTest, OutputIsReadBeforeTheJobIsRemoved) {
  ToolPrints("text");
  fakePlatform->onRemove = [] {
    if (OutputPath() != nil) {
      unlink([OutputPath() UTF8String]);
    }
  };
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ("text", Text(output));
}

TEST_F(ElevatedLaunchTest, ToolThatPrintsNothingGivesEmptyText) {
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ("", Text(output));
}

TEST_F(ElevatedLaunchTest, LinesAndThePartialLastOneAreKept) {
  ToolPrints("one\ntwo \xc3\xa9\nthree");
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_EQ("one\ntwo \xc3\xa9\nthree", Text(output));
}

// --- Direct execution ---

TEST_F(ElevatedLaunchTest, ArgumentsReachTheToolUnchanged) {
  NSArray* arguments =
      [NSArray arrayWithObjects:@"a b", @"", @"\"'", @"%n$HOME;`x`\\", @"\u00e9\U0001F600", nil];
  EXPECT_TRUE(LaunchDirectly(arguments, nullptr));
  EXPECT_EQ("/bin/tool", fakePlatform->toolPath);
  EXPECT_THAT(fakePlatform->toolArguments,
              ElementsAre("a b", "", "\"'", "%n$HOME;`x`\\", "\xc3\xa9\xf0\x9f\x98\x80"));
}

TEST_F(ElevatedLaunchTest, ArgumentWithAZeroCharacterIsNotCut) {
  NSString* argument = [@"--only=a" stringByAppendingString:Character(0)];
  NSString* output = nil;
  EXPECT_FALSE(LaunchDirectly([NSArray arrayWithObject:argument], &output));
  EXPECT_EQ("", Text(output));
  EXPECT_THAT(fakePlatform->calls, ElementsAre());
}

TEST_F(ElevatedLaunchTest, HalfOfASurrogatePairIsRefusedOrKeptAndRaisesNothing) {
  NSString* argument = [NSString stringWithFormat:@"a%Cb", static_cast<unichar>(0xD800)];
  ASSERT_EQ(3u, [argument length]) << "other ways to make it end in nil on Linux";
  const bool result = LaunchDirectly([NSArray arrayWithObject:argument], nullptr);
  EXPECT_EQ(result ? 1u : 0u, fakePlatform->toolArguments.size());
  for (const std::string& each : fakePlatform->toolArguments) {
    EXPECT_EQ('a', each.front());
    EXPECT_EQ('b', each.back());
  }
}

TEST_F(ElevatedLaunchTest, RefusedExecutionLeavesEmptyText) {
  fakePlatform->executeStatus = errAuthorizationToolExecuteFailure;
  NSString* output = @"before";
  EXPECT_FALSE(LaunchDirectly(nil, &output));
  EXPECT_EQ("", Text(output));
  EXPECT_FALSE(LaunchDirectly(nil, nullptr));
}

TEST_F(ElevatedLaunchTest, DirectLinesAndThePartialLastOneAreKept) {
  EXPECT_EQ("one\ntwo\nthree", DirectOutput("one\ntwo\nthree"));
  EXPECT_EQ("one\n", DirectOutput("one\n"));
  EXPECT_EQ("\n\n", DirectOutput("\n\n"));
  EXPECT_EQ("", DirectOutput(""));
}

TEST_F(ElevatedLaunchTest, WithoutASlotTheOutputIsReadAndDropped) {
  fakePlatform->printed = "one\ntwo";
  EXPECT_TRUE(LaunchDirectly(nil, nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kExecute));
}

TEST_F(ElevatedLaunchTest, LineOf4096BytesWithoutItsEndIsTheLast) {
  const std::string line(4096, 'x');
  EXPECT_EQ("a\n" + line, DirectOutput("a\n" + line + "y\nz\n"));
  EXPECT_EQ("a\n" + line, DirectOutput("a\n" + line + "\nz\n"));
  EXPECT_EQ(line, DirectOutput(line));
}

TEST_F(ElevatedLaunchTest, LineOf4096BytesWithItsEndIsOneOfMany) {
  const std::string line = std::string(4095, 'x') + "\n";
  EXPECT_EQ(line + line + "z", DirectOutput(line + line + "z"));
}

TEST_F(ElevatedLaunchTest, LineThatIsNotUTF8IsLatin1) {
  EXPECT_EQ("\xc3\xa9\n\xc3\xa9\n", DirectOutput("\xe9\n\xc3\xa9\n"));
}

TEST_F(ElevatedLaunchTest, LastLineThatEndsWithinACharacterIsLatin1) {
  std::string printed = "x";
  std::string expected = "x";
  for (int i = 0; i < 2100; ++i) {
    printed += "\xc3\xa9";
  }
  for (int i = 0; i < 2047; ++i) {
    expected += "\xc3\x83\xc2\xa9";
  }
  EXPECT_EQ(expected + "\xc3\x83", DirectOutput(printed));
}

TEST_F(ElevatedLaunchTest, NothingIsReadBeyondALineThatIsTooLong) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const std::string line(4096, 'x');
  ASSERT_EQ(4096, write(ends[1], line.data(), line.size()));
  // The other end stays open: reading one byte more would not return.
  fakePlatform->openPipe = [&ends] { return fdopen(ends[0], "r"); };
  NSString* output = nil;
  EXPECT_TRUE(LaunchDirectly(nil, &output));
  EXPECT_EQ(line, Text(output));
  close(ends[1]);
}

TEST_F(ElevatedLaunchTest, ASignalIsNotTheEnd) {
  struct sigaction action = {};
  struct sigaction before;
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, &before);
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  fakePlatform->openPipe = [&ends] { return fdopen(ends[0], "r"); };
  const pthread_t reader = pthread_self();
  std::thread writer([&ends, reader] {
    for (int i = 0; i < 10; ++i) {
      usleep(5000);
      pthread_kill(reader, SIGUSR1);
    }
    EXPECT_EQ(4, write(ends[1], "late", 4));
    close(ends[1]);
  });
  NSString* output = nil;
  EXPECT_TRUE(LaunchDirectly(nil, &output));
  writer.join();
  sigaction(SIGUSR1, &before, nullptr);
  EXPECT_EQ("late", Text(output));
}

/// The descriptor that the next open(2) returns.
int LowestFreeDescriptor() {
  const int file = dup(STDERR_FILENO);
  close(file);
  return file;
}

TEST_F(ElevatedLaunchTest, NoDescriptorIsLeftOpen) {
  const int before = LowestFreeDescriptor();
  NSString* output = nil;
  EXPECT_TRUE(Launch(&output));
  EXPECT_TRUE(LaunchDirectly(nil, &output));
  EXPECT_EQ(before, LowestFreeDescriptor());
}

TEST_F(ElevatedLaunchTest, WithoutAnOutputFileNothingIsSubmitted) {
  struct rlimit limit;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  struct rlimit none = limit;
  none.rlim_cur = static_cast<rlim_t>(LowestFreeDescriptor());
  NSString* tool = Tool();
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  // Only this call with the limit: the sanitizer's check of an object needs a descriptor.
  const bool result =
      launchElevatedWithAuthorization(kFakeAuthorization, kLabel, tool, nil, nullptr);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
  EXPECT_FALSE(result);
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kRemove));
}

TEST_F(ElevatedLaunchTest, WhatIsNoTextIsRefused) {
  NSArray* arguments = [NSArray arrayWithObject:[NSNumber numberWithInt:1]];
  EXPECT_FALSE(LaunchDirectly(arguments, nullptr));
  EXPECT_THAT(fakePlatform->calls, ElementsAre());
}

TEST_F(ElevatedLaunchTest, ZeroBytesAreKept) {
  fakePlatform->printed = std::string("a\0b\n", 4);
  NSString* output = nil;
  EXPECT_TRUE(LaunchDirectly(nil, &output));
  EXPECT_EQ(4u, [output length]);
}

TEST_F(ElevatedLaunchTest, DirectExecutionThroughTheCommonEntry) {
  MacSystemVersion::sCachedSystemVersion = kSnowLeopard;
  fakePlatform->printed = "hello";
  NSString* output = nil;
  EXPECT_TRUE(launchElevated(kLabel, @"relative/tool", [NSArray arrayWithObject:@"-x"], &output));
  EXPECT_EQ("hello", Text(output));
  EXPECT_EQ("relative/tool", fakePlatform->toolPath);
  EXPECT_THAT(fakePlatform->toolArguments, ElementsAre("-x"));
  EXPECT_THAT(fakePlatform->calls, ElementsAre(kCreate, kExecute, kFree));
}

}  // namespace
