// For calls of the platform that leak, where no function of its own could name the leak.
#pragma once

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif

/// What the thread allocates in the object's scope, and what only that leads to, is not a leak to
/// LeakSanitizer. Around one call of the platform, never of this project.
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
