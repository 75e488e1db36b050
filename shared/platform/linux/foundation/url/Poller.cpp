#include "shared/platform/linux/foundation/url/Poller.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>

#include "shared/platform/linux/foundation/url/CurlLibrary.h"

namespace {

constexpr int kMostReadyDescriptors = 8;

/// The longest time of a timer, in seconds.
constexpr double kLongest = 1e9;

void SetTimer(int timer, double seconds) {
  itimerspec time = {};  // All zero stops the timer.
  if (seconds >= 0) {
    const double limited = std::min(seconds, kLongest);
    time.it_value.tv_sec = static_cast<time_t>(limited);
    const double fraction = limited - static_cast<double>(time.it_value.tv_sec);
    time.it_value.tv_nsec = std::max(static_cast<long>(fraction * 1e9), 1L);
  }
  timerfd_settime(timer, 0, &time, nullptr);
}

int ActionOf(uint32_t events) {
  return ((events & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
         ((events & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
         ((events & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0);
}

}  // namespace

Poller::Poller()
    : poller_(epoll_create1(EPOLL_CLOEXEC)),
      wakeTimer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      idleTimer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  isOpen_ = WatchTimer(wakeTimer_) && WatchTimer(idleTimer_);
}

Poller::~Poller() {
  for (const int descriptor : {poller_, wakeTimer_, idleTimer_}) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

bool Poller::WatchTimer(int timer) const {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = timer;
  return epoll_ctl(poller_, EPOLL_CTL_ADD, timer, &event) == 0;
}

void Poller::Watch(curl_socket_t socket, int what) {
  epoll_event event = {};
  event.data.fd = socket;
  if (what == CURL_POLL_REMOVE) {
    epoll_ctl(poller_, EPOLL_CTL_DEL, socket, &event);
    return;
  }
  event.events =
      ((what & CURL_POLL_IN) != 0 ? EPOLLIN : 0U) | ((what & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0U);
  if (epoll_ctl(poller_, EPOLL_CTL_MOD, socket, &event) != 0) {
    epoll_ctl(poller_, EPOLL_CTL_ADD, socket, &event);
  }
}

void Poller::SetWakeTimer(long milliseconds) {
  SetTimer(wakeTimer_, static_cast<double>(milliseconds) / 1000);
}

void Poller::SetIdleTimer(double seconds) { SetTimer(idleTimer_, seconds); }

Poller::Activity Poller::Serve(CURLM* multi) {
  epoll_event ready[kMostReadyDescriptors];
  const int count = epoll_wait(poller_, ready, kMostReadyDescriptors, 0);
  Activity activity = {};
  for (int i = 0; i < count; ++i) {
    curl_socket_t socket = ready[i].data.fd;
    if (socket == idleTimer_) {
      activity.isIdle = true;
      continue;
    }
    int action = ActionOf(ready[i].events);
    if (socket == wakeTimer_) {
      SetWakeTimer(-1);
      socket = CURL_SOCKET_TIMEOUT;
      action = 0;
    } else {
      activity.isHeard = true;
    }
    int running = 0;
    if (multi != nullptr) {
      Curl().multi_socket_action(multi, socket, action, &running);
    }
  }
  return activity;
}
