#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/SurviveFailedWrites.h"

#include <csignal>

void SurviveFailedWrites() {
  struct sigaction action = {};
  // A handler, unlike SIG_IGN, is not passed on to programs that are launched.
  action.sa_handler = [](int /*signal*/) {};
  action.sa_flags = SA_RESTART;
  (void)sigaction(SIGPIPE, &action, nullptr);
  (void)sigaction(SIGXFSZ, &action, nullptr);
}
