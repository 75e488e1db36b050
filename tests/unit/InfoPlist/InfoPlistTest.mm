// An executable with an information dictionary from the build finds it through its main bundle.

#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

#include "KPVendorConfig.h"

namespace {

const char* MainBundleValue(NSString* key) {
  return [[[[NSBundle mainBundle] infoDictionary] objectForKey:key] UTF8String];
}

TEST(InfoPlistTest, CarriesTheProductVersion) {
  EXPECT_STREQ(KP_VERSION_TEXT, MainBundleValue(@"CFBundleVersion"));
}

TEST(InfoPlistTest, CarriesTheNameOfTheExecutable) {
  EXPECT_STREQ("info_plist_test", MainBundleValue(@"CFBundleName"));
  EXPECT_STREQ("com.tarvix.kpinstallmanager.info_plist_test",
               MainBundleValue(@"CFBundleIdentifier"));
}

}  // namespace
