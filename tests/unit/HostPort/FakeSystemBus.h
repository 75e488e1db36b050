// A message bus of a test's own in place of the system's: it answers each call as the test says.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// What the port's BusTimeLimit() returns in the test, in microseconds, while the object exists;
/// before and after, the real limit. A test that waits by libsystemd's own limits of 25 and 90
/// seconds is ended by SIGALRM.
class ScopedBusTimeLimit {
 public:
  explicit ScopedBusTimeLimit(uint64_t microseconds);
  ~ScopedBusTimeLimit();
  ScopedBusTimeLimit(const ScopedBusTimeLimit&) = delete;
  ScopedBusTimeLimit& operator=(const ScopedBusTimeLimit&) = delete;
};

class FakeSystemBus {
 public:
  /// Answers a method call, on a thread of the bus's: a reply, or a negative errno to hang up.
  using Answer = std::function<int(sd_bus_message* call)>;

  /// Opens the bus and makes DBUS_SYSTEM_BUS_ADDRESS lead there for as long as the object is.
  explicit FakeSystemBus(Answer answer);
  ~FakeSystemBus();
  FakeSystemBus(const FakeSystemBus&) = delete;
  FakeSystemBus& operator=(const FakeSystemBus&) = delete;

  struct Call {
    /// The method and, behind a blank, its first argument when that is a string.
    std::string name;
    /// The whole of it as sd_bus_message_dump(3) writes it, in one line with single blanks.
    std::string text;
    bool mayInteract;
  };
  /// The calls so far, but for the bus's own.
  std::vector<Call> calls() const;
  std::vector<std::string> names() const;

 private:
  void AcceptConnections();
  void Serve(int connection);
  int Process(sd_bus_message* message);

  Answer answer_;
  int listener_ = -1;
  int stop_[2] = {-1, -1};
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::thread thread_;
};

/// A bus that takes connections and says nothing, in place of the system's for as long as the
/// object exists.
class SilentSystemBus {
 public:
  SilentSystemBus();
  ~SilentSystemBus();
  SilentSystemBus(const SilentSystemBus&) = delete;
  SilentSystemBus& operator=(const SilentSystemBus&) = delete;

 private:
  int listener_;
};
