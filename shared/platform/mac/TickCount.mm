#include "shared/platform/mac/TickCount.h"

#import <Foundation/Foundation.h>

namespace {

constexpr double kTicksPerSecond = 60.0;

}  // namespace

int64_t TickCount_Modernized() {
  return static_cast<int64_t>([[NSProcessInfo processInfo] systemUptime] * kTicksPerSecond);
}
