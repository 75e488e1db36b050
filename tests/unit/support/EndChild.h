// The end of a process that a test has forked.
#pragma once

#include <unistd.h>

/// Writes what the process has reached to its file; there in an instrumented build only. See
/// "Source-based Code Coverage" of clang's documentation.
extern "C" __attribute__((weak)) int __llvm_profile_write_file(void);

/// Ends a forked process as _exit(2) does, but what it has reached counts in a measurement.
[[noreturn]] inline void EndChild(int status) {
  if (__llvm_profile_write_file != nullptr) {
    __llvm_profile_write_file();
  }
  _exit(status);
}
