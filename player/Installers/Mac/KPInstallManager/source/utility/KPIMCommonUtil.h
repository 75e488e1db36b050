// Questions about the machine that several tools of the installer ask.
#pragma once

#import <Foundation/Foundation.h>

/// Class methods only; there are no instances.
@interface KP_DECOMP_KPIMCommonUtil : NSObject

/// True when a user is logged in at the console; the login window does not count as one. The
/// system is asked anew each time.
+ (bool)isUserLoggedIn;

/// The operating system's version as major << 16 | minor << 8 | bugfix (10.6.8 is 0x0A0608). The
/// numbers are not masked. Asked once per process.
+ (unsigned int)getSystemOSVersion;

/// "MAJOR.MINOR" of the running bundle's CFBundleVersion, or all of it when it has no dot;
/// "XX.y" when the bundle has none.
+ (NSString*)KorvelPlayerVersionBeingInstalled;

@end

@compatibility_alias KPIMCommonUtil KP_DECOMP_KPIMCommonUtil;
