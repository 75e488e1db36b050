#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include "shared/platform/mac/SharedMacUtils.h"
#include "tests/unit/support/ScopedMethodReplacement.h"

namespace {

NSTimeInterval uptime;

NSTimeInterval Uptime(id /*self*/, SEL /*selector*/) { return uptime; }

class TickCountTest : public testing::Test {
 private:
  ScopedMethodReplacement replacement_ {
    [NSProcessInfo class], @selector(systemUptime), (IMP)Uptime
  };
};

int64_t TicksAt(NSTimeInterval seconds) {
  uptime = seconds;
  return TickCount_Modernized();
}

TEST_F(TickCountTest, CountsSixtiethsOfASecond) {
  EXPECT_EQ(0, TicksAt(0));
  EXPECT_EQ(60, TicksAt(1));
  EXPECT_EQ(90, TicksAt(1.5));
}

TEST_F(TickCountTest, PartsOfATickAreCutOff) {
  EXPECT_EQ(0, TicksAt(0.0166));
  EXPECT_EQ(1, TicksAt(0.0167));
  EXPECT_EQ(59, TicksAt(0.9999));
  EXPECT_EQ(-1, TicksAt(-0.03));
}

TEST_F(TickCountTest, Has64Bits) { EXPECT_EQ(6000000000, TicksAt(1e8)); }

TEST(TickCount, TheRealClockGoesForward) {
  const int64_t first = TickCount_Modernized();
  EXPECT_GT(first, 0);
  EXPECT_GE(TickCount_Modernized(), first);
}

}  // namespace
