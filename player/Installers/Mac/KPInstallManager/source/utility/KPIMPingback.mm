#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPingback.h"

@implementation KP_DECOMP_KPIMPingback

// Reports nothing yet.
+ (void)doPingbackWithPreviousVersion:(NSString*)previousVersion {
  (void)previousVersion;
}

@end
