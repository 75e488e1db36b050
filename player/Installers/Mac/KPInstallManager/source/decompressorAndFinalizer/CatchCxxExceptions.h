// Catching C++ exceptions for Objective-C++ code, where with some runtimes a catch block has no
// effect on them.
#pragma once

/// The kind of exception that a function has thrown.
enum class CxxException {
  kNone,
  /// std::bad_alloc.
  kOutOfMemory,
  kOther,
};

/// Calls `function` with `context`. Returns the kind of C++ exception that it has thrown.
CxxException CatchCxxExceptions(void (*function)(void*), void* context);
