// The install pingback: one request that reports an installation to the vendor.
#pragma once

#import <Foundation/Foundation.h>

/// Class methods only; there are no instances.
@interface KP_DECOMP_KPIMPingback : NSObject

/// Reports this installation to the vendor's download server. `previousVersion` is the version
/// that was installed before, or nil. The answer and every failure are ignored.
///
/// Blocks until the server has answered. On Linux that takes 30 seconds at most, and an answer of
/// more than 256 MiB ends it. On macOS the 30 seconds are idle time: they run again whenever the
/// server is heard from, and the answer, which is kept in memory, has no bound.
+ (void)doPingbackWithPreviousVersion:(NSString*)previousVersion;

@end

@compatibility_alias KPIMPingback KP_DECOMP_KPIMPingback;
