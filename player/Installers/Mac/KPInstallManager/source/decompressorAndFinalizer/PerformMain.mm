#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PerformMain.h"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/ParseCommandLine.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"

namespace {

NSString* const kUserLogPathFormat = @"/Users/%@/%@";
NSString* const kLogPrefix = @"FIN: ";

NSString* const kBootVolume = @"/";
NSString* const kPreviousVersionFile = @"/Library/Application Support/Velmora/previous_version.txt";

NSString* const kUpdaterFile =
    @"/Library/Preferences/Velmora/Korvel Player/" KP_VENDOR_WEB_HOST "/bin/kpupdatepl/kpupdatepl";
NSString* const kLauncher = @"/usr/bin/open";
NSString* const kRedirectPage =
    @"http://" KP_VENDOR_WEB_HOST "/software/korvel/about/installerRedirect.html";

void LogInformation(NSString* message) {
  [g_logger logTimeStampedString:message withLoggingLevel:kLogLevelInformation];
}

/// Log of the console user, in the home that the name stands for by convention, or the machine's.
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

void OpenInstallLog() {
  g_logger = [[KPIMLogger alloc] initWithPath:InstallLogPath()];
  [g_logger setLoggingLevel:kLogLevelDetail];
  [g_logger setPrefix:kLogPrefix];
}

NSString* InstallRoot(int argc, char** argv) {
  return argc >= 2 ? [NSString stringWithUTF8String:argv[1]] : nil;
}

/// True when a user at the console sees what is installed. Asked anew each time: users come and go.
bool InstallsForConsoleUser(NSString* installRoot) {
  return [KPIMCommonUtil isUserLoggedIn] && [installRoot isEqualToString:kBootVolume];
}

/// The version that was installed before, as the installer package noted it; nil when it did not.
NSString* PreviousVersion(NSString* installRoot) {
  NSString* path = [installRoot stringByAppendingPathComponent:kPreviousVersionFile];
  if (![[NSFileManager defaultManager] fileExistsAtPath:path]) {
    return nil;
  }
  LogInformation(@"Reading previous version file");
  NSString* text = [NSString stringWithContentsOfURL:[NSURL fileURLWithPath:path]
                                            encoding:NSUTF8StringEncoding
                                               error:nullptr];
  return [text stringByTrimmingCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]];
}

/// Gives the user back to the web page from which an express install was begun.
void CompleteExpressInstall() {
  NSFileManager* fileManager = [NSFileManager defaultManager];
  NSString* updater = [UserHomeDirectory() stringByAppendingPathComponent:kUpdaterFile];
  if ([fileManager fileExistsAtPath:updater]) {
    [fileManager removeItemAtPath:updater error:nullptr];
  }
  @try {
    [NSTask launchedTaskWithLaunchPath:kLauncher arguments:[NSArray arrayWithObject:kRedirectPage]];
  } @catch (NSException*) {
    // The launcher is missing. The installation is complete without the page.
  }
  [fileManager removeItemAtPath:kExpressInstallFlag error:nullptr];
}

}  // namespace

int PerformMain(int argc, char** argv) {
  OpenInstallLog();
  LogInformation(@"[finalizer started]");

  const bool disableAnalytics = ParseCommandLine(argc, argv);
  NSString* installRoot = InstallRoot(argc, argv);

  const int decompressionFailure = DecompressLZMA(installRoot);
  if (decompressionFailure != 0) {
    [g_logger logTimeStampedString:@"[finalizer failed to decompress plugin]"
                  withLoggingLevel:kLogLevelError];
    return decompressionFailure;
  }

  if (InstallsForConsoleUser(installRoot)) {
    RemoveObsoletePluginFiles();
  }

  // The pingback reports and consumes the express-install flag, so the hand-off below finds one
  // only if it was set again meanwhile. The order is deliberate.
  [KPIMPingback doPingbackWithPreviousVersion:PreviousVersion(installRoot)];
  if (InstallsForConsoleUser(installRoot) &&
      [[NSFileManager defaultManager] fileExistsAtPath:kExpressInstallFlag]) {
    CompleteExpressInstall();
  }

  if (disableAnalytics) {
    LogInformation(@"Disabling Analytics in rks.cfg");
    DisableAnalytics(installRoot);
  }

  LogInformation(@"[finalizer succeeded]");
  return 0;
}
