// The operating system's version out of its property list.
#include "shared/platform/mac/MacSystemVersion.h"

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

std::string s_coreServices;
bool s_hasCoreServices;
int s_foldersAsked;

NSURL* CoreServices(id /*self*/, SEL /*selector*/, NSSearchPathDirectory directory,
                    NSSearchPathDomainMask domain, NSURL* url, BOOL create, NSError** error) {
  EXPECT_EQ(static_cast<NSSearchPathDirectory>(NSCoreServiceDirectory), directory);
  EXPECT_EQ(static_cast<NSSearchPathDomainMask>(NSSystemDomainMask), domain);
  EXPECT_EQ(nil, url);
  EXPECT_EQ(NO, create);
  EXPECT_EQ(nullptr, error);
  ++s_foldersAsked;
  return s_hasCoreServices ? [NSURL fileURLWithPath:String(s_coreServices)] : nil;
}

/// macOS raises here for nil.
NSDictionary* ContentsOfURL(id /*self*/, SEL /*selector*/, NSURL* url) {
  EXPECT_NE(nil, url);
  return nil;
}

ScopedMethodReplacement* s_responds;

/// Hides the method by which newer systems report their version.
BOOL RespondsAsOldSystems(id self, SEL selector, SEL asked) {
  return asked != NSSelectorFromString(@"operatingSystemVersion") &&
         ((BOOL(*)(id, SEL, SEL))s_responds->original())(self, selector, asked);
}

std::string Join(unsigned int major, unsigned int minor, unsigned int bugfix) {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(bugfix);
}

class MacSystemVersionTest : public testing::Test {
 protected:
  MacSystemVersionTest()
      : coreServices_(object_getClass([NSFileManager defaultManager]),
                      @selector(URLForDirectory:inDomain:appropriateForURL:create:error:),
                      (IMP)CoreServices),
        responds_(object_getClass([NSProcessInfo processInfo]), @selector(respondsToSelector:),
                  (IMP)RespondsAsOldSystems),
        file_(folder_ / "SystemVersion.plist") {
    s_coreServices = folder_.Path();
    s_hasCoreServices = true;
    s_foldersAsked = 0;
    s_responds = &responds_;
  }
  ~MacSystemVersionTest() override { [pool_ release]; }

  std::string Version() {
    unsigned int major = 77;
    unsigned int minor = 77;
    unsigned int bugfix = 77;
    ObtainMacSystemVersion(&major, &minor, &bugfix);
    return Join(major, minor, bugfix);
  }

  std::string VersionWithFile(const std::string& contents) {
    WriteWholeFile(file_, contents);
    return Version();
  }

  std::string VersionFor(const std::string& productVersion) {
    return VersionWithFile(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\"><dict><key>ProductName</key><string>Mac OS X</string>"
        "<key>ProductVersion</key>" +
        productVersion + "</dict></plist>\n");
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
  ScopedMethodReplacement coreServices_;
  ScopedMethodReplacement responds_;
  std::string file_;
};

TEST_F(MacSystemVersionTest, ThreeTwoAndOneComponents) {
  EXPECT_EQ("10.6.8", VersionFor("<string>10.6.8</string>"));
  EXPECT_EQ("10.15.7", VersionFor("<string>10.15.7</string>"));
  EXPECT_EQ("11.2.3", VersionFor("<string>11.2.3</string>"));
  EXPECT_EQ("10.6.0", VersionFor("<string>10.6</string>"));
  EXPECT_EQ("12.0.0", VersionFor("<string>12</string>"));
  EXPECT_EQ("10.6.8", VersionFor("<string>10.6.8.4</string>"));
}

TEST_F(MacSystemVersionTest, ComponentsThatAreNoNumbers) {
  EXPECT_EQ("0.0.0", VersionFor("<string></string>")) << "one component, and it is empty";
  EXPECT_EQ("10.6.0", VersionFor("<string>10.6b2.x</string>"));
  EXPECT_EQ("0.0.0", VersionFor("<string>..</string>"));
  EXPECT_EQ("10.0.8", VersionFor("<string>10..8</string>"));
}

TEST_F(MacSystemVersionTest, NumbersTooLargeForAnInt) {
  EXPECT_EQ("2147483647.2147483648.10", VersionFor("<string>4294967306.-4294967306.10</string>"));
}

TEST_F(MacSystemVersionTest, VersionIsNoString) {
  EXPECT_EQ("10.0.0", VersionFor("<real>11.2</real>"));
  EXPECT_EQ("10.0.0", VersionFor("<integer>11</integer>"));
  EXPECT_EQ("10.0.0", VersionFor("<array><string>11</string></array>"));
  EXPECT_EQ("10.0.0", VersionFor("<dict/>"));
}

TEST_F(MacSystemVersionTest, FileIsMissing) { EXPECT_EQ("10.0.0", Version()); }

TEST_F(MacSystemVersionTest, FolderOfTheFileIsUnknown) {
  ScopedMethodReplacement contents([NSDictionary class], @selector(dictionaryWithContentsOfURL:),
                                   (IMP)ContentsOfURL, ScopedMethodReplacement::kClassMethod);
  s_hasCoreServices = false;
  EXPECT_EQ("10.0.0", Version());
  EXPECT_EQ(1, s_foldersAsked);
}

TEST_F(MacSystemVersionTest, FileIsAFolder) {
  fs::create_directory(file_);
  EXPECT_EQ("10.0.0", Version());
}

TEST_F(MacSystemVersionTest, FileIsMalformed) {
  EXPECT_EQ("10.0.0", VersionWithFile(""));
  EXPECT_EQ("10.0.0", VersionWithFile("<?xml version=\"1.0\"?><plist><dict><key>Produ"));
  EXPECT_EQ("10.0.0", VersionWithFile("{ ProductVersion = \"11"));
  EXPECT_EQ("10.0.0", VersionWithFile("bplist00"));
  EXPECT_EQ("10.0.0", VersionWithFile("bplist00" + std::string(38, '\xFF')));
  EXPECT_EQ("10.0.0", VersionWithFile(std::string("\x00\xFF\xFE\x80", 4)));
}

TEST_F(MacSystemVersionTest, FileHoldsNoVersion) {
  EXPECT_EQ("10.0.0",
            VersionWithFile("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>"
                            "ProductVersion</string></array></plist>"));
  EXPECT_EQ("10.0.0",
            VersionWithFile("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Product"
                            "Name</key><string>Mac OS X</string></dict></plist>"));
}

TEST_F(MacSystemVersionTest, BinaryFile) {
  NSDictionary* properties = [NSDictionary dictionaryWithObject:@"10.13.6"
                                                         forKey:@"ProductVersion"];
  NSData* data = [NSPropertyListSerialization dataWithPropertyList:properties
                                                            format:NSPropertyListBinaryFormat_v1_0
                                                           options:0
                                                             error:nullptr];
  ASSERT_TRUE([data writeToFile:String(file_) atomically:NO]);
  EXPECT_EQ("bplist", ReadWholeFile(file_).substr(0, 6));
  EXPECT_EQ("10.13.6", Version());
}

TEST_F(MacSystemVersionTest, ValueHoldsSixteenBitsOfEachNumber) {
  static_assert(sizeof(MacSystemVersion) == 6, "three fields of 16 bits, no more");
  static_assert(std::is_same_v<decltype(MacSystemVersion::major), unsigned short>, "unsigned");
  EXPECT_EQ(0u, offsetof(MacSystemVersion, major));
  EXPECT_EQ(2u, offsetof(MacSystemVersion, minor));
  EXPECT_EQ(4u, offsetof(MacSystemVersion, bugfix));

  EXPECT_EQ("65546.65551.131079", VersionFor("<string>65546.65551.131079</string>"));
  EXPECT_EQ((MacSystemVersion{10, 15, 7}), MacSystemVersion::GetSystemVersion());
}

TEST_F(MacSystemVersionTest, ValueIsAskedAnewAndLeavesTheCacheAlone) {
  EXPECT_EQ((MacSystemVersion{0, 0, 0}), MacSystemVersion::sMacSystemVersionUninitialized);
  EXPECT_EQ(MacSystemVersion::sMacSystemVersionUninitialized,
            MacSystemVersion::sCachedSystemVersion);

  WriteWholeFile(file_, "{ ProductVersion = \"10.7.1\"; }");
  EXPECT_EQ((MacSystemVersion{10, 7, 1}), MacSystemVersion::GetSystemVersion());
  WriteWholeFile(file_, "{ ProductVersion = \"10.7.2\"; }");
  EXPECT_EQ((MacSystemVersion{10, 7, 2}), MacSystemVersion::GetSystemVersion());
  EXPECT_EQ(2, s_foldersAsked);
  EXPECT_EQ(MacSystemVersion::sMacSystemVersionUninitialized,
            MacSystemVersion::sCachedSystemVersion);
}

TEST(MacSystemVersion, Comparison) {
  const MacSystemVersion version = {10, 7, 5};
  EXPECT_TRUE(version == (MacSystemVersion{10, 7, 5}));
  EXPECT_FALSE(version != (MacSystemVersion{10, 7, 5}));
  EXPECT_TRUE(version != (MacSystemVersion{11, 7, 5}));
  EXPECT_TRUE(version != (MacSystemVersion{10, 8, 5}));
  EXPECT_TRUE(version != (MacSystemVersion{10, 7, 6}));
}

}  // namespace
