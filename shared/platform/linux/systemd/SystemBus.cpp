#include "shared/platform/linux/systemd/SystemBus.h"

#include <time.h>

#include <cerrno>
#include <utility>

namespace {

constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
constexpr uint64_t kNanosecondsPerMicrosecond = 1'000;

uint64_t MicrosecondsNow() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kMicrosecondsPerSecond +
         static_cast<uint64_t>(now.tv_nsec) / kNanosecondsPerMicrosecond;
}

/// Waits until the bus has accepted the connection: libsystemd itself would wait for 90 seconds.
/// Returns 0 or a negative errno.
int AwaitConnection(sd_bus* bus) {
  const uint64_t end = MicrosecondsNow() + BusTimeLimit();
  for (;;) {
    int result = sd_bus_process(bus, nullptr);
    result = result < 0 ? result : sd_bus_is_ready(bus);
    if (result != 0) {
      return result < 0 ? result : 0;
    }
    const uint64_t now = MicrosecondsNow();
    if (now >= end) {
      return -ETIMEDOUT;
    }
    result = sd_bus_wait(bus, end - now);
    if (result < 0 && result != -EINTR) {
      return result;
    }
  }
}

}  // namespace

BusConnection OpenSystemBus(int& error) {
  sd_bus* bus = nullptr;
  error = sd_bus_open_system(&bus);
  if (error < 0) {
    return nullptr;
  }
  BusConnection connection(bus);
  error = sd_bus_set_method_call_timeout(bus, BusTimeLimit());
  error = error < 0 ? error : AwaitConnection(bus);
  return error < 0 ? nullptr : std::move(connection);
}
