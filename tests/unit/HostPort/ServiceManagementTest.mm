#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

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

}  // namespace
