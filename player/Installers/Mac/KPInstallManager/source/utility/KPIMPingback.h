// The install pingback: one request that reports an installation to the vendor.
#pragma once

#import <Foundation/Foundation.h>

/// Has class methods only.
@interface KP_DECOMP_KPIMPingback : NSObject

/// Reports this installation to the vendor's download server. Building the URL removes the
/// express-install flag and, as root, briefly takes on the console user's id. `previousVersion` is
/// the version that was installed before, or nil. The answer and every failure of the network are
/// ignored; an Objective-C exception is passed on.
///
/// Blocks until the server has answered. On Linux it ends after 30 seconds, or when the answer
/// exceeds 256 MiB. On macOS it ends after 30 seconds in which the server sends nothing; neither
/// the whole time nor the size of the answer, which is kept in memory, is limited.
+ (void)doPingbackWithPreviousVersion:(NSString*)previousVersion;

@end

@compatibility_alias KPIMPingback KP_DECOMP_KPIMPingback;
