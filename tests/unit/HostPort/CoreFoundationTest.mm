#import <CoreFoundation/CoreFoundation.h>
#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

extern "C" int IsEqualInC(CFTypeRef left, CFTypeRef right);

namespace {

TEST(CoreFoundation, StringsAreFoundations) {
  EXPECT_TRUE([(NSString*)CFSTR("loginwindow") isEqualToString:@"loginwindow"]);
}

TEST(CoreFoundation, EqualityIsExact) {
  NSString* text = [NSMutableString stringWithString:@"loginwindow"];
  EXPECT_TRUE(CFEqual((CFStringRef)text, CFSTR("loginwindow")));
  EXPECT_FALSE(CFEqual((CFStringRef)text, CFSTR("LoginWindow")));
  EXPECT_FALSE(CFEqual((CFStringRef)text, CFSTR("loginwindow ")));
  EXPECT_FALSE(CFEqual((CFStringRef)text, (CFTypeRef)[NSNumber numberWithInt:1]));
  EXPECT_EQ(1, IsEqualInC((CFStringRef)text, CFSTR("loginwindow")));
  EXPECT_EQ(0, IsEqualInC((CFStringRef)text, CFSTR("x")));
}

TEST(CoreFoundation, ReleaseGivesUpOneOwnership) {
  NSMutableString* text = [[NSMutableString alloc] initWithString:@"x"];
  [text retain];
  CFRelease((CFStringRef)text);
  EXPECT_EQ(1u, [text retainCount]);
  CFRelease((CFStringRef)text);
}

TEST(CoreFoundationDeathTest, NullEndsTheProcess) {
  EXPECT_DEATH(CFRelease(nullptr), "host port: CFRelease\\(\\) called with NULL");
  EXPECT_DEATH(CFEqual(nullptr, CFSTR("x")), "host port: CFEqual\\(\\) called with NULL");
  EXPECT_DEATH(CFEqual(CFSTR("x"), nullptr), "host port: CFEqual\\(\\) called with NULL");
}

}  // namespace
