// Linked into a program that never keeps its caller's environment.
#include "shared/platform/linux/environment/EnvironmentFilter.h"

extern "C" void KPCleanEnvironment(int /*argc*/, char** /*argv*/, char** environment) {
  RemoveUntrustedVariables(environment);
}

// The dynamic linker calls it before the constructors of all libraries, of which some read the
// environment. `environment` is the kernel's array, which the C library takes over afterwards.
[[gnu::section(".preinit_array"),
  gnu::used]] static void (*const s_atStart)(int, char**, char**) = KPCleanEnvironment;
