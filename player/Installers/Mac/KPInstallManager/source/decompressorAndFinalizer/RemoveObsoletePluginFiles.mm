#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"
#include "shared/platform/posix/Removal.h"

namespace {

NSString* const kPluginFolder = @"Library/Internet Plug-Ins/";
NSString* const kObsoleteNamesInHome[] = {
    @"Korvel Player.plugin",
    @"Korvel Player Enabler.plugin",
    @"Quorrel Korvel NP-PPC",
    @"korvelplayer.xpt",
};
NSString* const kObsoleteSystemName = @"Korvel Player Enabler.plugin";

// Removes the item `name` of the plug-in folder below `root`, if it exists.
void RemovePlugin(NSString* root, NSString* name) {
  NSString* pathInRoot = [kPluginFolder stringByAppendingPathComponent:name];
  NSString* path = [root stringByAppendingPathComponent:pathInRoot];
  if (![[NSFileManager defaultManager] fileExistsAtPath:path]) {
    return;
  }
  // After an empty root the path is a relative one.
  const char* start = [root length] > 0 ? [root fileSystemRepresentation] : ".";
  (void)RemoveTree(start, [pathInRoot fileSystemRepresentation]);
}

}  // namespace

bool RemoveObsoletePluginFiles() {
  NSString* home = UserHomeDirectory();
  for (NSString* name : kObsoleteNamesInHome) {
    RemovePlugin(home, name);
  }
  RemovePlugin(@"/", kObsoleteSystemName);
  return true;
}
