#import <Foundation/Foundation.h>

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>

namespace {

NSTimeInterval Uptime() { return [[NSProcessInfo processInfo] systemUptime]; }

TEST(SystemUptime, IsTheMonotonicClock) {
  timespec before;
  timespec after;
  clock_gettime(CLOCK_MONOTONIC, &before);
  const NSTimeInterval uptime = Uptime();
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_LE(static_cast<double>(before.tv_sec), uptime);
  EXPECT_GE(static_cast<double>(after.tv_sec) + 1, uptime);
}

TEST(SystemUptime, HasFractionsOfASecond) {
  const NSTimeInterval first = Uptime();
  timespec pause = {0, 2'000'000};
  nanosleep(&pause, nullptr);
  const NSTimeInterval second = Uptime();
  EXPECT_LT(first, second);
  EXPECT_TRUE(first != std::floor(first) || second != std::floor(second));
}

}  // namespace
