// Facts about the machine, for several tools of the installer.
#pragma once

#import <Foundation/Foundation.h>

/// Has class methods only.
@interface KP_DECOMP_KPIMCommonUtil : NSObject

/// Returns true when a user is logged in at the console; the login window does not count as a user.
/// The result is not cached.
+ (bool)isUserLoggedIn;

/// Returns the operating system's version as major << 16 | minor << 8 | bugfix (10.6.8 is
/// 0x0A0608). The numbers are not masked. The result is cached for the process.
+ (unsigned int)getSystemOSVersion;

/// Returns "MAJOR.MINOR" of the running bundle's CFBundleVersion, or all of it if it has no dot;
/// "XX.y" if the bundle has none.
+ (NSString*)KorvelPlayerVersionBeingInstalled;

@end

@compatibility_alias KPIMCommonUtil KP_DECOMP_KPIMCommonUtil;
