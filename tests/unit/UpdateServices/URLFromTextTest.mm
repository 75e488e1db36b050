#import "player/Installers/Mac/KPInstallManager/source/utility/URLFromText.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

NSURL* s_url;

// As on macOS 14: a URL for every text.
NSURL* AcceptEverything(id /*self*/, SEL /*selector*/, NSString* /*text*/) { return s_url; }

class URLFromTextTest : public testing::Test {
 protected:
  URLFromTextTest()
      : everything_([NSURL class], @selector(URLWithString:), (IMP)AcceptEverything,
                    ScopedMethodReplacement::kClassMethod) {
    s_url = url_;
  }
  ~URLFromTextTest() override { [url_ release]; }

  static bool Accepts(const std::string& text) {
    NSString* string = [[NSString alloc] initWithBytes:text.data()
                                                length:text.size()
                                              encoding:NSUTF8StringEncoding];
    NSURL* const url = URLFromText(string);
    [string release];
    return url == s_url;
  }

  NSURL* url_ = [[NSURL alloc] initWithString:@"https://example.test/"];
  ScopedMethodReplacement everything_;
};

TEST_F(URLFromTextTest, EachASCIICharacter) {
  const std::string refused = " \"<>\\^`{|}%";
  for (int character = 0; character < 128; ++character) {
    const bool isLegal = character > ' ' && character < 127 &&
                         refused.find(static_cast<char>(character)) == std::string::npos;
    EXPECT_EQ(isLegal, Accepts("a" + std::string(1, static_cast<char>(character)) + "b"))
        << character;
  }
}

TEST_F(URLFromTextTest, CharactersOutsideOfASCII) {
  EXPECT_FALSE(Accepts("a\xC3\xA9"));
  EXPECT_FALSE(Accepts("a\xC2\x80"));
  EXPECT_FALSE(Accepts("a\xF0\x9F\x98\x80"));
}

TEST_F(URLFromTextTest, Escapes) {
  for (const char* text : {"%20", "a%2fb", "a%2F", "%09%AF", "%aF%Fa"}) {
    EXPECT_TRUE(Accepts(text)) << text;
  }
  for (const char* text :
       {"%", "a%", "%2", "%2G", "%G2", "%/0", "%:0", "%@0", "%0`", "%0g", "%%20"}) {
    EXPECT_FALSE(Accepts(text)) << text;
  }
}

TEST_F(URLFromTextTest, OneFragment) {
  EXPECT_TRUE(Accepts("a#"));
  EXPECT_TRUE(Accepts("#a"));
  EXPECT_FALSE(Accepts("##"));
  EXPECT_FALSE(Accepts("a#b#c"));
}

TEST_F(URLFromTextTest, NewlineAtTheEnd) { EXPECT_FALSE(Accepts("https://example.test/a\n")); }

TEST(URLFromText, NoText) { EXPECT_EQ(nil, URLFromText(nil)); }

TEST(URLFromText, TheURLHoldsTheTextAsItIs) {
  NSString* text = @"https://example.test/version.xml1~a=7%20&b=x+y;[c]#d";
  EXPECT_EQ(Text(text), Text([URLFromText(text) absoluteString]));
}

}  // namespace
