// Text for people and for programs.
#pragma once

#include <stddef.h>

#include <string>

namespace kpim {

/// True when `bytes` is well-formed UTF-8 (RFC 3629).
bool IsUTF8(const std::string& bytes);

/// `text` on one line that a terminal can show: control characters, and bytes that are not
/// UTF-8, appear as \xHH.
std::string Printable(const std::string& text);

/// Replaces the bytes that Printable would spell out by '?'; the length stays.
void MaskUnprintable(char* text);

/// `text` as a JSON string (RFC 8259), quotation marks included. Bytes that are not UTF-8
/// become U+FFFD each.
std::string JSONString(const std::string& text);

/// The bytes of `text` as hexadecimal digits.
std::string Hexadecimal(const std::string& text);

/// A byte count in millions with one decimal: "34.1 MB".
std::string Megabytes(unsigned long bytes);

/// `count` and `noun`, in the plural unless the count is 1: "3 entries".
std::string Counted(unsigned long count, const char* singular, const char* plural);

}  // namespace kpim
