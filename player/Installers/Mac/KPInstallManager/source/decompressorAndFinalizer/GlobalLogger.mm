#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"

#import <SystemConfiguration/SystemConfiguration.h>

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"

KPIMLogger* g_logger = nil;

namespace {

NSString* const kUserLogPathFormat = @"/Users/%@/%@";
NSString* const kLogPrefix = @"FIN: ";

NSString* InstallLogPath() {
  if (![KPIMCommonUtil isUserLoggedIn]) {
    return [@"/" stringByAppendingPathComponent:kInstallLogFile];
  }
  CFStringRef user = SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
  NSString* path = [NSString stringWithFormat:kUserLogPathFormat, (NSString*)user, kInstallLogFile];
  // The user may have logged out since the test above.
  if (user != nullptr) {
    CFRelease(user);
  }
  return path;
}

}  // namespace

void OpenInstallLog() {
  g_logger = [[KPIMLogger alloc] initWithPath:InstallLogPath()];
  [g_logger setLoggingLevel:kLogLevelDetail];
  [g_logger setPrefix:kLogPrefix];
}
