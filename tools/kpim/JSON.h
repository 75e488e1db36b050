// Writing JSON (RFC 8259).
#pragma once

#include <string>
#include <vector>

namespace kpim {

/// Returns `text` as a JSON string, quotation marks included. Each byte that is not UTF-8 becomes
/// U+FFFD; characters that a terminal must not receive are written as \uXXXX.
std::string JSONString(const std::string& text);

/// Returns "true" or "false".
std::string JSONBool(bool value);

/// Returns the JSON array of `values`, each of which is JSON, on one line.
std::string JSONArray(const std::vector<std::string>& values);

/// A JSON object on one line. Its members keep the order in which they are added. Add each name
/// only once. Every function that adds members returns the object itself.
class JSONObject {
 public:
  /// Adds a string. When `text` is not UTF-8, a second member, the name followed by "Bytes", has
  /// the whole text in hexadecimal.
  JSONObject& AddString(const std::string& name, const std::string& text);

  /// Adds a whole number.
  JSONObject& AddNumber(const std::string& name, unsigned long value);

  /// Adds a time in seconds, with three decimals.
  JSONObject& AddSeconds(const std::string& name, double seconds);

  /// Adds true or false.
  JSONObject& AddBool(const std::string& name, bool value);

  /// Adds the value `json`, which is JSON.
  JSONObject& Add(const std::string& name, const std::string& json);

  /// Adds the members of `other`.
  JSONObject& Append(const JSONObject& other);

  /// Returns the object as text, without a line break.
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  void AddText(const std::string& text);

  std::string members_;
};

}  // namespace kpim
