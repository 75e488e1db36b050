// Catching C++ exceptions for Objective-C++ code: with some runtimes a catch block there does not
// catch them.
#pragma once

enum class CxxException {
  kNone,
  kOutOfMemory,
  kOther,
};

/// Calls `function` with `context`. Returns which kind of exception it has thrown, if any.
CxxException CatchCxxExceptions(void (*function)(void*), void* context);
