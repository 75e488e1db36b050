#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"

#import <SystemConfiguration/SystemConfiguration.h>

#include "shared/platform/mac/MacSystemVersion.h"

namespace {

unsigned int sSystemOSVersion = 0;
bool sSystemOSVersionWasObtained = false;

// Always nil: no code sets it, so the version is read on every call.
NSString* sKorvelPlayerVersionBeingInstalled = nil;

NSString* const kUnknownVersion = @"XX.y";

}  // namespace

@implementation KP_DECOMP_KPIMCommonUtil

+ (bool)isUserLoggedIn {
  CFStringRef user = SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
  if (user == nullptr) {
    return false;
  }
  const bool isLoginWindow = CFEqual(user, CFSTR("loginwindow"));
  CFRelease(user);
  return !isLoginWindow;
}

+ (unsigned int)getSystemOSVersion {
  if (sSystemOSVersionWasObtained) {
    return sSystemOSVersion;
  }
  unsigned int major = 10;
  unsigned int minor = 0;
  unsigned int bugfix = 0;
  ObtainMacSystemVersion(&major, &minor, &bugfix);
  sSystemOSVersion = (major << 16) | (minor << 8) | bugfix;
  sSystemOSVersionWasObtained = true;
  return sSystemOSVersion;
}

+ (NSString*)KorvelPlayerVersionBeingInstalled {
  if (sKorvelPlayerVersionBeingInstalled != nil) {
    // Untested: the variable is always nil.
    return sKorvelPlayerVersionBeingInstalled;
  }
  id version = [[[NSBundle mainBundle] infoDictionary] objectForKey:@"CFBundleVersion"];
  NSArray* components =
      [version isKindOfClass:[NSString class]] ? [version componentsSeparatedByString:@"."] : nil;
  switch ([components count]) {
    case 0:
      // Untested: the first alternative, because the variable is always nil.
      return sKorvelPlayerVersionBeingInstalled != nil ? sKorvelPlayerVersionBeingInstalled
                                                       : kUnknownVersion;
    case 1:
      return [components objectAtIndex:0];
    default:
      return [NSString
          stringWithFormat:@"%@.%@", [components objectAtIndex:0], [components objectAtIndex:1]];
  }
}

@end
