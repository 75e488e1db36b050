// Text for people and for programs.
#pragma once

#include <stddef.h>

#include <string>

namespace kpim {

/// One character of a text.
struct Character {
  /// Bytes that it takes: 1 for a byte that is not UTF-8.
  size_t length = 1;
  /// 0 for a byte that is not UTF-8.
  unsigned int codePoint = 0;
  bool valid = false;
};

/// First character of the `available` bytes, at least one, at `text`.
Character FirstCharacter(const char* text, size_t available);

/// False for what a terminal must not receive: control characters, characters that reorder or hide
/// the text around them, line and paragraph separators, and bytes that are not UTF-8.
bool IsPrintable(const Character& character);

/// Calls `visit` with each character of `text` and the bytes that spell it.
template <typename Visitor>
void ForEachCharacter(const std::string& text, Visitor visit) {
  for (size_t i = 0; i < text.size();) {
    const Character character = FirstCharacter(text.data() + i, text.size() - i);
    visit(character, text.substr(i, character.length));
    i += character.length;
  }
}

/// `value` as the printf(3) format `format`, which takes one unsigned int, has it; at most 15
/// bytes.
std::string Formatted(const char* format, unsigned int value);

/// True when `bytes` is well-formed UTF-8 (RFC 3629).
bool IsUTF8(const std::string& bytes);

/// `text` on one line that a terminal can show: what IsPrintable refuses appears as \xHH, byte by
/// byte.
std::string Printable(const std::string& text);

/// Replaces the bytes that Printable would spell out by '?'; the length stays.
void MaskUnprintable(char* text);

/// The bytes of `text` as hexadecimal digits.
std::string Hexadecimal(const std::string& text);

/// A byte count in millions with one decimal: "34.1 MB".
std::string Megabytes(unsigned long bytes);

/// `count` and `noun`, in the plural unless the count is 1: "3 entries".
std::string Counted(unsigned long count, const char* singular, const char* plural);

}  // namespace kpim
