// One descriptor for the run loop that stands for all that a transfer waits for.
#pragma once

#include <curl/curl.h>

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

  /// Watches `socket` for `what`, as libcurl's CURLMOPT_SOCKETFUNCTION is called.
  void Watch(curl_socket_t socket, int what);

  /// Starts a timer, or starts it again: it is ready once, after `seconds`.
  void StartWakeTimer(double seconds);
  void StopWakeTimer();
  void StartIdleTimer(double seconds);

  /// What Serve() found.
  struct Activity {
    bool isHeard;  ///< A socket was ready.
    bool isIdle;   ///< The idle timer was.
  };

  /// Passes every ready socket and an expired wake timer to `multi`, and stops that timer. `multi`
  /// may be null: nothing is passed then. Does not wait. Returns what was ready.
  Activity Serve(CURLM* multi);

 private:
  bool WatchTimer(int timer) const;

  int poller_;
  int wakeTimer_;
  int idleTimer_;
  bool isOpen_;
};
