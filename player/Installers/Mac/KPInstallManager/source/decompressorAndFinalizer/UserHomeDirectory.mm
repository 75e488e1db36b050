#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/UserHomeDirectory.h"

NSString* UserHomeDirectory() {
  return [[[NSProcessInfo processInfo] environment] objectForKey:@"HOME"];
}
