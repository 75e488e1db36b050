// Permits leaks in a call of the platform, for leaks that no line in tests/lsan.supp can name.
#pragma once

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif

/// While the object exists, LeakSanitizer ignores memory that this thread allocates, and memory
/// that is reachable only from it. Use it around one call of the platform, never of this project.
class ScopedLeakPermit {
 public:
#if __has_feature(address_sanitizer)
  ScopedLeakPermit() { __lsan_disable(); }
  ~ScopedLeakPermit() { __lsan_enable(); }
#else
  ScopedLeakPermit() {}
  ~ScopedLeakPermit() {}
#endif
  ScopedLeakPermit(const ScopedLeakPermit&) = delete;
  ScopedLeakPermit& operator=(const ScopedLeakPermit&) = delete;
};
