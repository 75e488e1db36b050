// What the pingback asks the machine.
#pragma once

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"

@interface KP_DECOMP_KPIMPingback (Internal)

/// The system's version as its property list has it, such as "10.9.5"; nil when the list or the
/// version in it is missing.
+ (NSString*)_getOSVersion;

/// "x86_64", "i386", or "unknown" when the kernel does not tell the processor's type.
+ (NSString*)_getCPUArch;

/// True when the processor runs 64-bit processes.
+ (bool)_getSupports64BitProcesses;

/// How the installation was begun: "3" for an express install, whose flag file is removed here;
/// otherwise the text of the install-vector file as it stands, nil when that cannot be read as
/// UTF-8; "15" when there is neither file.
+ (NSString*)_getInstallVector;

@end
