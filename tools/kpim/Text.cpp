#include "tools/kpim/Text.h"

#include <stdio.h>
#include <string.h>

namespace kpim {

namespace {

struct Range {
  unsigned int first, last;
};

// Control characters, line separators, and characters of Unicode's "format" category that are
// invisible or change the direction of text: with them a name can look like another one.
constexpr Range kUnprintable[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},
    {0x180E, 0x180E}, {0x200B, 0x200B}, {0x200E, 0x200F}, {0x2028, 0x202E},
    {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE007F},
};

// A form of UTF-8: in the first of `length` bytes the bits `mask` have the value `lead`. `lowest`
// is the first code point that needs this form.
struct Form {
  unsigned int mask, lead, length, lowest;
};

constexpr Form kForms[] = {
    {0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};

// Returns the form that begins with `firstByte`; null when there is none.
const Form* FormOf(unsigned char firstByte) {
  for (const Form& form : kForms) {
    if ((firstByte & form.mask) == form.lead) {
      return &form;
    }
  }
  return nullptr;
}

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

bool IsSurrogate(unsigned int codePoint) { return codePoint >= 0xD800 && codePoint <= 0xDFFF; }

}  // namespace

Character FirstCharacter(const char* text, size_t available) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  const Form* const form = FormOf(bytes[0]);
  if (form == nullptr || available < form->length) {
    return {};
  }
  unsigned int codePoint = bytes[0] & ~form->mask;
  for (size_t i = 1; i < form->length; ++i) {
    if (!IsContinuation(bytes[i])) {
      return {};
    }
    codePoint = codePoint << 6 | (bytes[i] & 0x3FU);
  }
  if (codePoint < form->lowest || codePoint > 0x10FFFF || IsSurrogate(codePoint)) {
    return {};
  }
  return {form->length, codePoint, true};
}

bool IsPrintable(const Character& character) {
  if (!character.valid) {
    return false;
  }
  for (const Range& range : kUnprintable) {
    if (character.codePoint >= range.first && character.codePoint <= range.last) {
      return false;
    }
  }
  return true;
}

std::string Formatted(const char* format, unsigned int value) {
  char text[16];
  (void)snprintf(text, sizeof text, format, value);
  return text;
}

bool IsUTF8(const std::string& bytes) {
  bool valid = true;
  ForEachCharacter(bytes, [&](const Character& character, const std::string&) {
    valid = valid && character.valid;
  });
  return valid;
}

std::string Printable(const std::string& text) {
  std::string result;
  ForEachCharacter(text, [&](const Character& character, const std::string& bytes) {
    if (IsPrintable(character)) {
      result += bytes;
      return;
    }
    for (const char byte : bytes) {
      result += Formatted("\\x%02x", static_cast<unsigned char>(byte));
    }
  });
  return result;
}

void MaskUnprintable(char* text) {
  const size_t length = strlen(text);
  for (size_t i = 0; i < length;) {
    const Character character = FirstCharacter(text + i, length - i);
    if (!IsPrintable(character)) {
      memset(text + i, '?', character.length);
    }
    i += character.length;
  }
}

std::string Hexadecimal(const std::string& text) {
  std::string result;
  for (const char byte : text) {
    result += Formatted("%02x", static_cast<unsigned char>(byte));
  }
  return result;
}

std::string Megabytes(unsigned long bytes) {
  char text[32];
  (void)snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

std::string Counted(unsigned long count, const char* singular, const char* plural) {
  return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

}  // namespace kpim
