#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CompleteExpressInstall.h"

#import <Foundation/Foundation.h>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/ExpressInstallFlag.h"
#include "shared/platform/posix/Removal.h"

namespace {

NSString* const kUpdaterFile =
    @"/Library/Preferences/Velmora/Korvel Player/" KP_VENDOR_WEB_HOST "/bin/kpupdatepl/kpupdatepl";
NSString* const kLauncher = @"/usr/bin/open";
NSString* const kRedirectPage =
    @"http://" KP_VENDOR_WEB_HOST "/software/korvel/about/installerRedirect.html";

void RemoveUpdater() {
  NSString* home = UserHomeDirectory();
  NSString* updater = [home stringByAppendingPathComponent:kUpdaterFile];
  if (![[NSFileManager defaultManager] fileExistsAtPath:updater]) {
    return;
  }
  // After an empty home the path is one below the root.
  const char* root = [home length] > 0 ? [home fileSystemRepresentation] : "/";
  (void)RemoveFileOrEmptyFolder(root, [kUpdaterFile fileSystemRepresentation]);
}

}  // namespace

void CompleteExpressInstall() {
  if (!IsExpressInstallFlagSet()) {
    return;
  }
  RemoveUpdater();
  @try {
    [NSTask launchedTaskWithLaunchPath:kLauncher arguments:[NSArray arrayWithObject:kRedirectPage]];
  } @catch (NSException*) {
    // The launcher is missing. The installation is complete without the page.
  }
  RemoveExpressInstallFlag();
}
