#include "shared/platform/linux/systemd/SystemBus.h"

#include <cerrno>
#include <chrono>
#include <utility>

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

/// Waits until the bus has accepted the connection: libsystemd itself would wait for 90 seconds.
/// Returns 0 or a negative errno.
int AwaitConnection(sd_bus* bus) {
  const auto end = steady_clock::now() + microseconds(BusTimeLimit());
  for (;;) {
    int result = sd_bus_process(bus, nullptr);
    result = result < 0 ? result : sd_bus_is_ready(bus);
    if (result != 0) {
      return result < 0 ? result : 0;
    }
    const auto left = duration_cast<microseconds>(end - steady_clock::now()).count();
    if (left <= 0) {
      return -ETIMEDOUT;
    }
    result = sd_bus_wait(bus, static_cast<uint64_t>(left));
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
