#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PerformMain.h"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include <csignal>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CompleteExpressInstall.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/ParseCommandLine.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PreviousVersion.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RunStage.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"

namespace {

NSString* const kUserLogPathFormat = @"/Users/%@/%@";
NSString* const kLogPrefix = @"FIN: ";

NSString* const kBootVolume = @"/";

/// The signals of a reader that has left, and of a file that exceeds the caller's limit, would end
/// the process; the calls then fail as on a full disk. A handler, unlike ignoring a signal, is not
/// passed on to programs that are launched.
void SurviveFailedWrites() {
  struct sigaction action = {};
  action.sa_handler = [](int /*signal*/) {};
  action.sa_flags = SA_RESTART;
  (void)sigaction(SIGPIPE, &action, nullptr);
  (void)sigaction(SIGXFSZ, &action, nullptr);
}

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

void RemoveObsoleteFilesOnBootVolume(NSString* installRoot) {
  if (InstallsForConsoleUser(installRoot)) {
    RemoveObsoletePluginFiles();
  }
}

void CompleteExpressInstallOnBootVolume(NSString* installRoot) {
  if (InstallsForConsoleUser(installRoot)) {
    CompleteExpressInstall();
  }
}

/// The stages that follow a successful extraction. What fails in one of them ends that stage alone.
void RunLaterStages(NSString* installRoot, bool disableAnalytics) {
  RunStage(@"Obsolete file removal", [&] { RemoveObsoleteFilesOnBootVolume(installRoot); });

  NSString* previousVersion = nil;
  RunStage(@"Previous version", [&] { previousVersion = ReadPreviousVersion(installRoot); });

  // The pingback reports and consumes the express-install flag, so the hand-off after it finds one
  // only if it was set again meanwhile. The order is deliberate.
  RunStage(@"Pingback", [&] { [KPIMPingback doPingbackWithPreviousVersion:previousVersion]; });
  RunStage(@"Express install", [&] { CompleteExpressInstallOnBootVolume(installRoot); });

  if (disableAnalytics) {
    RunStage(@"Analytics opt-out", [&] {
      LogInformation(@"Disabling Analytics in rks.cfg");
      DisableAnalytics(installRoot);
    });
  }
}

}  // namespace

int PerformMain(int argc, char** argv) {
  SurviveFailedWrites();
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

  RunLaterStages(installRoot, disableAnalytics);
  LogInformation(@"[finalizer succeeded]");
  return 0;
}
