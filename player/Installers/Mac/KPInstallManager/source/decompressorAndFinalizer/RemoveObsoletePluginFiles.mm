#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"

#import <Foundation/Foundation.h>

static NSString* const kPluginFolderInHome = @"Library/Internet Plug-Ins/";
static NSString* const kObsoleteNamesInHome[] = {
    @"Korvel Player.plugin",
    @"Korvel Player Enabler.plugin",
    @"Quorrel Korvel NP-PPC",
    @"korvelplayer.xpt",
};
static NSString* const kObsoleteSystemPlugin =
    @"/Library/Internet Plug-Ins/Korvel Player Enabler.plugin";

static void RemoveIfPresent(NSString* path) {
  NSFileManager* fileManager = [NSFileManager defaultManager];
  if (![fileManager fileExistsAtPath:path]) return;
  [fileManager removeItemAtPath:path error:NULL];
}

bool RemoveObsoletePluginFiles() {
  NSString* home = [[[NSProcessInfo processInfo] environment] objectForKey:@"HOME"];
  NSString* folder = [home stringByAppendingPathComponent:kPluginFolderInHome];
  for (NSString* name : kObsoleteNamesInHome) {
    RemoveIfPresent([folder stringByAppendingPathComponent:name]);
  }
  RemoveIfPresent(kObsoleteSystemPlugin);
  return true;
}
