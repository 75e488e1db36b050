#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
