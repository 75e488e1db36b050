// The version of the running operating system.
#pragma once

/// Writes the three numbers of the running macOS; 10.0.0 when the system does not tell.
void ObtainMacSystemVersion(unsigned int* major, unsigned int* minor, unsigned int* bugfix);

/// A version of macOS.
struct MacSystemVersion {
  unsigned short major;
  unsigned short minor;
  unsigned short bugfix;

  /// The running system's version, asked anew; the low 16 bits of each number.
  static MacSystemVersion GetSystemVersion();

  /// The running system's version, kept for the process by whoever asks for it first; equal to
  /// `sMacSystemVersionUninitialized` until then.
  static MacSystemVersion sCachedSystemVersion;

  /// All zero: no version yet.
  static const MacSystemVersion sMacSystemVersionUninitialized;
};

inline bool operator==(const MacSystemVersion& left, const MacSystemVersion& right) {
  return left.major == right.major && left.minor == right.minor && left.bugfix == right.bugfix;
}

inline bool operator!=(const MacSystemVersion& left, const MacSystemVersion& right) {
  return !(left == right);
}
