// Text for people and for programs.
#pragma once

#include <stddef.h>

#include <string>

namespace kpim {

/// One character of a text.
struct Character {
  /// Length in bytes: 1 for a byte that is not UTF-8.
  size_t length = 1;
  /// 0 for a byte that is not UTF-8.
  unsigned int codePoint = 0;
  bool valid = false;
};

/// Returns the first character of the `available` bytes at `text`, of which there must be at least
/// one.
Character FirstCharacter(const char* text, size_t available);

/// Returns false for characters that a terminal must not receive: control characters, characters
/// that reorder or hide the text around them, line and paragraph separators, and bytes that are not
/// UTF-8.
bool IsPrintable(const Character& character);

/// Calls `visit` with each character of `text` and its bytes.
template <typename Visitor>
void ForEachCharacter(const std::string& text, Visitor visit) {
  for (size_t i = 0; i < text.size();) {
    const Character character = FirstCharacter(text.data() + i, text.size() - i);
    visit(character, text.substr(i, character.length));
    i += character.length;
  }
}

/// Returns `value` in the printf(3) format `format`, which takes one unsigned int. The result is
/// cut after 15 bytes.
std::string Formatted(const char* format, unsigned int value);

/// Returns true when `bytes` is well-formed UTF-8 (RFC 3629).
bool IsUTF8(const std::string& bytes);

/// Returns `text` on one line that a terminal can show: each byte of a character that IsPrintable
/// refuses becomes \xHH.
std::string Printable(const std::string& text);

/// Replaces the bytes of characters that IsPrintable refuses by '?'; the length does not change.
void MaskUnprintable(char* text);

/// Returns the bytes of `text` as hexadecimal digits.
std::string Hexadecimal(const std::string& text);

/// Returns `bytes` in millions, with one decimal: "34.1 MB".
std::string Megabytes(unsigned long bytes);

/// Returns `count` with `singular` if it is 1, otherwise with `plural`: "3 entries".
std::string Counted(unsigned long count, const char* singular, const char* plural);

}  // namespace kpim
