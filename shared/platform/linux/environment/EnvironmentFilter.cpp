#include "shared/platform/linux/environment/EnvironmentFilter.h"

// A function that may run before the sanitizers' own initialization.
#define KP_UNINSTRUMENTED __attribute__((no_sanitize("address", "undefined")))

namespace {

constexpr char kZoneFolder[] = "/usr/share/zoneinfo/";

/// The rest of `text` after `start`; null when `text` does not begin with it.
KP_UNINSTRUMENTED const char* After(const char* text, const char* start) {
  while (*start != '\0' && *text == *start) {
    ++text;
    ++start;
  }
  return *start == '\0' ? text : nullptr;
}

KP_UNINSTRUMENTED bool IsAnything(const char* /*value*/) { return true; }

KP_UNINSTRUMENTED bool IsLocale(const char* value) {
  while (*value != '\0' && *value != '/') {
    ++value;
  }
  return *value == '\0';
}

KP_UNINSTRUMENTED bool IsTimeZone(const char* value) {
  // tzset(3) accepts a colon before the name.
  const char* const name = *value == ':' ? value + 1 : value;
  for (const char* each = name; *each != '\0'; ++each) {
    if (After(each, "..") != nullptr) {
      return false;
    }
  }
  return *name != '/' || After(name, kZoneFolder) != nullptr;
}

struct TrustedVariable {
  /// The name and the equals sign, or only the first characters of the name.
  const char* start;
  bool (*isTrusted)(const char* value);
};

constexpr TrustedVariable kTrusted[] = {
    {"HOME=", IsAnything},
    {"LANG=", IsLocale},
    {"LANGUAGE=", IsLocale},
    {"LC_", IsLocale},
    {"LOGNAME=", IsAnything},
    {"PATH=", IsAnything},
    {"TMPDIR=", IsAnything},
    {"TZ=", IsTimeZone},
    {"USER=", IsAnything},
#ifdef KP_INSTRUMENTED
    {"ASAN_OPTIONS=", IsAnything},
    {"ASAN_SYMBOLIZER_PATH=", IsAnything},
    {"LLVM_PROFILE_FILE=", IsAnything},
    {"LSAN_OPTIONS=", IsAnything},
    {"UBSAN_OPTIONS=", IsAnything},
#endif
};

KP_UNINSTRUMENTED bool IsTrusted(const char* variable) {
  for (const TrustedVariable& each : kTrusted) {
    const char* const rest = After(variable, each.start);
    if (rest != nullptr) {
      return each.isTrusted(rest);
    }
  }
  return false;
}

}  // namespace

KP_UNINSTRUMENTED void RemoveUntrustedVariables(char** environment) {
  char** kept = environment;
  for (char** variable = environment; *variable != nullptr; ++variable) {
    if (IsTrusted(*variable)) {
      *kept++ = *variable;
    }
  }
  *kept = nullptr;
}
