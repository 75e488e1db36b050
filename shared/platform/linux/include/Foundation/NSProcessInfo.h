// GNUstep's process information, with the uptime as macOS declares it.
#pragma once

// GNUstep declares an integer result. Renamed, so that callers see only the declaration below.
#define systemUptime KPUptimeInWholeSeconds
#include_next <Foundation/NSProcessInfo.h>
#undef systemUptime

@interface NSProcessInfo (KPUptime)

/// Seconds since the machine started, without the time that it slept.
- (NSTimeInterval)systemUptime;

@end
