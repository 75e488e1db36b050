#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <vector>

#include "KPVendorConfig.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;

constexpr char kStamp[] = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4} ";
constexpr size_t kStampLength = 26;

class KPIMLoggerTest : public testing::Test {
 protected:
  KPIMLoggerTest() : file_(folder_ / "install.log") {}
  ~KPIMLoggerTest() override { [pool_ release]; }

  KPIMLogger* Open() { return [[[KPIMLogger alloc] initWithPath:String(file_)] autorelease]; }

  /// The lines of the log without their time stamps, which are checked for their form.
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    std::ifstream file(file_);
    for (std::string line; std::getline(file, line);) {
      EXPECT_THAT(line, ContainsRegex("^" + std::string(kStamp)));
      lines.push_back(line.substr(std::min(kStampLength, line.size())));
    }
    return lines;
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
  std::string file_;
};

TEST_F(KPIMLoggerTest, IsRegisteredUnderItsLongName) {
  EXPECT_EQ("KP_DECOMP_KPIMLogger", Text(NSStringFromClass([KPIMLogger class])));
  EXPECT_EQ([NSObject class], [KPIMLogger superclass]);
}

TEST_F(KPIMLoggerTest, InstanceVariablesInOrder) {
  unsigned int count = 0;
  Ivar* ivars = class_copyIvarList([KPIMLogger class], &count);
  std::vector<std::string> names;
  std::vector<std::string> types;
  for (unsigned int i = 0; i < count; ++i) {
    names.push_back(ivar_getName(ivars[i]));
    types.push_back(ivar_getTypeEncoding(ivars[i]));
  }
  free(ivars);
  EXPECT_THAT(names, ElementsAre("mLogFH", "mLoggingLevel", "mPrefix"));
  EXPECT_THAT(types, ElementsAre("@\"NSFileHandle\"", "I", "@\"NSString\""));
}

TEST_F(KPIMLoggerTest, InitYieldsNoObject) { EXPECT_EQ(nil, [[KPIMLogger alloc] init]); }

TEST_F(KPIMLoggerTest, LineOfTheFinalizer) {
  KPIMLogger* logger = Open();
  [logger setLoggingLevel:4];
  [logger setPrefix:@"FIN: "];
  [logger logTimeStampedString:@"[finalizer started]" withLoggingLevel:3];
  EXPECT_THAT(ReadWholeFile(file_),
              MatchesRegex(std::string(kStamp) + "\\[I\\] FIN: \\[finalizer started\\]\n"));
}

/// The moment of the first line's stamp; its offset from GMT in seconds is in `offset`.
time_t Stamp(const std::string& log, long& offset) {
  struct tm stamp = {};
  EXPECT_NE(nullptr, strptime(log.c_str(), "%Y-%m-%d %H:%M:%S %z", &stamp));
  offset = stamp.tm_gmtoff;
  return timegm(&stamp) - offset;
}

TEST_F(KPIMLoggerTest, StampIsTheCurrentTime) {
  const time_t before = time(nullptr);
  [Open() logTimeStampedString:@"x" withLoggingLevel:1];
  const time_t after = time(nullptr);

  long offset = 0;
  const time_t logged = Stamp(ReadWholeFile(file_), offset);
  EXPECT_GE(logged, before);
  EXPECT_LE(logged, after);
}

/// Sets TZ for the length of a scope.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    const char* saved = getenv("TZ");
    wasSet_ = saved != nullptr;
    saved_ = wasSet_ ? saved : "";
    setenv("TZ", zone, 1);
    Apply();
  }
  ~ScopedTimeZone() {
    wasSet_ ? setenv("TZ", saved_.c_str(), 1) : unsetenv("TZ");
    Apply();
  }

 private:
  /// Foundation keeps the local time zone until it is reset.
  static void Apply() {
    tzset();
    [NSTimeZone resetSystemTimeZone];
  }

  bool wasSet_;
  std::string saved_;
};

TEST_F(KPIMLoggerTest, StampIsInTheLocalTimeZone) {
  const ScopedTimeZone zone("XXX-05:30");
  const time_t before = time(nullptr);
  [Open() logTimeStampedString:@"x" withLoggingLevel:1];
  const time_t after = time(nullptr);

  const std::string log = ReadWholeFile(file_);
  EXPECT_EQ(" +0530 ", log.substr(kStampLength - 7, 7));
  long offset = 0;
  const time_t logged = Stamp(log, offset);
  EXPECT_EQ(19800, offset);
  EXPECT_GE(logged, before);
  EXPECT_LE(logged, after);
}

/// The moment that the tests' clock shows, in seconds since 1970.
NSTimeInterval s_now;

id Now(id /*self*/, SEL /*selector*/) { return [NSDate dateWithTimeIntervalSince1970:s_now]; }

TEST_F(KPIMLoggerTest, StampsOfFixedMoments) {
  const ScopedTimeZone zone("UTC");
  const ScopedMethodReplacement now([NSDate class], @selector(date), (IMP)Now,
                                    ScopedMethodReplacement::kClassMethod);
  const std::pair<NSTimeInterval, const char*> kMoments[] = {
      // The last week of a year, of which the next year's first week has a part.
      {1546229106, "2018-12-31 04:05:06 +0000 [E] x\n"},
      {1478469849, "2016-11-06 22:04:09 +0000 [E] x\n"},
      {951782400, "2000-02-29 00:00:00 +0000 [E] x\n"},
  };
  for (const auto& [moment, line] : kMoments) {
    s_now = moment;
    [Open() logTimeStampedString:@"x" withLoggingLevel:1];
    EXPECT_EQ(line, ReadWholeFile(file_));
    fs::remove(file_);
  }
}

NSLocale* BuddhistLocale(id /*self*/, SEL /*selector*/) {
  return [[[NSLocale alloc] initWithLocaleIdentifier:@"th_TH@calendar=buddhist;numbers=thai"]
      autorelease];
}

TEST_F(KPIMLoggerTest, StampIgnoresTheUsersLocale) {
  ScopedMethodReplacement locale([NSLocale class], @selector(currentLocale), (IMP)BuddhistLocale,
                                 ScopedMethodReplacement::kClassMethod);
  [Open() logTimeStampedString:@"x" withLoggingLevel:1];
  struct tm now;
  const time_t seconds = time(nullptr);
  localtime_r(&seconds, &now);
  EXPECT_THAT(Lines(), ElementsAre("[E] x"));
  EXPECT_EQ(std::to_string(now.tm_year + 1900), ReadWholeFile(file_).substr(0, 4));
}

TEST_F(KPIMLoggerTest, LevelOneAndNoPrefixAtFirst) {
  KPIMLogger* logger = Open();
  for (unsigned int level = 1; level <= 5; ++level) {
    [logger logTimeStampedString:@"message" withLoggingLevel:level];
  }
  EXPECT_THAT(Lines(), ElementsAre("[E] message"));
}

TEST_F(KPIMLoggerTest, LevelFourWritesUpToFourWithTheirTags) {
  KPIMLogger* logger = Open();
  [logger setLoggingLevel:4];
  for (unsigned int level = 0; level <= 5; ++level) {
    [logger logTimeStampedString:[NSString stringWithFormat:@"level %u", level]
                withLoggingLevel:level];
  }
  EXPECT_THAT(Lines(),
              ElementsAre("level 0", "[E] level 1", "[W] level 2", "[I] level 3", "level 4"));
}

TEST_F(KPIMLoggerTest, LevelZeroSilencesEvenErrors) {
  KPIMLogger* logger = Open();
  [logger setLoggingLevel:0];
  [logger logTimeStampedString:@"error" withLoggingLevel:1];
  EXPECT_THAT(Lines(), ElementsAre());
}

TEST_F(KPIMLoggerTest, LevelsAreUnsigned) {
  KPIMLogger* logger = Open();
  [logger setLoggingLevel:4];
  [logger logTimeStampedString:@"above" withLoggingLevel:0xFFFFFFFFu];
  [logger setLoggingLevel:0xFFFFFFFFu];
  [logger logTimeStampedString:@"as high" withLoggingLevel:0xFFFFFFFFu];
  EXPECT_THAT(Lines(), ElementsAre("as high"));
}

TEST_F(KPIMLoggerTest, LogStringWritesAsGivenAtAnyLevel) {
  KPIMLogger* logger = Open();
  [logger setPrefix:@"FIN: "];
  [logger logString:@"as " withLoggingLevel:99];
  [logger logString:@"given\n" withLoggingLevel:0];
  EXPECT_EQ("as given\n", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, AppendsToWhatTheFileHolds) {
  WriteWholeFile(file_, "no newline at the end");
  [Open() logString:@"+1" withLoggingLevel:1];
  [Open() logString:@"+2" withLoggingLevel:1];
  EXPECT_EQ("no newline at the end+1+2", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, OpeningAloneWritesNothing) {
  WriteWholeFile(file_, "kept");
  EXPECT_NE(nil, Open());
  EXPECT_EQ("kept", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, KeepsWhatOthersAppendInBetween) {
  KPIMLogger* one = Open();
  KPIMLogger* two = Open();
  [one setPrefix:@"FIN: "];
  [two setPrefix:@" VM: "];
  [one logTimeStampedString:@"1" withLoggingLevel:1];
  [two logTimeStampedString:@"2" withLoggingLevel:1];
  std::ofstream(file_, std::ios::app) << "2000-01-01 00:00:00 +0000 other process\n";
  [one logTimeStampedString:@"3" withLoggingLevel:1];
  EXPECT_THAT(Lines(), ElementsAre("[E] FIN: 1", "[E]  VM: 2", "other process", "[E] FIN: 3"));
}

TEST_F(KPIMLoggerTest, FollowsAFileThatWasCutMeanwhile) {
  KPIMLogger* logger = Open();
  [logger logString:@"a long line\n" withLoggingLevel:1];
  ASSERT_EQ(0, truncate(file_.c_str(), 0));
  [logger logString:@"new\n" withLoggingLevel:1];
  EXPECT_EQ("new\n", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, MissingFileIsCreated) {
  EXPECT_NE(nil, Open());
  EXPECT_TRUE(fs::is_regular_file(file_));
  EXPECT_EQ(0u, fs::file_size(file_));
}

TEST_F(KPIMLoggerTest, CreatedFileHasTheDefaultPermissions) {
  for (const mode_t mask : {mode_t{0000}, mode_t{0002}, mode_t{0077}}) {
    fs::remove(file_);
    const mode_t saved = umask(mask);
    EXPECT_NE(nil, Open());
    umask(saved);
    EXPECT_EQ(0666 & ~mask, fs::permissions(file_));
  }
}

TEST_F(KPIMLoggerTest, MissingFolderIsNot) {
  file_ = folder_ / "missing/install.log";
  EXPECT_EQ(nil, Open());
  EXPECT_FALSE(fs::exists(folder_ / "missing"));
}

TEST_F(KPIMLoggerTest, FolderInTheFilesPlaceGivesNoLogger) {
  fs::create_directory(file_);
  EXPECT_EQ(nil, Open());
}

TEST_F(KPIMLoggerTest, AbsentPathGivesNoLogger) {
  EXPECT_EQ(nil, [[KPIMLogger alloc] initWithPath:nil]);
}

TEST_F(KPIMLoggerTest, UnwritableFileGivesNoLogger) {
  WriteWholeFile(file_, "kept");
  chmod(file_.c_str(), 0444);
  chmod(folder_.Path().c_str(), 0755);
  // Permissions do not bind root.
  const uid_t user = geteuid();
  if (user == 0) {
    ASSERT_EQ(0, seteuid(65534));
  }
  KPIMLogger* logger = Open();
  if (user == 0) {
    ASSERT_EQ(0, seteuid(0));
  }
  EXPECT_EQ(nil, logger);
  EXPECT_EQ("kept", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, AbsentLoggerIsSilent) {
  KPIMLogger* logger = nil;
  [logger setLoggingLevel:4];
  [logger setPrefix:@"FIN: "];
  [logger logTimeStampedString:@"x" withLoggingLevel:1];
  [logger logString:@"x" withLoggingLevel:1];
  [logger stampNewSessionStart];
  EXPECT_FALSE([logger assert:true message:nil]);
}

TEST_F(KPIMLoggerTest, SessionStamps) {
  KPIMLogger* logger = Open();
  [logger stampNewSessionStart];
  EXPECT_EQ("", ReadWholeFile(file_)) << "the stamps are information, above the first level";
  [logger setLoggingLevel:3];
  [logger setPrefix:@" VM: "];
  [logger stampNewSessionStart];
  [logger stampCurrentSessionEnd];
  EXPECT_THAT(Lines(), ElementsAre("[I]  VM: PPAPI 32.0.0.269 ---------- log start ----------",
                                   "[I]  VM: PPAPI 32.0.0.269 ---------- log end ----------"));
  EXPECT_STREQ("32.0.0.269", KP_VERSION_TEXT);
}

TEST_F(KPIMLoggerTest, AssertThatHoldsWritesNothing) {
  KPIMLogger* logger = Open();
  [logger setLoggingLevel:4];
  EXPECT_TRUE([logger assert:true message:@"unused"]);
  EXPECT_EQ("", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, AssertThatFails) {
  KPIMLogger* logger = Open();
  [logger setLoggingLevel:2];
  EXPECT_FALSE([logger assert:false message:@"because %@"]);
  EXPECT_FALSE([logger assert:false message:nil]);
  EXPECT_THAT(Lines(), ElementsAre("[W] ASSERTION FAILED: because %@",
                                   "[W] ASSERTION FAILED: (unknown reason)"));
}

TEST_F(KPIMLoggerTest, AssertIsAWarning) {
  EXPECT_FALSE([Open() assert:false message:@"x"]);
  EXPECT_EQ("", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, MessagesOfEveryKind) {
  KPIMLogger* logger = Open();
  [logger logTimeStampedString:nil withLoggingLevel:1];
  [logger logTimeStampedString:@"" withLoggingLevel:1];
  [logger logTimeStampedString:@"100%@ %s %n" withLoggingLevel:1];
  [logger logTimeStampedString:String("héllo 漢字 \xF0\x9F\x8D\x8C") withLoggingLevel:1];
  [logger setPrefix:String("é ")];
  [logger logTimeStampedString:@"x" withLoggingLevel:1];
  EXPECT_THAT(Lines(), ElementsAre("[E] (null)", "[E] ", "[E] 100%@ %s %n",
                                   "[E] héllo 漢字 \xF0\x9F\x8D\x8C", "[E] é x"));
}

TEST_F(KPIMLoggerTest, AbsentTextWritesNothing) {
  [Open() logString:nil withLoggingLevel:1];
  EXPECT_EQ("", ReadWholeFile(file_));
}

TEST_F(KPIMLoggerTest, MessageOfAMegabyte) {
  const std::string message(1024 * 1024, 'm');
  KPIMLogger* logger = Open();
  [logger logTimeStampedString:String(message) withLoggingLevel:1];
  [logger logTimeStampedString:@"next" withLoggingLevel:1];
  EXPECT_THAT(Lines(), ElementsAre("[E] " + message, "[E] next"));
}

// ---- The handle

std::vector<std::string> s_calls;
ScopedMethodReplacement* s_seek;
ScopedMethodReplacement* s_write;
ScopedMethodReplacement* s_synchronize;
ScopedMethodReplacement* s_close;

unsigned long long Seek(id self, SEL selector) {
  s_calls.push_back("seek");
  return ((unsigned long long (*)(id, SEL))s_seek->original())(self, selector);
}

void Write(id self, SEL selector, NSData* data) {
  s_calls.push_back("write " + std::to_string([data length]));
  ((void (*)(id, SEL, NSData*))s_write->original())(self, selector, data);
}

void Synchronize(id self, SEL selector) {
  s_calls.push_back("synchronize");
  ((void (*)(id, SEL))s_synchronize->original())(self, selector);
}

void Close(id self, SEL selector) {
  s_calls.push_back("close");
  ((void (*)(id, SEL))s_close->original())(self, selector);
}

Class HandleClass() {
  return object_getClass([NSFileHandle fileHandleForWritingAtPath:@"/dev/null"]);
}

TEST_F(KPIMLoggerTest, EveryLineIsSoughtWrittenWholeAndSynchronised) {
  ScopedMethodReplacement seek(HandleClass(), @selector(seekToEndOfFile), (IMP)Seek);
  ScopedMethodReplacement write(HandleClass(), @selector(writeData:), (IMP)Write);
  ScopedMethodReplacement synchronize(HandleClass(), @selector(synchronizeFile), (IMP)Synchronize);
  s_seek = &seek;
  s_write = &write;
  s_synchronize = &synchronize;
  s_calls.clear();

  KPIMLogger* logger = Open();
  [logger logString:@"one" withLoggingLevel:1];
  [logger logTimeStampedString:@"two" withLoggingLevel:1];
  EXPECT_THAT(s_calls, ElementsAre("seek", "seek", "write 3", "synchronize", "seek", "write 34",
                                   "synchronize"));
}

TEST_F(KPIMLoggerTest, TheFileIsAppendedToAndNotHandedOn) {
  KPIMLogger* logger = Open();
  ASSERT_NE(nil, logger);
  NSFileHandle* handle =
      object_getIvar(logger, class_getInstanceVariable([KPIMLogger class], "mLogFH"));
  EXPECT_NE(0, fcntl([handle fileDescriptor], F_GETFL) & O_APPEND);
  EXPECT_EQ(FD_CLOEXEC, fcntl([handle fileDescriptor], F_GETFD));
}

TEST_F(KPIMLoggerTest, DeallocClosesTheFileAndLetsGoOfThePrefix) {
  ScopedMethodReplacement close(HandleClass(), @selector(closeFile), (IMP)Close);
  s_close = &close;
  s_calls.clear();
  NSMutableString* first = [[NSMutableString alloc] initWithString:@"1"];
  NSMutableString* second = [[NSMutableString alloc] initWithString:@"2"];

  KPIMLogger* logger = [[KPIMLogger alloc] initWithPath:String(file_)];
  [logger setPrefix:first];
  EXPECT_EQ(2u, [first retainCount]);
  [logger setPrefix:first];
  EXPECT_EQ(2u, [first retainCount]);
  [logger setPrefix:second];
  EXPECT_EQ(1u, [first retainCount]);
  EXPECT_EQ(2u, [second retainCount]);
  [logger release];
  EXPECT_EQ(1u, [second retainCount]);
  EXPECT_THAT(s_calls, ElementsAre("close"));
  [first release];
  [second release];
}

int s_handlesDeallocated;
ScopedMethodReplacement* s_dealloc;

void Dealloc(id self, SEL selector) {
  ++s_handlesDeallocated;
  ((void (*)(id, SEL))s_dealloc->original())(self, selector);
}

TEST_F(KPIMLoggerTest, OwnsItsHandle) {
  ScopedMethodReplacement dealloc(HandleClass(), @selector(dealloc), (IMP)Dealloc);
  s_dealloc = &dealloc;
  s_handlesDeallocated = 0;

  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  KPIMLogger* logger = [[KPIMLogger alloc] initWithPath:String(file_)];
  [pool release];
  EXPECT_EQ(0, s_handlesDeallocated);
  [logger logString:@"still open" withLoggingLevel:1];
  EXPECT_EQ("still open", ReadWholeFile(file_));

  pool = [[NSAutoreleasePool alloc] init];
  [logger release];
  [pool release];
  EXPECT_EQ(1, s_handlesDeallocated);
}

// ---- Writes that fail

/// Lets files grow to `size` at most; writes beyond fail like those on a full disk.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t size) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &saved_);
    const struct rlimit limit = {size, saved_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~ScopedFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, SIG_DFL);
  }

 private:
  struct rlimit saved_;
};

TEST_F(KPIMLoggerTest, AWriteThatFailsLosesItsLineAndNothingElse) {
  KPIMLogger* logger = Open();
  [logger logString:@"before\n" withLoggingLevel:1];
  {
    ScopedFileSizeLimit full(7);
    [logger logString:@"lost\n" withLoggingLevel:1];
    [logger logTimeStampedString:@"lost" withLoggingLevel:1];
    EXPECT_FALSE([logger assert:false message:@"lost"]);
  }
  [logger logString:@"after\n" withLoggingLevel:1];
  EXPECT_EQ("before\nafter\n", ReadWholeFile(file_));
}

}  // namespace
