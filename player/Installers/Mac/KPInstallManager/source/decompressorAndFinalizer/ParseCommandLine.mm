#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/ParseCommandLine.h"

#include <cstring>

namespace {

constexpr char kDisableAnalyticsSwitch[] = "-disableAnalytics";

}  // namespace

bool ParseCommandLine(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], kDisableAnalyticsSwitch) == 0) {
      return true;
    }
  }
  return false;
}

NSString* InstallRootArgument(int argc, char** argv) {
  return argc >= 2 ? [NSString stringWithUTF8String:argv[1]] : nil;
}
