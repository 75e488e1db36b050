#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PerformMain.h"

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CompleteExpressInstall.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/ParseCommandLine.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PreviousVersion.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RunStage.h"
#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/SurviveFailedWrites.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"

namespace {

NSString* const kBootVolume = @"/";

void LogInformation(NSString* message) {
  [g_logger logTimeStampedString:message withLoggingLevel:kLogLevelInformation];
}

// True for the boot volume while a user is logged in at the console. Not cached: users log in and
// out.
bool InstallsForConsoleUser(NSString* installRoot) {
  return [KPIMCommonUtil isUserLoggedIn] && [installRoot isEqualToString:kBootVolume];
}

// The stages after the payload stage. A failure ends only the stage in which it occurs.
void RunLaterStages(NSString* installRoot, bool disableAnalytics) {
  RunStage(@"Obsolete file removal", [&] {
    if (InstallsForConsoleUser(installRoot)) {
      RemoveObsoletePluginFiles();
    }
  });

  NSString* previousVersion = nil;
  RunStage(@"Previous version", [&] { previousVersion = ReadPreviousVersion(installRoot); });

  // The pingback removes the express-install flag, so the express stage after it finds the flag
  // only if it was set again in between. The order is deliberate.
  RunStage(@"Pingback", [&] { [KPIMPingback doPingbackWithPreviousVersion:previousVersion]; });
  RunStage(@"Express install", [&] {
    if (InstallsForConsoleUser(installRoot)) {
      CompleteExpressInstall();
    }
  });

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
  NSString* installRoot = InstallRootArgument(argc, argv);

  const int decompressionFailure = DecompressLZMA(installRoot);
  if (decompressionFailure != 0) {
    [g_logger logTimeStampedString:@"[finalizer failed to decompress plugin]"
                  withLoggingLevel:kLogLevelError];
    return decompressionFailure;
  }

  RunLaterStages(installRoot, disableAnalytics);
  RunStage(@"Last log line", [] { LogInformation(@"[finalizer succeeded]"); });
  return 0;
}
