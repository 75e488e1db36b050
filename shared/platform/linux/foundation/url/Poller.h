// One descriptor for the run loop that stands for all that a transfer waits for.
#pragma once

#include <curl/curl.h>

#include <vector>

/// Something that is ready.
struct PollerEvent {
  enum Kind { kSocket, kWakeTimer, kIdleTimer };

  Kind kind;
  /// Of a socket: itself, and what it is ready for, in bits of CURL_CSELECT_.
  curl_socket_t socket;
  int action;
};

/// Watches libcurl's sockets and two timers. Nothing in it waits.
class Poller {
 public:
  Poller();
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  /// False when no descriptors are left; then nothing else may be called.
  bool IsOpen() const { return isOpen_; }

  /// It is readable while something is ready.
  int Descriptor() const { return poller_; }

  /// Watches `socket` for what libcurl's CURLMOPT_SOCKETFUNCTION is called with.
  void Watch(curl_socket_t socket, int what);

  /// Starts a timer, or starts it again: it is ready once, after `seconds`.
  void StartWakeTimer(double seconds);
  void StopWakeTimer();
  void StartIdleTimer(double seconds);

  /// Returns what is ready. The wake timer is stopped by it.
  std::vector<PollerEvent> TakeReady();

 private:
  bool WatchTimer(int timer) const;

  int poller_;
  int wakeTimer_;
  int idleTimer_;
  bool isOpen_;
};
