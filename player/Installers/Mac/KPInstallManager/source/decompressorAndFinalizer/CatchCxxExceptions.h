// Catching C++ exceptions for Objective-C++, whose own catch does not see them with every runtime.
#pragma once

enum class CxxException {
  kNone,
  kOutOfMemory,
  kOther,
};

/// Calls `function` with `context`, and returns which kind of exception has left it.
CxxException CatchCxxExceptions(void (*function)(void*), void* context);
