#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DisableAnalytics.h"

// Edits no settings yet.
void DisableAnalytics(NSString* /*installRoot*/) {}
