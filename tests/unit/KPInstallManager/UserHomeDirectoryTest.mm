#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"

#include <gtest/gtest.h>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

NSDictionary* s_environment;

NSDictionary* Environment(id /*self*/, SEL /*selector*/) { return s_environment; }

TEST(UserHomeDirectory, IsTheEnvironmentsHome) {
  ScopedMethodReplacement environment(object_getClass([NSProcessInfo processInfo]),
                                      @selector(environment), (IMP)Environment);
  s_environment = [NSDictionary dictionaryWithObject:@"/var/éclair home" forKey:@"HOME"];
  EXPECT_EQ("/var/éclair home", Text(UserHomeDirectory()));
  s_environment = [NSDictionary dictionaryWithObject:@"" forKey:@"HOME"];
  EXPECT_EQ("", Text(UserHomeDirectory()));
}

TEST(UserHomeDirectory, IsAbsentWithoutOne) {
  ScopedMethodReplacement environment(object_getClass([NSProcessInfo processInfo]),
                                      @selector(environment), (IMP)Environment);
  s_environment = [NSDictionary dictionaryWithObject:@"/x" forKey:@"home"];
  EXPECT_EQ("(absent)", Text(UserHomeDirectory()));
}

}  // namespace
