// The install pingback: one request that reports an installation to the vendor.
#pragma once

#import <Foundation/Foundation.h>

/// Class methods only; there are no instances.
@interface KP_DECOMP_KPIMPingback : NSObject

/// Reports this installation to the vendor's download server. `previousVersion` is the version
/// that was installed before, or nil. Blocks until the server has answered, 30 seconds at most;
/// the answer and every failure are ignored.
+ (void)doPingbackWithPreviousVersion:(NSString*)previousVersion;

@end

@compatibility_alias KPIMPingback KP_DECOMP_KPIMPingback;
