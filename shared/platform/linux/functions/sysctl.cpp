// <sys/sysctl.h> over uname(2).
#include <fnmatch.h>
#include <sys/sysctl.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

/// Processor families, numbered as in macOS's <mach/machine.h>.
constexpr int32_t kCPUTypeX86 = 7;
constexpr int32_t kCPUTypeARM64 = 0x0100000C;

/// Finds the value called `name` on this machine; false when it is unknown.
bool FindValue(std::string_view name, int32_t& value) {
  utsname host = {};
  (void)uname(&host);
  const bool isX64 = strcmp(host.machine, "x86_64") == 0;
  const bool isARM64 = strcmp(host.machine, "aarch64") == 0;
  if (!isX64 && !isARM64 && fnmatch("i[3-6]86", host.machine, 0) != 0) {
    return false;
  }
  if (name == "hw.cputype") {
    value = isARM64 ? kCPUTypeARM64 : kCPUTypeX86;
  } else if (name == "hw.optional.x86_64") {
    value = isX64 ? 1 : 0;
  } else {
    value = isX64 || isARM64 ? 1 : 0;
    return name == "hw.cpu64bit_capable" || name == "hw.optional.64bitops";
  }
  return true;
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
  int32_t value = 0;
  if (!FindValue(name, value)) {
    return Fail(ENOENT);
  }
  *oldlenp = std::min(*oldlenp, sizeof(value));
  memcpy(oldp, &value, *oldlenp);
  return *oldlenp < sizeof(value) ? Fail(ENOMEM) : 0;
}
