// The operating system's version as newer systems report it. Where the method is missing, it is
// added here, as an update of the system would.
#import <Foundation/Foundation.h>
#include <gtest/gtest.h>
#include <objc/runtime.h>

#include <string>

#include "shared/platform/mac/MacSystemVersion.h"

namespace {

struct Version {
  NSInteger major;
  NSInteger minor;
  NSInteger patch;
};

Version s_version;

Version OperatingSystemVersion(id /*self*/, SEL /*selector*/) { return s_version; }

class OperatingSystemVersionTest : public testing::Test {
 protected:
  OperatingSystemVersionTest() {
    const std::string types = std::string(@encode(Version)) + "16@0:8";
    class_replaceMethod(object_getClass([NSProcessInfo processInfo]),
                        NSSelectorFromString(@"operatingSystemVersion"),
                        (IMP)OperatingSystemVersion, types.c_str());
  }
};

TEST_F(OperatingSystemVersionTest, IsAskedFirst) {
  s_version = {10, 15, 7};
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int bugfix = 0;
  ObtainMacSystemVersion(&major, &minor, &bugfix);
  EXPECT_EQ(10u, major);
  EXPECT_EQ(15u, minor);
  EXPECT_EQ(7u, bugfix);
}

TEST_F(OperatingSystemVersionTest, NumbersAreNarrowedTo32Bits) {
  s_version = {(1L << 32) + 11, -1, 0x7FFFFFFFFFFFFFFFL};
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int bugfix = 0;
  ObtainMacSystemVersion(&major, &minor, &bugfix);
  EXPECT_EQ(11u, major);
  EXPECT_EQ(0xFFFFFFFFu, minor);
  EXPECT_EQ(0xFFFFFFFFu, bugfix);
}

TEST_F(OperatingSystemVersionTest, ValueIsAskedAnewAndNarrowedTo16Bits) {
  s_version = {0x1000A, 0x10006, 0x10008};
  EXPECT_EQ((MacSystemVersion{10, 6, 8}), MacSystemVersion::GetSystemVersion());
  s_version = {11, 2, 3};
  EXPECT_EQ((MacSystemVersion{11, 2, 3}), MacSystemVersion::GetSystemVersion());
}

}  // namespace
