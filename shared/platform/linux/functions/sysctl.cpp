// <sys/sysctl.h> over uname(2).
#include <sys/sysctl.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

/// Processor families, numbered as in macOS's <mach/machine.h>.
constexpr int32_t kCPUTypeX86 = 7;
constexpr int32_t kCPUTypeARM64 = 0x0100000C;

/// What macOS would say on a machine that uname(2) calls `machineName`.
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

struct Value {
  const char* name;
  int32_t Processor::*field;
};

constexpr Value kValues[] = {
    {"hw.cputype", &Processor::type},
    {"hw.cpu64bit_capable", &Processor::is64Bit},
    {"hw.optional.x86_64", &Processor::isX86_64},
    {"hw.optional.64bitops", &Processor::is64Bit},
};

const Processor* ThisProcessor() {
  utsname host;
  if (uname(&host) != 0) {
    return nullptr;
  }
  const auto* found = std::find_if(
      std::begin(kProcessors), std::end(kProcessors),
      [&host](const Processor& each) { return strcmp(each.machineName, host.machine) == 0; });
  return found == std::end(kProcessors) ? nullptr : found;
}

int Fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

extern "C" int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp,
                            size_t newlen) {
  if (name == nullptr || (oldp != nullptr && oldlenp == nullptr)) {
    return Fail(EFAULT);
  }
  const auto* value =
      std::find_if(std::begin(kValues), std::end(kValues),
                   [name](const Value& each) { return strcmp(each.name, name) == 0; });
  const Processor* processor = ThisProcessor();
  if (value == std::end(kValues) || processor == nullptr) {
    return Fail(ENOENT);
  }
  if (newp != nullptr || newlen != 0) {
    return Fail(EPERM);
  }

  const int32_t answer = processor->*value->field;
  if (oldp == nullptr) {
    if (oldlenp != nullptr) {
      *oldlenp = sizeof(answer);
    }
    return 0;
  }
  const size_t supplied = std::min(*oldlenp, sizeof(answer));
  memcpy(oldp, &answer, supplied);
  *oldlenp = supplied;
  return supplied < sizeof(answer) ? Fail(ENOMEM) : 0;
}
