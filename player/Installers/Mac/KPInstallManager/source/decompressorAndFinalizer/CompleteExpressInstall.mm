#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CompleteExpressInstall.h"

#import <Foundation/Foundation.h>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveExistingItem.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/ExpressInstallFlag.h"

namespace {

NSString* const kUpdaterFile =
    @"/Library/Preferences/Velmora/Korvel Player/" KP_VENDOR_WEB_HOST "/bin/kpupdatepl/kpupdatepl";
NSString* const kLauncher = @"/usr/bin/open";
NSString* const kRedirectPage =
    @"http://" KP_VENDOR_WEB_HOST "/software/korvel/about/installerRedirect.html";

}  // namespace

void CompleteExpressInstall() {
  if (!IsExpressInstallFlagSet()) {
    return;
  }
  RemoveExistingItem(UserHomeDirectory(), kUpdaterFile, RemoveFileOrEmptyFolder);
  @try {
    [NSTask launchedTaskWithLaunchPath:kLauncher arguments:[NSArray arrayWithObject:kRedirectPage]];
  } @catch (NSException*) {
    // The launcher is missing. The installation is complete without the page.
  }
  RemoveExpressInstallFlag();
}
