#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback+Internal.h"

#include <sys/sysctl.h>

#include "KPVendorConfig.h"
#include "player/Installers/Mac/KPInstallManager/source/utility/ConsoleUserLanguage.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/ExpressInstallFlag.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/URLFromText.h"
#include "shared/platform/posix/RegularFile.h"

namespace {

// The server requires this form: the version directly after the path, then "~", then the fields.
NSString* const kURLFormat = @"%@%@~%@&%@&%@&%@&%@&%@&%@&%@";
NSString* const kBaseURL =
    @"https://" KP_DOWNLOAD_HOST "/get/korvelplayer/update/current/install/version.xml";
NSString* const kVersionFormat = @"%d.%d.%d.%d";
NSString* const kInstallVectorFormat = @"installVector=%@";
NSString* const kOSField = @"os=mac";
NSString* const kOSVersionFormat = @"osVer=%@";
NSString* const kPlayerTypeField = @"playerType=pep";
NSString* const kPreviousVersionFormat = @"previousVersion=%@";
NSString* const kLanguageFormat = @"lang=%s";
NSString* const kCPUWordLengthFormat = @"cpuWordLength=%@";
NSString* const kCPUArchFormat = @"cpuArch=%@";

NSString* const kNoPreviousVersion = @"0.0.0.0";
constexpr NSTimeInterval kTimeOut = 30;

NSString* const kSystemVersionFile = @"/System/Library/CoreServices/SystemVersion.plist";
NSString* const kExpressInstallVector = @"3";
NSString* const kInstallVectorFile = @"/Library/Application Support/Velmora/install_vector.txt";
NSString* const kDefaultInstallVector = @"15";

NSString* VersionText() {
  return [NSString stringWithFormat:kVersionFormat, KP_VERSION_MAJOR, KP_VERSION_MINOR,
                                    KP_VERSION_BUGFIX, KP_VERSION_BUILD];
}

// Returns the address of the pingback. Building it consumes the express-install flag and briefly
// takes on the console user's id.
NSString* PingbackURLText(NSString* previousVersion) {
  NSString* version = VersionText();
  NSString* installVector =
      [NSString stringWithFormat:kInstallVectorFormat, [KPIMPingback _getInstallVector]];
  NSString* osVersion = [NSString stringWithFormat:kOSVersionFormat, [KPIMPingback _getOSVersion]];
  NSString* previous =
      [NSString stringWithFormat:kPreviousVersionFormat,
                                 previousVersion != nil ? previousVersion : kNoPreviousVersion];
  NSString* language = [NSString stringWithFormat:kLanguageFormat, ConsoleUserLanguage()];
  NSString* wordLength =
      [NSString stringWithFormat:kCPUWordLengthFormat,
                                 [KPIMPingback _getSupports64BitProcesses] ? @"64" : @"32"];
  NSString* arch = [NSString stringWithFormat:kCPUArchFormat, [KPIMPingback _getCPUArch]];
  return
      [NSString stringWithFormat:kURLFormat, kBaseURL, version, installVector, kOSField, osVersion,
                                 kPlayerTypeField, previous, language, wordLength, arch];
}

// Sends one request to `urlText` and forgets the answer.
void SendRequest(NSString* urlText) {
  // The fields are not escaped. If one contains a character that a URL cannot have, `url` is nil
  // and the request fails.
  NSURL* url = URLFromText(urlText);
  NSURLRequest* request = [[NSURLRequest alloc] initWithURL:url
                                                cachePolicy:NSURLRequestReloadIgnoringLocalCacheData
                                            timeoutInterval:kTimeOut];
  @try {
    [NSURLConnection sendSynchronousRequest:request returningResponse:nullptr error:nullptr];
  } @finally {
    [request release];
  }
}

}  // namespace

@implementation KP_DECOMP_KPIMPingback

+ (void)doPingbackWithPreviousVersion:(NSString*)previousVersion {
  SendRequest(PingbackURLText(previousVersion));
}

@end

@implementation KP_DECOMP_KPIMPingback (Internal)

+ (NSString*)_getOSVersion {
  NSDictionary* system = [NSDictionary dictionaryWithContentsOfFile:kSystemVersionFile];
  return [system objectForKey:@"ProductVersion"];
}

+ (NSString*)_getCPUArch {
  int32_t type = 0;
  size_t size = sizeof(type);
  // The type itself does not matter, only that the kernel reports one.
  if (sysctlbyname("hw.cputype", &type, &size, nullptr, 0) != 0) {
    return @"unknown";
  }
  return [self _getSupports64BitProcesses] ? @"x86_64" : @"i386";
}

+ (bool)_getSupports64BitProcesses {
  static const char* const kNames[] = {"hw.cpu64bit_capable", "hw.optional.x86_64",
                                       "hw.optional.64bitops"};
  int32_t answer = 0;
  for (const char* name : kNames) {
    size_t size = sizeof(answer);
    if (sysctlbyname(name, &answer, &size, nullptr, 0) == 0 && answer == 1) {
      return true;
    }
  }
  return false;
}

+ (NSString*)_getInstallVector {
  if (IsExpressInstallFlagSet()) {
    RemoveExpressInstallFlag();
    return kExpressInstallVector;
  }
  if ([[NSFileManager defaultManager] fileExistsAtPath:kInstallVectorFile]) {
    // Reading a FIFO would block.
    return IsRegularFile([kInstallVectorFile fileSystemRepresentation])
               ? [NSString stringWithContentsOfFile:kInstallVectorFile
                                           encoding:NSUTF8StringEncoding
                                              error:nullptr]
               : nil;
  }
  return kDefaultInstallVector;
}

@end
