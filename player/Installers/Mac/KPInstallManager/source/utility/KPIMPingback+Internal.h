// The fields of the pingback that describe the machine and the installation.
#pragma once

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"

@interface KP_DECOMP_KPIMPingback (Internal)

/// Returns the system's version from its property list, such as "10.9.5"; nil when the list or the
/// version in it is missing.
+ (NSString*)_getOSVersion;

/// Returns "x86_64" for every 64-bit processor, ARM included, and "i386" for every other; "unknown"
/// when the kernel does not report the processor's type.
+ (NSString*)_getCPUArch;

/// Returns true when the processor runs 64-bit processes.
+ (bool)_getSupports64BitProcesses;

/// Returns how the installation was begun: "3" for an express install, whose flag file is removed
/// by this call; otherwise the unchanged text of the install-vector file, or nil if that file
/// cannot be read as UTF-8; "15" if neither file exists.
+ (NSString*)_getInstallVector;

@end
