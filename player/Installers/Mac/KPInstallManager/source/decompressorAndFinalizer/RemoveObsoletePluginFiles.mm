#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveObsoletePluginFiles.h"

// Removes nothing yet.
bool RemoveObsoletePluginFiles() { return true; }
