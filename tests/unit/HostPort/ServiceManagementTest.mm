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
    // No real service manager is asked.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    job_ = [[NSMutableDictionary alloc]
        initWithObjectsAndKeys:@"com.example.tool", @"Label", [NSNumber numberWithBool:YES],
                               @"RunAtLoad", [NSNumber numberWithBool:NO], @"KeepAlive",
                               [NSArray arrayWithObject:@"/bin/true"], @"ProgramArguments", nil];
  }
  ~ServiceManagementTest() override { [job_ release]; }

  /// The errno of a call that fails with `error`.
  static int Reason(Boolean result, CFErrorRef error) {
    EXPECT_FALSE(result);
    if (error == nullptr) {
      return 0;
    }
    const auto code = static_cast<int>([(NSError*)error code]);
    CFRelease(error);
    return code;
  }
  int ReasonOfSubmission(CFStringRef domain = kSMDomainSystemLaunchd) const {
    EXPECT_FALSE(SMJobSubmit(domain, (CFDictionaryRef)job_, nullptr, nullptr));
    CFErrorRef error = nullptr;
    const Boolean result = SMJobSubmit(domain, (CFDictionaryRef)job_, nullptr, &error);
    return Reason(result, error);
  }
  /// The errno for the job with `value` for `key`, or without `key` if `value` is nil.
  int ReasonWith(NSString* key, id value) {
    id before = [[job_ objectForKey:key] retain];
    value == nil ? [job_ removeObjectForKey:key] : [job_ setObject:value forKey:key];
    const int reason = ReasonOfSubmission();
    before == nil ? [job_ removeObjectForKey:key] : [job_ setObject:before forKey:key];
    [before release];
    return reason;
  }
  static int ReasonOfRemoval(NSString* label, CFStringRef domain = kSMDomainSystemLaunchd) {
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

constexpr int kNoBus = ENOENT;

TEST_F(ServiceManagementTest, WithoutABusThereIsAnError) {
  EXPECT_EQ(kNoBus, ReasonOfSubmission());
  EXPECT_EQ(kNoBus, ReasonOfRemoval(@"com.example.tool"));
}

TEST_F(ServiceManagementTest, LabelMustNameAUnit) {
  NSString* tooLong = [@"" stringByPaddingToLength:300 withString:@"x" startingAtIndex:0];
  EXPECT_EQ(EINVAL, ReasonWith(@"Label", [NSNumber numberWithInt:1]));
  for (NSString* label : {@"", tooLong, ZeroCharacter(), (NSString*)nil}) {
    EXPECT_EQ(EINVAL, ReasonWith(@"Label", label));
    EXPECT_EQ(EINVAL, ReasonOfRemoval(label));
  }
}

TEST_F(ServiceManagementTest, TextThatIsNoUnicodeIsRefused) {
  const unichar half = 0xD800;
  NSString* broken = [NSString stringWithFormat:@"a%C", half];
  ASSERT_EQ(2u, [broken length]);
  EXPECT_EQ(EINVAL, ReasonWith(@"Label", broken));
  EXPECT_EQ(EINVAL, ReasonWith(broken, @"x"));
  EXPECT_EQ(EINVAL, ReasonWith((NSString*)[NSNumber numberWithInt:1], @"x"));
  EXPECT_EQ(EINVAL,
            ReasonWith(@"ProgramArguments", [NSArray arrayWithObjects:@"/bin/true", broken, nil]));
  EXPECT_EQ(EINVAL, ReasonWith(@"StandardOutPath", broken));
  EXPECT_EQ(EINVAL, ReasonOfRemoval(broken));
}

TEST_F(ServiceManagementTest, WhatIsNotSupportedIsRefused) {
  EXPECT_EQ(EINVAL, ReasonWith(@"UserName", @"alice"));
  EXPECT_EQ(EINVAL, ReasonWith(@"RunAtLoad", nil));
  EXPECT_EQ(EINVAL, ReasonWith(@"RunAtLoad", [NSNumber numberWithBool:NO]));
  EXPECT_EQ(EINVAL, ReasonWith(@"RunAtLoad", @"YES"));
  EXPECT_EQ(EINVAL, ReasonWith(@"KeepAlive", [NSDictionary dictionary]));
  EXPECT_EQ(EINVAL, ReasonWith(@"KeepAlive", [NSNumber numberWithBool:YES]));
  EXPECT_EQ(kNoBus, ReasonWith(@"KeepAlive", nil));
  EXPECT_EQ(EINVAL, ReasonOfSubmission(CFSTR("user")));
  EXPECT_EQ(EINVAL, ReasonOfSubmission(nullptr));
  EXPECT_EQ(EINVAL, ReasonOfRemoval(@"com.example.tool", CFSTR("user")));
}

TEST_F(ServiceManagementTest, ThereMustBeAJob) {
  CFErrorRef error = nullptr;
  const Boolean result = SMJobSubmit(kSMDomainSystemLaunchd, nullptr, nullptr, &error);
  EXPECT_EQ(EINVAL, Reason(result, error));
}

TEST_F(ServiceManagementTest, ArgumentsMustBeStringsAndTheFirstAProgram) {
  NSString* key = @"ProgramArguments";
  EXPECT_EQ(EINVAL, ReasonWith(key, nil));
  EXPECT_EQ(EINVAL, ReasonWith(key, @"/bin/true"));
  EXPECT_EQ(EINVAL, ReasonWith(key, [NSArray array]));
  EXPECT_EQ(EINVAL, ReasonWith(key, [NSArray arrayWithObjects:@"/bin/true", ZeroCharacter(), nil]));
  EXPECT_EQ(EINVAL, ReasonWith(key, [NSArray arrayWithObject:[NSNull null]]));
  EXPECT_EQ(ENOENT, ReasonWith(key, [NSArray arrayWithObject:@"/no/such/program"]));
  EXPECT_EQ(ENOENT, ReasonWith(key, [NSArray arrayWithObject:@""]));
}

TEST_F(ServiceManagementTest, OutputIsOpenedWithTheCallersRights) {
  const TemporaryFolder folder;
  NSString* key = @"StandardOutPath";
  EXPECT_EQ(EINVAL, ReasonWith(key, [NSNumber numberWithInt:1]));
  EXPECT_EQ(EISDIR, ReasonWith(key, @"/"));
  const std::string path = folder / "output";
  EXPECT_EQ(kNoBus, ReasonWith(key, [NSString stringWithUTF8String:path.c_str()]));
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(ENXIO, ReasonWith(key, [NSString stringWithUTF8String:fifo.c_str()]))
      << "without a reader";
  struct stat status = {};
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), status.st_mode);
  if (geteuid() != 0) {
    GTEST_SKIP() << "changing the user needs root";
  }
  ASSERT_EQ(0, seteuid(65534));
  const int reason = ReasonWith(key, [NSString stringWithUTF8String:path.c_str()]);
  ASSERT_EQ(0, seteuid(0));
  EXPECT_EQ(EACCES, reason);
}

// ---- systemd

constexpr char kObject[] = "/org/freedesktop/systemd1/unit/x";

/// A systemd that has one unit, or no unit, and whose answers about it are set by the test.
class SystemdTest : public ServiceManagementTest {
 protected:
  /// Answers as systemd does, from the fields below.
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
  static bool Remove() {
    return SMJobRemove(kSMDomainSystemLaunchd, CFSTR("com.example.tool"), nullptr, 1, nullptr);
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
  // The path, the arguments (first the path as it was given), and the flag against expansion.
  EXPECT_THAT(call.text, HasSubstr(std::string("STRUCT \"sasas\" { STRING \"") + path +
                                   "\"; ARRAY \"s\" { STRING \"" + tool +
                                   "\"; STRING \"$HOME %n\"; STRING \"\"; }; "
                                   "ARRAY \"s\" { STRING \"no-env-expand\"; }; };"));
  EXPECT_THAT(call.text, HasSubstr("STRING \"Type\"; VARIANT \"s\" { STRING \"exec\"; }"));
  EXPECT_THAT(call.text, HasSubstr("STRING \"RemainAfterExit\"; VARIANT \"b\" { BOOLEAN true; }"));
  EXPECT_THAT(call.text,
              HasSubstr("STRING \"TimeoutStopUSec\"; VARIANT \"t\" { UINT64 20000000; }"));
  EXPECT_THAT(call.text, HasSubstr("STRING \"IgnoreSIGPIPE\"; VARIANT \"b\" { BOOLEAN false; }"));
  EXPECT_THAT(call.text, Not(HasSubstr("StandardOutputFileDescriptor")));
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
    const FakeSystemBus::Call call = bus_.calls().back();
    EXPECT_EQ(flags == 1, call.mayInteract);
    EXPECT_EQ(flags == 1 ? 300'000'000u : 25'000'000u, call.timeLimit);
    AuthorizationFree(authorization, 0);
  }
}

TEST_F(SystemdTest, AJobThatSystemdRefusesIsAnError) {
  refusedMember_ = "StartTransientUnit";
  EXPECT_EQ(EACCES, ReasonOfSubmission());
  refusal_ = "org.freedesktop.systemd1.UnitExists";
  EXPECT_NE(0, ReasonOfSubmission());
}

TEST_F(SystemdTest, RemovalReturnsOnceTheUnitIsGone) {
  states_ = {"active", "deactivating", "deactivating"};
  EXPECT_TRUE(Remove());
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kGet, kState, kGet, kState, kGet));
}

TEST_F(SystemdTest, AFailedUnitIsForgottenToo) {
  states_ = {"failed", "failed"};
  EXPECT_TRUE(Remove());
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kGet, kState, kReset, kGet));
}

TEST_F(SystemdTest, ARefusedRemovalIsTriedOnce) {
  states_ = {"failed", "failed"};
  refusedMember_ = "ResetFailedUnit";
  CFErrorRef error = nullptr;
  const Boolean result =
      SMJobRemove(kSMDomainSystemLaunchd, CFSTR("com.example.tool"), nullptr, 1, &error);
  EXPECT_EQ(EACCES, Reason(result, error));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop, kGet, kState, kReset));
}

TEST_F(SystemdTest, AUnitThatIsGoneMeanwhileIsRemoved) {
  states_ = {"failed", "failed"};
  refusedMember_ = "ResetFailedUnit";
  refusal_ = "org.freedesktop.systemd1.NoSuchUnit";
  EXPECT_TRUE(Remove());
}

TEST_F(SystemdTest, AUserWithoutTheRightRemovesNothing) {
  states_ = {"active", "active"};
  refusedMember_ = "StopUnit";
  EXPECT_FALSE(Remove());
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kState, kStop));
}

TEST_F(SystemdTest, ALabelThatIsNotRegisteredIsAnError) {
  EXPECT_NE(0, ReasonOfRemoval(@"com.example.tool"));
  EXPECT_THAT(bus_.names(), ElementsAre(kGet, kGet));
}

TEST_F(SystemdTest, ABusThatNeverAnswersIsAnError) {
  const FakeSystemBus other([](sd_bus_message*) { return 0; });
  const ScopedBusTimeLimit limit(100'000);
  EXPECT_EQ(ETIMEDOUT, ReasonOfSubmission());
  EXPECT_EQ(ETIMEDOUT, ReasonOfRemoval(@"com.example.tool"));
}

TEST_F(SystemdTest, ABusThatAcceptsNoConnectionIsAnError) {
  const SilentSystemBus other;
  const ScopedBusTimeLimit limit(100'000);
  EXPECT_EQ(ETIMEDOUT, ReasonOfSubmission());
  EXPECT_EQ(ETIMEDOUT, ReasonOfRemoval(@"com.example.tool"));
}

TEST_F(SystemdTest, ABusThatHangsUpIsAnError) {
  const FakeSystemBus other([](sd_bus_message*) { return -ECONNRESET; });
  EXPECT_NE(0, ReasonOfSubmission());
  EXPECT_NE(0, ReasonOfRemoval(@"com.example.tool"));
}

}  // namespace
