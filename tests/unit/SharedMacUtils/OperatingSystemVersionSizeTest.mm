// A system whose `operatingSystemVersion` returns something else than three numbers.
#import <Foundation/Foundation.h>
#include <gtest/gtest.h>
#include <objc/runtime.h>

#include <string>

#include "shared/platform/mac/MacSystemVersion.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

struct FourNumbers {
  NSInteger numbers[4];
};

int s_asked;

FourNumbers OtherVersion(id /*self*/, SEL /*selector*/) {
  ++s_asked;
  return {{11, 2, 3, 4}};
}

NSString* s_coreServices;

NSURL* CoreServices(id /*self*/, SEL /*selector*/, NSSearchPathDirectory /*directory*/,
                    NSSearchPathDomainMask /*domain*/, NSURL* /*url*/, BOOL /*create*/,
                    NSError** /*error*/) {
  return [NSURL fileURLWithPath:s_coreServices];
}

TEST(OperatingSystemVersionSize, RecordOfAnotherSizeIsNotRead) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const TemporaryFolder folder;
  s_coreServices = String(folder.Path());
  WriteWholeFile(folder / "SystemVersion.plist", "{ ProductVersion = \"10.9.4\"; }");
  const ScopedMethodReplacement coreServices(
      object_getClass([NSFileManager defaultManager]),
      @selector(URLForDirectory:inDomain:appropriateForURL:create:error:), (IMP)CoreServices);
  NSProcessInfo* processInfo = [NSProcessInfo processInfo];
  const SEL selector = NSSelectorFromString(@"operatingSystemVersion");
  const std::string types = std::string(@encode(FourNumbers)) + "16@0:8";
  class_replaceMethod(object_getClass(processInfo), selector, (IMP)OtherVersion, types.c_str());
  ASSERT_TRUE([processInfo respondsToSelector:selector]);
  ASSERT_EQ(sizeof(FourNumbers),
            [[processInfo methodSignatureForSelector:selector] methodReturnLength]);

  EXPECT_EQ((MacSystemVersion{10, 9, 4}), MacSystemVersion::GetSystemVersion());
  EXPECT_EQ(0, s_asked);
  [pool release];
}

}  // namespace
