// The settings engine's own string.
#pragma once

#include <stddef.h>

namespace SASM {

/// An owned, NUL-terminated string of plain bytes. No encoding is assumed and no length is
/// kept: every length is found by looking for the NUL. No two strings share an array.
class SimpleString {
 public:
  /// Holds a copy of `text`; a null pointer gives the empty string.
  explicit SimpleString(const char* text = nullptr);
  SimpleString(const SimpleString& other);
  SimpleString& operator=(const SimpleString& other);
  ~SimpleString();

  /// A new array with a copy of `text` up to and with its NUL, or with the empty string for a
  /// null pointer. The caller frees it with `delete[]`.
  static char* CopyString(const char* text);

  /// Turns A to Z into a to z in place and leaves every other byte as it is. Returns the
  /// string's length in bytes.
  size_t toLowercase();

  /// The truth that a setting's text stands for. True for "true", "t", "yes" and "y" in any
  /// case, and for text that strtol(3) reads as a decimal number other than zero (blanks and a
  /// sign may lead, anything may follow); false for everything else.
  bool boolValue() const;

  /// The text, on the heap; never null.
  char* mString;
};

}  // namespace SASM
