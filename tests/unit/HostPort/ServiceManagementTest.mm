#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/HostPort/FakeSystemBus.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class ServiceManagementTest : public testing::Test {
 protected:
  ServiceManagementTest() {
    // Nobody's service manager is asked.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    job_ = [[NSMutableDictionary alloc]
        initWithObjectsAndKeys:@"com.example.tool", @"Label", [NSNumber numberWithBool:YES],
                               @"RunAtLoad", [NSNumber numberWithBool:NO], @"KeepAlive",
                               [NSArray arrayWithObject:@"/bin/true"], @"ProgramArguments", nil];
  }
  ~ServiceManagementTest() override { [job_ release]; }

  static std::string Reason(Boolean result, CFErrorRef error) {
    EXPECT_FALSE(result);
    if (error == nullptr) {
      return "(no error)";
    }
    CFStringRef description = CFErrorCopyDescription(error);
    const std::string text = [(NSString*)description UTF8String];
    CFRelease(description);
    CFRelease(error);
    return text;
  }
  std::string ReasonOfSubmission(CFStringRef domain = kSMDomainSystemLaunchd) const {
    EXPECT_FALSE(SMJobSubmit(domain, (CFDictionaryRef)job_, nullptr, nullptr));
    CFErrorRef error = nullptr;
    const Boolean result = SMJobSubmit(domain, (CFDictionaryRef)job_, nullptr, &error);
    return Reason(result, error);
  }
  /// The reason when `key` has another value, or none for nil.
  std::string ReasonWith(NSString* key, id value) {
    id before = [[job_ objectForKey:key] retain];
    value == nil ? [job_ removeObjectForKey:key] : [job_ setObject:value forKey:key];
    const std::string reason = ReasonOfSubmission();
    before == nil ? [job_ removeObjectForKey:key] : [job_ setObject:before forKey:key];
    [before release];
    return reason;
  }
  static std::string ReasonOfRemoval(NSString* label, CFStringRef domain = kSMDomainSystemLaunchd) {
    EXPECT_FALSE(SMJobRemove(domain, (CFStringRef)label, nullptr, 1, nullptr));
    CFErrorRef error = nullptr;
    const Boolean result = SMJobRemove(domain, (CFStringRef)label, nullptr, 1, &error);
    return Reason(result, error);
  }
  static NSString* ZeroCharacter() {
    const unichar zero = 0;
    return [NSString stringWithCharacters:&zero length:1];
  }

  NSMutableDictionary* job_;
};

const char kNoBus[] = "the system's message bus cannot be reached: No such file or directory";

TEST_F(ServiceManagementTest, WithoutABusThereIsAnError) {
  EXPECT_EQ(kNoBus, ReasonOfSubmission());
  EXPECT_EQ(kNoBus, ReasonOfRemoval(@"com.example.tool"));
}

TEST_F(ServiceManagementTest, LabelMustNameAUnit) {
  const std::string what = "the job cannot be submitted: ";
  EXPECT_EQ(what + "\"Label\" is not a string", ReasonWith(@"Label", nil));
  EXPECT_EQ(what + "\"Label\" is not a string", ReasonWith(@"Label", [NSNumber numberWithInt:1]));
  EXPECT_EQ(what + "\"Label\" is not a string", ReasonWith(@"Label", ZeroCharacter()));
  EXPECT_EQ(what + "\"Label\" is empty or too long", ReasonWith(@"Label", @""));
  NSString* tooLong = [@"" stringByPaddingToLength:300 withString:@"x" startingAtIndex:0];
  EXPECT_EQ(what + "\"Label\" is empty or too long", ReasonWith(@"Label", tooLong));
  for (NSString* label : {@"", tooLong, ZeroCharacter(), (NSString*)nil}) {
    EXPECT_EQ("the job cannot be removed: no job has such a label", ReasonOfRemoval(label));
  }
}

TEST_F(ServiceManagementTest, TextThatIsNoUnicodeIsRefused) {
  const unichar half = 0xD800;
  NSString* broken = [NSString stringWithFormat:@"a%C", half];
  ASSERT_EQ(2u, [broken length]);
  const std::string what = "the job cannot be submitted: ";
  EXPECT_EQ(what + "\"Label\" is not a string", ReasonWith(@"Label", broken));
  EXPECT_EQ(what + "a key is not a string", ReasonWith(broken, @"x"));
  EXPECT_EQ(what + "a key is not a string",
            ReasonWith((NSString*)[NSNumber numberWithInt:1], @"x"));
  EXPECT_EQ(what + "\"ProgramArguments\" holds something that no argument can be",
            ReasonWith(@"ProgramArguments", [NSArray arrayWithObjects:@"/bin/true", broken, nil]));
  EXPECT_EQ("the job's output cannot be opened: Invalid argument",
            ReasonWith(@"StandardOutPath", broken));
  EXPECT_EQ("the job cannot be removed: no job has such a label", ReasonOfRemoval(broken));
}

TEST_F(ServiceManagementTest, WhatIsNotSupportedIsRefused) {
  const std::string what = "the job cannot be submitted: ";
  EXPECT_EQ(what + "the key \"UserName\" is not supported", ReasonWith(@"UserName", @"alice"));
  const std::string atLoad =
      what + "\"RunAtLoad\" is not true, and starting a job later is not supported";
  EXPECT_EQ(atLoad, ReasonWith(@"RunAtLoad", nil));
  EXPECT_EQ(atLoad, ReasonWith(@"RunAtLoad", [NSNumber numberWithBool:NO]));
  EXPECT_EQ(atLoad, ReasonWith(@"RunAtLoad", @"YES"));
  EXPECT_EQ(what + "\"KeepAlive\" is not a boolean",
            ReasonWith(@"KeepAlive", [NSDictionary dictionary]));
  EXPECT_EQ(kNoBus, ReasonWith(@"KeepAlive", nil));
  const std::string domain = what + "the domain is not the system's";
  EXPECT_EQ(domain, ReasonOfSubmission(CFSTR("user")));
  EXPECT_EQ(domain, ReasonOfSubmission(nullptr));
  EXPECT_EQ("the job cannot be removed: the domain is not the system's",
            ReasonOfRemoval(@"com.example.tool", CFSTR("user")));
}

TEST_F(ServiceManagementTest, ThereMustBeAJob) {
  CFErrorRef error = nullptr;
  const Boolean result = SMJobSubmit(kSMDomainSystemLaunchd, nullptr, nullptr, &error);
  EXPECT_EQ("the job cannot be submitted: there is none", Reason(result, error));
}

TEST_F(ServiceManagementTest, ArgumentsMustBeStringsAndTheFirstAProgram) {
  NSString* key = @"ProgramArguments";
  const std::string list =
      "the job cannot be submitted: \"ProgramArguments\" is not a list with a program in it";
  EXPECT_EQ(list, ReasonWith(key, nil));
  EXPECT_EQ(list, ReasonWith(key, @"/bin/true"));
  EXPECT_EQ(list, ReasonWith(key, [NSArray array]));
  const std::string element =
      "the job cannot be submitted: \"ProgramArguments\" holds something that no argument can be";
  EXPECT_EQ(element,
            ReasonWith(key, [NSArray arrayWithObjects:@"/bin/true", ZeroCharacter(), nil]));
  EXPECT_EQ(element, ReasonWith(key, [NSArray arrayWithObject:[NSNull null]]));
  const std::string missing = "the job's program cannot be found: No such file or directory";
  EXPECT_EQ(missing, ReasonWith(key, [NSArray arrayWithObject:@"/no/such/program"]));
  EXPECT_EQ(missing, ReasonWith(key, [NSArray arrayWithObject:@""]));
}

TEST_F(ServiceManagementTest, OutputIsOpenedWithTheCallersRights) {
  const TemporaryFolder folder;
  NSString* key = @"StandardOutPath";
  EXPECT_EQ("the job's output cannot be opened: Invalid argument",
            ReasonWith(key, [NSNumber numberWithInt:1]));
  EXPECT_EQ("the job's output cannot be opened: Is a directory", ReasonWith(key, @"/"));
  const std::string path = folder / "output";
  EXPECT_EQ(kNoBus, ReasonWith(key, [NSString stringWithUTF8String:path.c_str()]));
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ("the job's output cannot be opened: No such device or address",
            ReasonWith(key, [NSString stringWithUTF8String:fifo.c_str()]))
      << "nobody reads it";
  struct stat status = {};
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), status.st_mode);
  if (geteuid() != 0) {
    GTEST_SKIP() << "changing the user needs root";
  }
  ASSERT_EQ(0, seteuid(65534));
  const std::string reason = ReasonWith(key, [NSString stringWithUTF8String:path.c_str()]);
  ASSERT_EQ(0, seteuid(0));
  EXPECT_EQ("the job's output cannot be opened: Permission denied", reason);
}

// ---- systemd

constexpr char kObject[] = "/org/freedesktop/systemd1/unit/x";

/// systemd with one unit, or none: what it says of the unit, one answer after the other.
class SystemdTest : public ServiceManagementTest {
 protected:
  /// Answers as systemd does, by the fields below.
  int Answer(sd_bus_message* call) {
    const std::string member = sd_bus_message_get_member(call);
    if (member == refusedMember_) {
      return sd_bus_reply_method_errorf(call, refusal_, "not today");
    }
    if (member == "GetUnit" && stateIndex_ >= states_.size()) {
      return sd_bus_reply_method_errorf(call, "org.freedesktop.systemd1.NoSuchUnit", "Unit gone.");
    }
    if (member == "GetUnit") {
      return sd_bus_reply_method_return(call, "o", kObject);
    }
    if (member == "Get") {
      return sd_bus_reply_method_return(call, "v", "s", states_[stateIndex_++]);
    }
    if (member == "StartTransientUnit") {
      outputFlags_ = FlagsOfFile(call);
    }
    return member == "ResetFailedUnit" ? sd_bus_reply_method_return(call, "")
                                       : sd_bus_reply_method_return(call, "o", "/job/1");
  }
  /// The flags of the file that the call passes; -1 when it passes none.
  static int FlagsOfFile(sd_bus_message* call) {
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    sd_bus_message_dump(call, stream, 0);
    fclose(stream);
    const char* file = strstr(text, "UNIX_FD ");
    const int flags = file == nullptr ? -1 : fcntl(atoi(file + strlen("UNIX_FD ")), F_GETFL);
    free(text);
    return flags;
  }
  bool Submit(AuthorizationRef authorization = nullptr) {
    return SMJobSubmit(kSMDomainSystemLaunchd, (CFDictionaryRef)job_, authorization, nullptr);
  }
  static bool Remove(Boolean wait) {
    return SMJobRemove(kSMDomainSystemLaunchd, CFSTR("com.example.tool"), nullptr, wait, nullptr);
  }

  std::vector<const char*> states_;
  size_t stateIndex_ = 0;
  std::string refusedMember_;
  const char* refusal_ = SD_BUS_ERROR_ACCESS_DENIED;
  int outputFlags_ = -1;
  FakeSystemBus bus_{[this](sd_bus_message* call) { return Answer(call); }};
};

constexpr char kUnit[] = "launch-job-com.example.tool.service";
const std::string kGet = std::string("GetUnit ") + kUnit;
const std::string kState = "Get org.freedesktop.systemd1.Unit";
const std::string kStop = std::string("StopUnit ") + kUnit;
const std::string kReset = std::string("ResetFailedUnit ") + kUnit;

TEST_F(SystemdTest, AJobIsATransientService) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("/bin/echo", folder / "tool");
  char path[PATH_MAX];
  ASSERT_NE(nullptr, realpath("/bin/echo", path));
  const std::string tool = folder / "tool";
  [job_ setObject:[NSArray arrayWithObjects:[NSString stringWithUTF8String:tool.c_str()],
                                            @"$HOME %n", @"", nil]
           forKey:@"ProgramArguments"];
  ASSERT_TRUE(Submit());
  ASSERT_EQ(1u, bus_.calls().size());
  const FakeSystemBus::Call call = bus_.calls()[0];
  EXPECT_EQ(std::string("StartTransientUnit ") + kUnit, call.name);
  EXPECT_FALSE(call.mayInteract);
  EXPECT_THAT(call.text, HasSubstr(std::string("STRING \"") + kUnit + "\"; STRING \"fail\";"));
  // Path, then arguments with the path as it was given, then that nothing in them is expanded.
  EXPECT_THAT(call.text, HasSubstr(std::string("STRUCT \"sasas\" { STRING \"") + path +
                                   "\"; ARRAY \"s\" { STRING \"" + tool +
                                   "\"; STRING \"$HOME %n\"; STRING \"\"; }; "
                                   "ARRAY \"s\" { STRING \"no-env-expand\"; }; };"));
  EXPECT_THAT(call.text, HasSubstr("STRING \"Type\"; VARIANT \"s\" { STRING \"exec\"; }"));
  EXPECT_THAT(call.text, HasSubstr("STRING \"RemainAfterExit\"; VARIANT \"b\" { BOOLEAN true; }"));
  EXPECT_THAT(call.text,
              HasSubstr("STRING \"TimeoutStopUSec\"; VARIANT \"t\" { UINT64 20000000; }"));
  EXPECT_THAT(call.text, HasSubstr("STRING \"IgnoreSIGPIPE\"; VARIANT \"b\" { BOOLEAN false; }"));
  EXPECT_THAT(call.text, Not(HasSubstr("\"Restart\"")));
  EXPECT_THAT(call.text, Not(HasSubstr("StandardOutputFileDescriptor")));
}

TEST_F(SystemdTest, AJobThatIsKeptAliveIsRestartedForEver) {
  [job_ setObject:[NSNumber numberWithBool:YES] forKey:@"KeepAlive"];
  ASSERT_TRUE(Submit());
  const std::string text = bus_.calls()[0].text;
  EXPECT_THAT(text, HasSubstr("STRING \"Restart\"; VARIANT \"s\" { STRING \"always\"; }"));
  EXPECT_THAT(text, HasSubstr("STRING \"RestartUSec\"; VARIANT \"t\" { UINT64 10000000; }"));
  EXPECT_THAT(text, HasSubstr("STRING \"StartLimitIntervalUSec\"; VARIANT \"t\" { UINT64 0; }"));
  EXPECT_THAT(text, Not(HasSubstr("RemainAfterExit"))) << "systemd would not restart it";
}

TEST_F(SystemdTest, TheProgramWritesToTheFileThatTheCallerOpened) {
  const TemporaryFolder folder;
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  [job_ setObject:[NSString stringWithUTF8String:fifo.c_str()] forKey:@"StandardOutPath"];
  EXPECT_TRUE(Submit());
  close(reader);
  ASSERT_NE(-1, outputFlags_);
  EXPECT_EQ(O_WRONLY, outputFlags_ & O_ACCMODE);
  EXPECT_EQ(O_APPEND, outputFlags_ & (O_APPEND | O_NONBLOCK)) << "writing waits";
}

TEST_F(SystemdTest, TheUserIsAskedOnlyWhenTheAuthorizationAllowsIt) {
  for (const AuthorizationFlags flags : {0u, 1u}) {
    AuthorizationRef authorization = nullptr;
    ASSERT_EQ(0, AuthorizationCreate(nullptr, nullptr, flags, &authorization));
    EXPECT_TRUE(Submit(authorization));
    EXPECT_EQ(flags == 1, bus_.calls().back().mayInteract);
    AuthorizationFree(authorization, 0);
  }
}

TEST_F(SystemdTest, ARefusedJobHasSystemdsReason) {
  refusedMember_ = "StartTransientUnit";
  refusal_ = "org.freedesktop.systemd1.UnitExists";
  EXPECT_EQ("the job cannot be submitted: not today", ReasonOfSubmission());
}

TEST_F(SystemdTest, RemovalReturnsOnceTheUnitIsGone) {
  states_ = {"active", "deactivating", "deactivating"};
  EXPECT_TRUE(Remove(1));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kGet, kState, kGet, kState, kGet));
}

TEST_F(SystemdTest, ARemovalNeedNotBeWaitedFor) {
  states_ = {"active", "deactivating", "deactivating"};
  EXPECT_TRUE(Remove(0));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kReset));
}

TEST_F(SystemdTest, AFailedUnitIsForgottenToo) {
  states_ = {"failed", "failed"};
  EXPECT_TRUE(Remove(1));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kGet, kState, kReset, kGet));
}

TEST_F(SystemdTest, ARefusedRemovalIsTriedOnce) {
  states_ = {"failed", "failed"};
  refusedMember_ = "ResetFailedUnit";
  CFErrorRef error = nullptr;
  const Boolean result =
      SMJobRemove(kSMDomainSystemLaunchd, CFSTR("com.example.tool"), nullptr, 1, &error);
  EXPECT_EQ("the job cannot be removed: not today", Reason(result, error));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kGet, kState, kReset));
}

TEST_F(SystemdTest, AUnitThatIsGoneMeanwhileIsRemoved) {
  states_ = {"failed", "failed"};
  refusedMember_ = "ResetFailedUnit";
  refusal_ = "org.freedesktop.systemd1.NoSuchUnit";
  EXPECT_TRUE(Remove(1));
}

TEST_F(SystemdTest, AUserWithoutTheRightRemovesNothing) {
  states_ = {"active", "active"};
  refusedMember_ = "StopUnit";
  EXPECT_FALSE(Remove(1));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop));
}

TEST_F(SystemdTest, ALabelThatIsNotRegisteredIsAnError) {
  EXPECT_EQ("the job cannot be removed: Unit gone.", ReasonOfRemoval(@"com.example.tool"));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kGet));
}

TEST_F(SystemdTest, ABusThatNeverAnswersIsAnError) {
  const FakeSystemBus other([](sd_bus_message*) { return 0; });
  const ScopedBusTimeLimit limit(100'000);
  EXPECT_EQ("the job cannot be submitted: Connection timed out", ReasonOfSubmission());
  EXPECT_EQ("the job cannot be removed: Connection timed out",
            ReasonOfRemoval(@"com.example.tool"));
}

TEST_F(SystemdTest, ABusThatAcceptsNoConnectionIsAnError) {
  const SilentSystemBus other;
  const ScopedBusTimeLimit limit(100'000);
  const std::string noBus = "the system's message bus cannot be reached: Connection timed out";
  EXPECT_EQ(noBus, ReasonOfSubmission());
  EXPECT_EQ(noBus, ReasonOfRemoval(@"com.example.tool"));
}

TEST_F(SystemdTest, ABusThatHangsUpIsAnError) {
  const FakeSystemBus other([](sd_bus_message*) { return -ECONNRESET; });
  EXPECT_THAT(ReasonOfSubmission(), HasSubstr("the job cannot be submitted: "));
  EXPECT_THAT(ReasonOfRemoval(@"com.example.tool"), HasSubstr("the job cannot be removed: "));
}

}  // namespace
