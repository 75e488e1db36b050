#include "player/ControlPanel/Common/SMString.h"

#include <ctype.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <type_traits>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

using SASM::SimpleString;

TEST(SimpleString, IsOnePointer) { EXPECT_EQ(sizeof(SimpleString), sizeof(char*)); }

TEST(SimpleString, CopyStringMakesAnArrayOfItsOwn) {
  char const* text = "some text";
  char* copy = SimpleString::CopyString(text);
  EXPECT_STREQ(copy, text);
  EXPECT_NE(copy, text);
  delete[] copy;
}

TEST(SimpleString, CopyStringOfNullIsEmpty) {
  char* copy = SimpleString::CopyString(nullptr);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "");
  delete[] copy;
}

TEST(SimpleString, IsEmptyFromNothingAndFromNull) {
  EXPECT_STREQ(SimpleString().mString, "");
  EXPECT_STREQ(SimpleString(nullptr).mString, "");
}

TEST(SimpleString, CopiesShareNoArray) {
  const SimpleString original("text");
  SimpleString copy(original);
  EXPECT_NE(copy.mString, original.mString);
  copy.mString[0] = 'n';
  EXPECT_STREQ(original.mString, "text");
  EXPECT_STREQ(copy.mString, "next");
}

TEST(SimpleString, AssignmentCopiesAndReturnsTheObject) {
  const SimpleString longer("a longer text");
  SimpleString target("x");
  EXPECT_EQ(&(target = longer), &target);
  EXPECT_STREQ(target.mString, "a longer text");
  EXPECT_NE(target.mString, longer.mString);
  target = SimpleString("");
  EXPECT_STREQ(target.mString, "");
}

TEST(SimpleString, SelfAssignmentKeepsTheArray) {
  SimpleString string("same");
  char const* array = string.mString;
  SimpleString const& itself = string;
  string = itself;
  EXPECT_EQ(string.mString, array);
  EXPECT_STREQ(string.mString, "same");
}

TEST(SimpleString, LowersAsciiLettersOnly) {
  // Every byte but the NUL, beside what may become of it.
  std::string all;
  std::string lowered;
  for (int byte = 1; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    lowered += static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + 32 : byte);
  }
  SimpleString string(all.c_str());
  EXPECT_EQ(string.toLowercase(), 255U);
  EXPECT_EQ(string.mString, lowered);
}

TEST(SimpleString, LowersInPlace) {
  SimpleString string(
      "\xC3\x84"
      "BC");  // A with diaeresis, B, C
  char const* array = string.mString;
  EXPECT_EQ(string.toLowercase(), 4U);
  EXPECT_EQ(string.mString, array);
  EXPECT_STREQ(string.mString,
               "\xC3\x84"
               "bc");
}

constexpr unsigned char kLatinCapital = 0xC4;  // A with diaeresis
constexpr unsigned char kLatinSmall = 0xE4;

/// Sets a one-byte locale, in which tolower(3) turns 0xC4 into 0xE4, while it exists. The locale is
/// compiled here, because few machines have one.
class ScopedLatinLocale {
 public:
  ScopedLatinLocale() {
    WriteWholeFile(mFolder / "charmap",
                   "<code_set_name> LATIN\nCHARMAP\n<U0000>..<U007F> \\x00\n"
                   "<U00C4> \\xc4\n<U00E4> \\xe4\nEND CHARMAP\n");
    WriteWholeFile(mFolder / "source",
                   "LC_CTYPE\nupper <U0041>..<U005A>;<U00C4>\nlower <U0061>..<U007A>;<U00E4>\n"
                   "tolower (<U00C4>,<U00E4>)\nEND LC_CTYPE\n");
    // localedef warns of everything that the source lacks, and its status is then not 0.
    (void)system(
        ("cd " + mFolder.Path() + " && localedef -c --quiet -i source -f ./charmap ./latin")
            .c_str());
    setenv("LOCPATH", mFolder.Path().c_str(), 1);
    setlocale(LC_CTYPE, "latin");
    unsetenv("LOCPATH");
  }
  ScopedLatinLocale(ScopedLatinLocale const&) = delete;
  ScopedLatinLocale& operator=(ScopedLatinLocale const&) = delete;
  ~ScopedLatinLocale() { setlocale(LC_CTYPE, mPrevious.c_str()); }

 private:
  TemporaryFolder mFolder;
  std::string mPrevious = setlocale(LC_CTYPE, nullptr);
};

TEST(SimpleString, LowersAsciiLettersOnlyInEveryLocale) {
  const ScopedLatinLocale locale;
  ASSERT_EQ(tolower(kLatinCapital), kLatinSmall) << "localedef made no such locale";
  SimpleString string(
      "\xC4"
      "BC");
  EXPECT_EQ(string.toLowercase(), 3U);
  EXPECT_STREQ(string.mString,
               "\xC4"
               "bc");
}

TEST(SimpleString, LoweringNothingScansNothing) {
  SimpleString string("");
  EXPECT_EQ(string.toLowercase(), 0U);
  EXPECT_STREQ(string.mString, "");
}

struct Truth {
  char const* text;
  bool isTrue;
};

class BoolValue : public testing::TestWithParam<Truth> {};

TEST_P(BoolValue, IsDecidedByTheText) {
  const SimpleString string(GetParam().text);
  EXPECT_EQ(string.boolValue(), GetParam().isTrue);
  EXPECT_STREQ(string.mString, GetParam().text) << "the string itself must not be lowered";
}

INSTANTIATE_TEST_SUITE_P(
    Words, BoolValue,
    testing::Values(Truth{"true", true}, Truth{"TRUE", true}, Truth{"tRuE", true}, Truth{"t", true},
                    Truth{"T", true}, Truth{"yes", true}, Truth{"Yes", true}, Truth{"YES", true},
                    Truth{"y", true}, Truth{"Y", true}, Truth{"", false}, Truth{"ye", false},
                    Truth{"tr", false}, Truth{"no", false}, Truth{"false", false},
                    Truth{"on", false}, Truth{"enabled", false}, Truth{"yes ", false},
                    Truth{" yes", false}, Truth{"true1", false}, Truth{"truey", false},
                    Truth{"y1", false}, Truth{"yy", false}));

INSTANTIATE_TEST_SUITE_P(
    Numbers, BoolValue,
    testing::Values(Truth{"1", true}, Truth{"-1", true}, Truth{"+1", true}, Truth{"42", true},
                    Truth{" 7", true}, Truth{" \t\n\v\f\r7", true}, Truth{"12abc", true},
                    Truth{"3rd", true}, Truth{"007", true}, Truth{" -5 no", true},
                    Truth{"0", false}, Truth{"00", false}, Truth{"-0", false}, Truth{"+0", false},
                    Truth{"0x1", false}, Truth{"0 1", false}, Truth{"0.9", false},
                    Truth{"- 1", false}, Truth{"--1", false}, Truth{"+", false}, Truth{" ", false},
                    Truth{".5", false}, Truth{"no1", false},
                    // Too large for a long: strtol answers its limit, which is not zero.
                    Truth{"99999999999999999999999999", true},
                    Truth{"-99999999999999999999999999", true},
                    // 2^32: zero in 32 bits, but not in a long.
                    Truth{"4294967296", true}));

}  // namespace
