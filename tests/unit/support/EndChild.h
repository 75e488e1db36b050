// The end of a process that a test has forked.
#pragma once

#include <unistd.h>

#ifdef KP_COVERAGE
/// Writes what the process has reached to its file. See "Source-based Code Coverage" of clang's
/// documentation.
extern "C" int __llvm_profile_write_file(void);
#endif

/// Ends a forked process as _exit(2) does, but what it has reached counts in a measurement.
[[noreturn]] inline void EndChild(int status) {
#ifdef KP_COVERAGE
  __llvm_profile_write_file();
#endif
  _exit(status);
}
