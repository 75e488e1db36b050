#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"

#import "player/ControlPanel/Mac/Source/ExternalInterface/KSConfigFileManager.h"

static NSString* const kSettingsPath = @"/Library/Application Support/Velmora/rks.cfg";
static NSString* const kOptOutKey = @"DisableAnalytics";
static NSString* const kOptedOut = @"1";

void DisableAnalytics(NSString* installRoot) {
  NSString* path = kSettingsPath;
  if (installRoot != nil) {
    path = [installRoot stringByAppendingPathComponent:kSettingsPath];
  }

  KSConfigFileManager* settings = [[KSConfigFileManager alloc] initWithConfigFile:path];
  [settings setValue:kOptedOut forKey:kOptOutKey];
  [settings synchronizeFile];
  [settings release];
}
