// Ownership of what sd-bus(3) hands out, and the connection to the system's message bus.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

/// Closes a connection without flushing it, which could wait forever for a bus that hangs. Nothing
/// is left to flush, because every call waits for its answer.
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

 private:
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

/// How long a user may take to enter a password, in microseconds.
constexpr uint64_t kInteractionMicroseconds = 300'000'000;

/// How long the bus may take to accept a connection, and how long each call's answer may take, in
/// microseconds. Defined in a file of its own, so that a test can replace it.
uint64_t BusTimeLimit();

/// Connects to the system's bus and waits until it has accepted the connection. Returns null, with
/// a negative errno in `error`, when the bus cannot be reached; -ETIMEDOUT when it has not accepted
/// the connection within BusTimeLimit(). Calls on the connection that are not answered in that time
/// fail with -ETIMEDOUT.
BusConnection OpenSystemBus(int& error);
