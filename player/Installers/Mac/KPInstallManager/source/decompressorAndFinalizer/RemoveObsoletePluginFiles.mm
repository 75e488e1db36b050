#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveExistingItem.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"

namespace {

NSString* const kPluginFolder = @"Library/Internet Plug-Ins/";
NSString* const kObsoleteNamesInHome[] = {
    @"Korvel Player.plugin",
    @"Korvel Player Enabler.plugin",
    @"Quorrel Korvel NP-PPC",
    @"korvelplayer.xpt",
};
NSString* const kObsoleteSystemName = @"Korvel Player Enabler.plugin";

void RemovePlugin(NSString* root, NSString* name) {
  RemoveExistingItem(root, [kPluginFolder stringByAppendingPathComponent:name], RemoveTree);
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
