// A message bus that replaces the system's in a test, and answers each call as the test says.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Sets what the port's BusTimeLimit() returns, in microseconds, while the object exists. SIGALRM
/// ends the test process if the object still exists after 100 seconds.
class ScopedBusTimeLimit {
 public:
  explicit ScopedBusTimeLimit(uint64_t microseconds);
  ~ScopedBusTimeLimit();
  ScopedBusTimeLimit(const ScopedBusTimeLimit&) = delete;
  ScopedBusTimeLimit& operator=(const ScopedBusTimeLimit&) = delete;
};

class FakeSystemBus {
 public:
  /// Answers a method call, on a thread of the bus. Returns a negative errno to close the
  /// connection.
  using Answer = std::function<int(sd_bus_message* call)>;

  /// Opens the bus. DBUS_SYSTEM_BUS_ADDRESS leads to it while the object exists.
  explicit FakeSystemBus(Answer answer);
  ~FakeSystemBus();
  FakeSystemBus(const FakeSystemBus&) = delete;
  FakeSystemBus& operator=(const FakeSystemBus&) = delete;

  struct Call {
    /// The method and, after a blank, its first argument if that is a string.
    std::string name;
    /// The whole call as sd_bus_message_dump(3) writes it, in one line with single blanks.
    std::string text;
    bool mayInteract;
    /// How long the port waits for the answer, in microseconds.
    uint64_t timeLimit;
  };
  /// The calls so far, except Hello.
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

/// Replaces the system's bus by one that accepts connections and never answers, while the object
/// exists.
class SilentSystemBus {
 public:
  SilentSystemBus();
  ~SilentSystemBus();
  SilentSystemBus(const SilentSystemBus&) = delete;
  SilentSystemBus& operator=(const SilentSystemBus&) = delete;

 private:
  int listener_;
};
