#include "shared/platform/linux/systemd/SystemBus.h"

namespace {

constexpr uint64_t kMicroseconds = 25'000'000;

}  // namespace

uint64_t BusTimeLimit() { return kMicroseconds; }
