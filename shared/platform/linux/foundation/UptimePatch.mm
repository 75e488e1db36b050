#import <Foundation/Foundation.h>

#include <time.h>

@implementation NSProcessInfo (KPUptime)

- (NSTimeInterval)systemUptime {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<NSTimeInterval>(now.tv_sec) + static_cast<NSTimeInterval>(now.tv_nsec) / 1e9;
}

@end
