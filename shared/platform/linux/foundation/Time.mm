// The local time zone, as the C library knows it, and the uptime.
#import <Foundation/Foundation.h>

#include <ctime>

#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

constexpr long kSecondsPerMinute = 60;

/// The offset that holds now, in whole minutes, as offsets are printed. GNUstep reads Debian's
/// /etc/timezone, which may be missing or stale, and complains at length on standard error when it
/// does not name a zone. Foundation has no zone more than 18 hours from GMT; GMT itself is used
/// then.
NSTimeZone* SystemTimeZone(id /*self*/, SEL /*selector*/) {
  const time_t now = time(nullptr);
  struct tm local;
  tzset();
  localtime_r(&now, &local);
  const long offset = local.tm_gmtoff - local.tm_gmtoff % kSecondsPerMinute;
  return [NSTimeZone timeZoneForSecondsFromGMT:offset] ?: [NSTimeZone timeZoneForSecondsFromGMT:0];
}

const MethodReplacement s_zone('+', "NSTimeZone", "systemTimeZone", SystemTimeZone);

}  // namespace

@implementation NSProcessInfo (KPUptime)

- (NSTimeInterval)systemUptime {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<NSTimeInterval>(now.tv_sec) + static_cast<NSTimeInterval>(now.tv_nsec) / 1e9;
}

@end
