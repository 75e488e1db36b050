// Linked into a program that never keeps its caller's environment.
#include "shared/platform/linux/EnvironmentFilter.h"

namespace {

void CleanEnvironment(int /*argc*/, char** /*argv*/, char** environment) {
  RemoveUntrustedVariables(environment);
}

// The dynamic linker calls it before the constructors of all libraries, of which some read the
// environment. `environment` is the kernel's array, which the C library takes over afterwards.
[[gnu::section(".preinit_array"), gnu::used]] void (*const s_atStart)(int, char**,
                                                                      char**) = CleanEnvironment;

}  // namespace
