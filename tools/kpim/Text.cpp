#include "tools/kpim/Text.h"

#include <stdio.h>
#include <string.h>

namespace kpim {

namespace {

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";

struct Character {
  /// Bytes that it takes: 1 for a byte that is not UTF-8.
  size_t length = 1;
  /// 0 for a byte that is not UTF-8.
  unsigned int codePoint = 0;
  bool valid = false;
};

/// First character of the `available` bytes, at least one, at `text`.
Character FirstCharacter(const char* text, size_t available) {
  struct Form {
    unsigned int mask, lead, length, lowest;
  };
  static constexpr Form kForms[] = {
      {0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};

  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  for (const Form& form : kForms) {
    if ((bytes[0] & form.mask) != form.lead) {
      continue;
    }
    if (available < form.length) {
      return {};
    }
    unsigned int codePoint = bytes[0] & ~form.mask;
    for (size_t i = 1; i < form.length; ++i) {
      if ((bytes[i] & 0xC0) != 0x80) {
        return {};
      }
      codePoint = codePoint << 6 | (bytes[i] & 0x3FU);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < form.lowest || codePoint > 0x10FFFF || surrogate) {
      return {};
    }
    return {form.length, codePoint, true};
  }
  return {};
}

bool IsPrintable(const Character& character) {
  const bool control =
      character.codePoint < 0x20 || (character.codePoint >= 0x7F && character.codePoint < 0xA0);
  return character.valid && !control;
}

std::string Formatted(const char* format, unsigned int value) {
  char text[16];
  (void)snprintf(text, sizeof text, format, value);
  return text;
}

/// Calls `visit` with each character of `text` and the bytes that it stands in.
template <typename Visitor>
void ForEachCharacter(const std::string& text, Visitor visit) {
  for (size_t i = 0; i < text.size();) {
    const Character character = FirstCharacter(text.data() + i, text.size() - i);
    visit(character, text.substr(i, character.length));
    i += character.length;
  }
}

}  // namespace

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

std::string JSONString(const std::string& text) {
  std::string result = "\"";
  ForEachCharacter(text, [&](const Character& character, const std::string& bytes) {
    if (!character.valid) {
      result += kReplacementCharacter;
    } else if (character.codePoint == '"' || character.codePoint == '\\') {
      result += "\\" + bytes;
    } else if (!IsPrintable(character)) {
      result += Formatted("\\u%04x", character.codePoint);
    } else {
      result += bytes;
    }
  });
  return result + "\"";
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
