// The version of the running operating system.
#pragma once

/// Stores the version numbers of the running macOS; 10.0.0 when the system does not report them.
void ObtainMacSystemVersion(unsigned int* major, unsigned int* minor, unsigned int* bugfix);

/// A version of macOS.
struct MacSystemVersion {
  unsigned short major;
  unsigned short minor;
  unsigned short bugfix;

  /// Returns the running system's version, not cached; the low 16 bits of each number.
  static MacSystemVersion GetSystemVersion();

  /// The running system's version, for callers that cache it; equal to
  /// `sMacSystemVersionUninitialized` until a caller has set it.
  static MacSystemVersion sCachedSystemVersion;

  /// All zero: the version is not cached yet.
  static const MacSystemVersion sMacSystemVersionUninitialized;
};

inline bool operator==(const MacSystemVersion& left, const MacSystemVersion& right) {
  return left.major == right.major && left.minor == right.minor && left.bugfix == right.bugfix;
}

inline bool operator!=(const MacSystemVersion& left, const MacSystemVersion& right) {
  return !(left == right);
}
