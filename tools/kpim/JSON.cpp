#include "tools/kpim/JSON.h"

#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";

// Code points from here on take two units of UTF-16, which is what \u counts in.
constexpr unsigned int kFirstSupplementary = 0x10000;

std::string EscapedUnit(unsigned int unit) { return Formatted("\\u%04x", unit); }

std::string Escaped(unsigned int codePoint) {
  if (codePoint < kFirstSupplementary) {
    return EscapedUnit(codePoint);
  }
  const unsigned int rest = codePoint - kFirstSupplementary;
  return EscapedUnit(0xD800 + (rest >> 10)) + EscapedUnit(0xDC00 + (rest & 0x3FF));
}

}  // namespace

std::string JSONString(const std::string& text) {
  std::string result = "\"";
  ForEachCharacter(text, [&](const Character& character, const std::string& bytes) {
    if (!character.valid) {
      result += kReplacementCharacter;
    } else if (character.codePoint == '"' || character.codePoint == '\\') {
      result += "\\" + bytes;
    } else if (!IsPrintable(character)) {
      result += Escaped(character.codePoint);
    } else {
      result += bytes;
    }
  });
  return result + "\"";
}

std::string JSONBool(bool value) { return value ? "true" : "false"; }

std::string JSONArray(const std::vector<std::string>& values) {
  std::string result;
  for (const std::string& value : values) {
    result += (result.empty() ? "" : ", ") + value;
  }
  return "[" + result + "]";
}

JSONObject& JSONObject::AddString(const std::string& name, const std::string& text) {
  Add(name, JSONString(text));
  return IsUTF8(text) ? *this : Add(name + "Bytes", JSONString(Hexadecimal(text)));
}

JSONObject& JSONObject::AddNumber(const std::string& name, unsigned long value) {
  return Add(name, std::to_string(value));
}

JSONObject& JSONObject::AddSeconds(const std::string& name, double seconds) {
  // Put together from integers: the locale may have another decimal point.
  const auto milliseconds = static_cast<unsigned int>(seconds * 1000);
  return Add(name, std::to_string(milliseconds / 1000) + Formatted(".%03u", milliseconds % 1000));
}

JSONObject& JSONObject::AddBool(const std::string& name, bool value) {
  return Add(name, JSONBool(value));
}

JSONObject& JSONObject::Add(const std::string& name, const std::string& json) {
  AddText(JSONString(name) + ": " + json);
  return *this;
}

JSONObject& JSONObject::Append(const JSONObject& other) {
  AddText(other.members_);
  return *this;
}

void JSONObject::AddText(const std::string& text) {
  members_ += (members_.empty() || text.empty() ? "" : ", ") + text;
}

}  // namespace kpim
