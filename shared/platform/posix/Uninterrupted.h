// Calls that a signal may interrupt.
#pragma once

#include <cerrno>
#include <cstdio>

/// Whether a call that returned `result` has failed: a negative number or a null pointer.
template <typename Number>
bool HasFailed(Number result) {
  return result < 0;
}
template <typename Object>
bool HasFailed(Object* result) {
  return result == nullptr;
}

/// Calls `call`, and calls it again as long as it fails because a signal has interrupted it.
/// Returns its last result; errno is the call's.
template <typename Call>
auto Uninterrupted(Call call) -> decltype(call()) {
  for (;;) {
    const auto result = call();
    if (!HasFailed(result) || errno != EINTR) {
      return result;
    }
  }
}

/// Returns the next byte of `file`, or EOF at its end and after an error. A read that a signal has
/// interrupted is repeated. Locking the stream would be most of the work, so it is not locked
/// (getc_unlocked(3)): only one thread at a time may use it.
inline int NextByte(FILE* file) {
  int byte = getc_unlocked(file);
  while (byte == EOF && ferror(file) != 0 && errno == EINTR) {
    clearerr(file);
    byte = getc_unlocked(file);
  }
  return byte;
}
