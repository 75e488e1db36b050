// Linked into a program that keeps its caller's environment, except when it runs as root.
#include <unistd.h>

#include "shared/platform/linux/environment/EnvironmentFilter.h"

extern "C" void KPCleanRootEnvironment(int /*argc*/, char** /*argv*/, char** environment) {
  if (geteuid() == 0) {
    RemoveUntrustedVariables(environment);
  }
}

// As in CleanEnvironment.cpp.
[[gnu::section(".preinit_array"),
  gnu::used]] static void (*const s_atStart)(int, char**, char**) = KPCleanRootEnvironment;
