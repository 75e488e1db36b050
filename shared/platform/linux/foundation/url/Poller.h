// One descriptor that represents to the run loop everything that a transfer waits for.
#pragma once

#include <curl/curl.h>

/// Watches libcurl's sockets and two timers. No method blocks.
class Poller {
 public:
  Poller();
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  /// False when no descriptors are left; then nothing else may be called.
  bool IsOpen() const { return isOpen_; }

  /// Returns the descriptor, which is readable while a socket or a timer is ready.
  int Descriptor() const { return poller_; }

  /// Watches `socket` for `what`, or no longer. The values are those that libcurl passes to its
  /// CURLMOPT_SOCKETFUNCTION.
  void Watch(curl_socket_t socket, int what);

  /// Starts or restarts a timer that expires once, after that time; a negative one stops it. The
  /// values are those that libcurl passes to its CURLMOPT_TIMERFUNCTION.
  void SetWakeTimer(long milliseconds);
  /// The same, in seconds.
  void SetIdleTimer(double seconds);

  /// What Serve() found.
  struct Activity {
    bool isHeard;  ///< A socket was ready.
    bool isIdle;   ///< The idle timer had expired.
  };

  /// Passes every ready socket and an expired wake timer to `multi` (nothing if that is null), and
  /// stops that timer. Returns what was ready.
  Activity Serve(CURLM* multi);

 private:
  bool WatchTimer(int timer) const;

  int poller_;
  int wakeTimer_;
  int idleTimer_;
  bool isOpen_;
};
