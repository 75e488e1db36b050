// Ownership of what sd-bus(3) hands out, and the connection to the system's message bus.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

/// A connection that is closed with the object. Null when the bus cannot be reached. Every call
/// waits for its answer, so nothing is left to flush, which could wait forever for a bus that
/// hangs.
struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using BusConnection = std::unique_ptr<sd_bus, BusCloser>;

struct BusMessageReleaser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageReleaser>;

/// An error as sd-bus's functions fill it.
class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  sd_bus_error* get() { return &error_; }
  bool Is(const char* name) const { return sd_bus_error_has_name(&error_, name) != 0; }
  /// The bus's own words; null when the failure was none of the bus's.
  const char* Message() const { return error_.message; }

 private:
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

/// How long somebody who is asked for a password may take, in microseconds.
constexpr uint64_t kInteractionMicroseconds = 300'000'000;

/// Connects to the system's bus; `error` receives a negative errno, or 0.
inline BusConnection OpenSystemBus(int& error) {
  sd_bus* bus = nullptr;
  error = sd_bus_open_system(&bus);
  return BusConnection(error < 0 ? nullptr : bus);
}
