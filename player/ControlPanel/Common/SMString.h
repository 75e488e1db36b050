// The settings engine's own string.
#pragma once

#include <stddef.h>

namespace SASM {

/// An owned, NUL-terminated string of plain bytes. No encoding is assumed. The length is not
/// stored: it is counted up to the NUL each time. Each string has an array of its own.
class SimpleString {
 public:
  /// Makes a copy of `text`; a null pointer makes the empty string.
  explicit SimpleString(const char* text = nullptr);
  SimpleString(const SimpleString& other);
  SimpleString& operator=(const SimpleString& other);
  ~SimpleString();

  /// Returns a new array with a copy of `text`, its NUL included, or with the empty string for a
  /// null pointer. The caller frees it with `delete[]`.
  static char* CopyString(const char* text);

  /// Changes A to Z into a to z in place; all other bytes stay. Returns the string's length in
  /// bytes.
  size_t toLowercase();

  /// Reads the text as a truth value. Returns true for "true", "t", "yes" and "y" in any case, and
  /// for text that strtol(3) reads as a decimal number other than zero (blanks and a sign may lead,
  /// anything may follow); false for everything else.
  bool boolValue() const;

  /// The text, on the heap; never null.
  char* mString;
};

}  // namespace SASM
