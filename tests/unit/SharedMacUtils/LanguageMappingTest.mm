#import "shared/platform/mac/LanguageMapping.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "tests/unit/support/AskedElsewhere.h"
#include "tests/unit/support/ScopedMethodReplacement.h"

namespace {

const char* const kPassedThrough[] = {
    "ar", "bg", "cs", "da", "de", "el", "en", "es", "et", "fi", "fr", "he", "hr", "hu", "it", "ja",
    "ko", "lt", "lv", "nb", "nl", "pl", "pt", "ro", "ru", "sk", "sl", "sr", "sv", "th", "tr", "uk"};

std::string CodeOf(NSString* language) { return KorvelLanguageFromMacOSXLanguage(language); }

void SetLanguages(id languages) {
  NSDictionary* domain = languages == nil ? [NSDictionary dictionary]
                                          : [NSDictionary dictionaryWithObject:languages
                                                                        forKey:@"AppleLanguages"];
  NSUserDefaults* defaults = [NSUserDefaults standardUserDefaults];
  [defaults removeVolatileDomainForName:NSArgumentDomain];
  [defaults setVolatileDomain:domain forName:NSArgumentDomain];
}

/// The result of ObtainMacOSLanguage() in a new process whose languages are `languages`.
std::string ObtainedWith(id languages) {
  return AskedElsewhere([languages] {
    SetLanguages(languages);
    return ObtainMacOSLanguage();
  });
}

TEST(KorvelLanguageFromMacOSXLanguage, SpecialCases) {
  EXPECT_EQ("en_gb", CodeOf(@"en-GB"));
  EXPECT_EQ("zh-CN", CodeOf(@"zh-Hans"));
  EXPECT_EQ("zh-TW", CodeOf(@"zh-Hant"));
  EXPECT_EQ("pt_pt", CodeOf(@"pt-PT"));
  EXPECT_EQ("nb", CodeOf(@"nn"));
}

TEST(KorvelLanguageFromMacOSXLanguage, SpecialCasesWithFurtherSubtags) {
  EXPECT_EQ("en_gb", CodeOf(@"en-GB-oxendict"));
  EXPECT_EQ("zh-CN", CodeOf(@"zh-Hans-CN"));
  EXPECT_EQ("zh-TW", CodeOf(@"zh-Hant-HK"));
  EXPECT_EQ("pt_pt", CodeOf(@"pt-PTx"));
  EXPECT_EQ("nb", CodeOf(@"nn-NO"));
  EXPECT_EQ("nb", CodeOf(@"nno"));
}

TEST(KorvelLanguageFromMacOSXLanguage, PassesThirtyTwoLanguagesThrough) {
  for (const char* code : kPassedThrough) {
    NSString* language = [NSString stringWithUTF8String:code];
    EXPECT_EQ(code, CodeOf(language));
    EXPECT_EQ(code, CodeOf([language stringByAppendingString:@"-XX"]));
    EXPECT_EQ(code, CodeOf([language stringByAppendingString:@"_XX"]));
  }
}

TEST(KorvelLanguageFromMacOSXLanguage, KeepsNoRegionButTheSpecialOnes) {
  EXPECT_EQ("en", CodeOf(@"en-US"));
  EXPECT_EQ("fr", CodeOf(@"fr-CA"));
  EXPECT_EQ("pt", CodeOf(@"pt-BR"));
}

TEST(KorvelLanguageFromMacOSXLanguage, UnderscoreFormsAreNoSpecialCases) {
  EXPECT_EQ("en", CodeOf(@"en_GB"));
  EXPECT_EQ("pt", CodeOf(@"pt_PT"));
  EXPECT_EQ("xu", CodeOf(@"zh_Hans"));
  EXPECT_EQ("nb", CodeOf(@"nn_NO"));
}

TEST(KorvelLanguageFromMacOSXLanguage, LooksAtTwoCharactersOnly) {
  EXPECT_EQ("fi", CodeOf(@"fil"));
  EXPECT_EQ("en", CodeOf(@"english"));
}

TEST(KorvelLanguageFromMacOSXLanguage, UnsupportedLanguages) {
  for (NSString *language in
       [NSArray arrayWithObjects:@"zh", @"zh-CN", @"EN", @"En-GB", @"eN", @"ZH-Hans", @"is", @"xu",
                                 @"??", @" en", @"\u00e9\u00e9", nil]) {
    EXPECT_EQ("xu", CodeOf(language)) << [language UTF8String];
  }
}

TEST(KorvelLanguageFromMacOSXLanguage, FewerThanTwoCharacters) {
  EXPECT_EQ("xu", CodeOf(@"n"));
  EXPECT_EQ("xu", CodeOf(@""));
  EXPECT_EQ("xu", CodeOf(nil));
}

TEST(KorvelLanguageFromMacOSXLanguage, TextOutlivesTheIdentifier) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const char* code = KorvelLanguageFromMacOSXLanguage([NSMutableString stringWithString:@"sv-SE"]);
  [pool release];
  EXPECT_STREQ("sv", code);
}

TEST(IsLanguageSupportedInMacPlayer, ThirtySixCodes) {
  for (const char* code : kPassedThrough) {
    EXPECT_TRUE(IsLanguageSupportedInMacPlayer(code)) << code;
  }
  for (const char* code : {"en_gb", "zh-CN", "zh-TW", "pt_pt"}) {
    EXPECT_TRUE(IsLanguageSupportedInMacPlayer(code)) << code;
  }
}

TEST(IsLanguageSupportedInMacPlayer, NothingElse) {
  for (const char* code :
       {"xu", "zh", "EN", "", "e", "en ", "en-GB", "en_GB", "zh_CN", "zh-Hans", "nn", "pt-PT"}) {
    EXPECT_FALSE(IsLanguageSupportedInMacPlayer(code)) << code;
  }
  EXPECT_FALSE(IsLanguageSupportedInMacPlayer(nullptr));
}

TEST(ObtainMacOSLanguage, MapsTheFirstLanguage) {
  EXPECT_EQ("fr", ObtainedWith([NSArray arrayWithObjects:@"fr-FR", @"en", nil]));
  EXPECT_EQ("zh-TW", ObtainedWith([NSArray arrayWithObject:@"zh-Hant-TW"]));
  EXPECT_EQ("xu", ObtainedWith([NSArray arrayWithObjects:@"is", @"en", nil]));
}

TEST(ObtainMacOSLanguage, TheCanonicalFormDecides) {
  EXPECT_EQ("en_gb", ObtainedWith([NSArray arrayWithObject:@"en-GB"]));
  EXPECT_EQ("en", ObtainedWith([NSArray arrayWithObject:@"en_GB"]));
  EXPECT_EQ("en", ObtainedWith([NSArray arrayWithObject:@"English"]));
}

TEST(ObtainMacOSLanguage, NoUsableLanguageIsUnsupported) {
  EXPECT_EQ("xu", ObtainedWith([NSArray array]));
  EXPECT_EQ("xu", ObtainedWith([NSArray arrayWithObject:@""]));
  EXPECT_EQ("xu", ObtainedWith([NSArray arrayWithObject:[NSNumber numberWithInt:1]]));
  EXPECT_EQ("xu", ObtainedWith([NSDictionary dictionary]));
}

TEST(ObtainMacOSLanguage, OnlyTheFirstElementCounts) {
  NSNumber* number = [NSNumber numberWithInt:1];
  EXPECT_EQ("fr", ObtainedWith([NSArray arrayWithObjects:@"fr", number, nil]));
  EXPECT_EQ("xu", ObtainedWith([NSArray arrayWithObjects:number, @"fr", nil]));
}

/// Ends the process, a test's child, with an error when `string` is not a string, as macOS may.
NSString* CanonicalFormOfAString(id /*self*/, SEL /*selector*/, NSString* string) {
  if (![string isKindOfClass:[NSString class]]) {
    _exit(1);
  }
  return string;
}

TEST(ObtainMacOSLanguage, OnlyAStringIsCanonicalised) {
  const ScopedMethodReplacement replacement(
      [NSLocale class], @selector(canonicalLocaleIdentifierFromString:),
      (IMP)CanonicalFormOfAString, ScopedMethodReplacement::kClassMethod);
  EXPECT_EQ("xu", ObtainedWith([NSArray array]));
  EXPECT_EQ("xu", ObtainedWith([NSArray arrayWithObject:[NSNumber numberWithInt:1]]));
  EXPECT_EQ("fr", ObtainedWith([NSArray arrayWithObject:@"fr"]));
}

TEST(ObtainMacOSLanguage, IsAskedOncePerProcess) {
  EXPECT_EQ("de de, the same", AskedElsewhere([] {
              SetLanguages([NSArray arrayWithObject:@"de"]);
              const char* first = ObtainMacOSLanguage();
              const std::string firstAnswer = first;
              SetLanguages([NSArray arrayWithObject:@"fr"]);
              const char* second = ObtainMacOSLanguage();
              return firstAnswer + " " + second + (second == first ? ", the same" : ", another");
            }));
}

}  // namespace
