// kpim's JSON and its text for terminals.
#include <gtest/gtest.h>

#include "tools/kpim/JSON.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

TEST(JSONTest, ObjectKeepsTheOrderOfItsMembers) {
  EXPECT_EQ(JSONObject().Text(), "{}");
  const JSONObject inner = JSONObject().AddBool("b", true).AddBool("a", false);
  EXPECT_EQ(inner.Text(), R"({"b": true, "a": false})");
  EXPECT_EQ(JSONObject()
                .AddNumber("n", 18446744073709551615UL)
                .Append(inner)
                .Append(JSONObject())
                .Add("list", JSONArray({"1", inner.Text()}))
                .Text(),
            R"({"n": 18446744073709551615, "b": true, "a": false, )"
            R"("list": [1, {"b": true, "a": false}]})");
  EXPECT_EQ(JSONArray({}), "[]");
}

TEST(JSONTest, SecondsHaveThreeDecimals) {
  EXPECT_EQ(JSONObject().AddSeconds("s", 0).Text(), R"({"s": 0.000})");
  EXPECT_EQ(JSONObject().AddSeconds("s", 0.0625).Text(), R"({"s": 0.062})");
  EXPECT_EQ(JSONObject().AddSeconds("s", 3600.5).Text(), R"({"s": 3600.500})");
}

TEST(JSONTest, StringsAreEscaped) {
  EXPECT_EQ(JSONString("a\"b\\c\n\x7F"), R"("a\"b\\c\u000a\u007f")");
  EXPECT_EQ(JSONString("\u202E\u2066\u200F\uFEFF"), R"("\u202e\u2066\u200f\ufeff")");
  EXPECT_EQ(JSONString("\U000E0041"), R"("\udb40\udc41")");
  EXPECT_EQ(JSONString("\u00E9 \u6F22 \U0001F600"), "\"\u00E9 \u6F22 \U0001F600\"");
}

TEST(JSONTest, TextThatIsNotUTF8HasItsBytesBesideIt) {
  EXPECT_EQ(JSONObject().AddString("path", "a").Text(), R"({"path": "a"})");
  EXPECT_EQ(JSONObject().AddString("path", "a\xFF").Text(),
            "{\"path\": \"a\uFFFD\", \"pathBytes\": \"61ff\"}");
}

TEST(TextTest, PrintableEscapesWhatSteersATerminal) {
  EXPECT_EQ(Printable("a\x1B[2J\xFF"), "a\\x1b[2J\\xff");
  // Each reorders, hides or ends the text around it: the first and the last of each range.
  for (const char* control : {"\u00AD", "\u061C", "\u180E", "\u200B", "\u200E", "\u200F", "\u2028",
                              "\u202A", "\u202E", "\u2060", "\u2066", "\u2069", "\u206F", "\uFEFF",
                              "\uFFF9", "\uFFFB", "\U000E0001", "\U000E007F"}) {
    EXPECT_EQ(Printable(control).substr(0, 2), "\\x") << control;
    std::string masked = control;
    MaskUnprintable(masked.data());
    EXPECT_EQ(masked, std::string(masked.size(), '?'));
  }
  // Joiners are part of ordinary words and pictures.
  for (const char* letter : {"\u200C", "\u200D", "\u2027", "\u202F", "\u2070", "\u00A0"}) {
    EXPECT_EQ(Printable(letter), letter);
  }
}

}  // namespace

}  // namespace kpim
