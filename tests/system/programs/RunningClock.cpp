// A library that sets a program's clock forward whenever the program looks at it, and the clock
// that counts from the machine's start once the file /tmp/later exists.
#include <errno.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

// Seconds: more than the default time limit of kpim latest. GNUstep warns of far longer steps.
constexpr time_t kStep = 100;

int Read(clockid_t clock, timespec* now) {
  static time_t s_steps;
  const int error = errno;
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && clock == CLOCK_REALTIME) {
    now->tv_sec += __atomic_add_fetch(&s_steps, 1, __ATOMIC_RELAXED) * kStep;
  } else if (result == 0 && clock == CLOCK_MONOTONIC && access("/tmp/later", F_OK) == 0) {
    now->tv_sec += kStep;
  }
  if (result == 0) {
    errno = error;
  }
  return static_cast<int>(result);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
  return Read(clock, now);
}

__attribute__((visibility("default"))) int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  timespec exact = {};
  const int result = Read(CLOCK_REALTIME, &exact);
  now->tv_sec = exact.tv_sec;
  now->tv_usec = static_cast<suseconds_t>(exact.tv_nsec / 1000);
  return result;
}

}  // extern "C"
