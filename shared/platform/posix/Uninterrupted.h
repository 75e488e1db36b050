// System calls that a signal may interrupt.
#pragma once

#include <cerrno>

/// Makes the system call `call`, which returns a negative number on failure, and makes it again
/// each time that a signal has interrupted it. Returns its result; errno is the call's.
template <typename Call>
auto Uninterrupted(Call call) -> decltype(call()) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) {
      return result;
    }
  }
}
