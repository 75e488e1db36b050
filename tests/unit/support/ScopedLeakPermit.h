// For calls of the platform that leak, if a suppression could not name a function of the leak.
#pragma once

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif

/// LeakSanitizer ignores what the thread allocates while the object exists, and what only that
/// refers to. Use it around one call of the platform, never of this project.
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
