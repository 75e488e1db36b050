#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
