// The end of a process that a test has forked.
#pragma once

#include <unistd.h>

#ifdef KP_COVERAGE
/// Writes the coverage of the process to its file. See "Source-based Code Coverage" in clang's
/// documentation.
extern "C" int __llvm_profile_write_file(void);
#endif

/// Ends a forked process as _exit(2) does, after writing its coverage in a build that measures it.
[[noreturn]] inline void EndChild(int status) {
#ifdef KP_COVERAGE
  __llvm_profile_write_file();
#endif
  _exit(status);
}
