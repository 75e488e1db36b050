#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

std::string Canonical(NSString* identifier) {
  return [[NSLocale canonicalLocaleIdentifierFromString:identifier] UTF8String];
}

TEST(CanonicalLocaleIdentifier, IsThatOfMacOS) {
  std::ifstream table(KP_TEST_DATA_DIR "/canonical-identifiers.tsv");
  std::string line;
  int count = 0;
  while (std::getline(table, line)) {
    const size_t tab = line.find('\t');
    if (line.empty() || line[0] == '#') {
      continue;
    }
    ASSERT_NE(std::string::npos, tab) << line;
    NSString* identifier = [NSString stringWithUTF8String:line.substr(0, tab).c_str()];
    EXPECT_EQ(line.substr(tab + 1), Canonical(identifier)) << line;
    ++count;
  }
  EXPECT_EQ(236, count);
}

TEST(CanonicalLocaleIdentifier, KeepsWhatFollowsTheRegion) {
  EXPECT_EQ("en_US@currency=EUR", Canonical(@"EN_us@currency=EUR"));
  EXPECT_EQ("de_DE.UTF-8", Canonical(@"de_de.UTF-8"));
  EXPECT_EQ("de-DE-1996", Canonical(@"DE-de-1996"));
  EXPECT_EQ("zh_TW-x", Canonical(@"ZH-HANT_tw-x"));
  EXPECT_EQ("fr--gb-", Canonical(@"FR--gb-"));
}

TEST(CanonicalLocaleIdentifier, KeepsWhatIsNotAnIdentifier) {
  EXPECT_EQ("", Canonical(@""));
  EXPECT_EQ("_GB", Canonical(@"_gb"));
  EXPECT_EQ("\xc3\xa9t\xc3\xa9", Canonical(@"\u00e9t\u00e9"));
  EXPECT_EQ("xu", Canonical(@"XU"));
  NSString* longest = [@"" stringByPaddingToLength:1000000 withString:@"A" startingAtIndex:0];
  EXPECT_EQ(std::string(1000000, 'a'), Canonical(longest));
  const unichar half = 0xD800;
  NSString* broken = [NSString stringWithCharacters:&half length:1];
  EXPECT_EQ(broken, [NSLocale canonicalLocaleIdentifierFromString:broken]);
}

TEST(CanonicalLocaleIdentifier, IsNilForNoString) {
  EXPECT_EQ(nil, [NSLocale canonicalLocaleIdentifierFromString:nil]);
  EXPECT_EQ(nil,
            [NSLocale canonicalLocaleIdentifierFromString:static_cast<NSString*>(static_cast<id>(
                                                              [NSNumber numberWithInt:1]))]);
}

}  // namespace
