// GNUstep's process information, with the uptime as macOS declares it.
#pragma once

// GNUstep declares an integer, which would hide the method's result from every caller.
#define systemUptime KPUptimeInWholeSeconds
#include_next <Foundation/NSProcessInfo.h>
#undef systemUptime

@interface NSProcessInfo (KPUptime)

/// Seconds since the machine started, without the time that it slept.
- (NSTimeInterval)systemUptime;

@end
