// <sys/sysctl.h> over uname(2).
#include <sys/sysctl.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

/// Processor families, numbered as in macOS's <mach/machine.h>.
constexpr int32_t kCPUTypeX86 = 7;
constexpr int32_t kCPUTypeARM64 = 0x0100000C;

/// The values that macOS has on a machine that uname(2) calls `machineName`.
struct Processor {
  const char* machineName;
  int32_t type;
  int32_t is64Bit;
  int32_t isX86_64;
};

constexpr Processor kProcessors[] = {
    {"x86_64", kCPUTypeX86, 1, 1}, {"i386", kCPUTypeX86, 0, 0}, {"i486", kCPUTypeX86, 0, 0},
    {"i586", kCPUTypeX86, 0, 0},   {"i686", kCPUTypeX86, 0, 0}, {"aarch64", kCPUTypeARM64, 1, 0},
};

/// The value called `name` on this machine; null when it is unknown.
const int32_t* ValueOf(const char* name) {
  utsname host = {};
  (void)uname(&host);
  for (const Processor& each : kProcessors) {
    if (strcmp(each.machineName, host.machine) != 0) {
      continue;
    }
    if (strcmp(name, "hw.cputype") == 0) {
      return &each.type;
    }
    if (strcmp(name, "hw.cpu64bit_capable") == 0 || strcmp(name, "hw.optional.64bitops") == 0) {
      return &each.is64Bit;
    }
    return strcmp(name, "hw.optional.x86_64") == 0 ? &each.isX86_64 : nullptr;
  }
  return nullptr;
}

int Fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

extern "C" int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp,
                            size_t /*newlen*/) {
  if (oldp == nullptr || newp != nullptr) {
    return Fail(EINVAL);  // Asking for the size and setting a value are not supported.
  }
  const int32_t* const value = ValueOf(name);
  if (value == nullptr) {
    return Fail(ENOENT);
  }
  *oldlenp = std::min(*oldlenp, sizeof(*value));
  memcpy(oldp, value, *oldlenp);
  return *oldlenp < sizeof(*value) ? Fail(ENOMEM) : 0;
}
