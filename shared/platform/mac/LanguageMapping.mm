#import "shared/platform/mac/LanguageMapping.h"

#include <string.h>

namespace {

NSString* const kAppleLanguages = @"AppleLanguages";

// The code for every language that the player does not support.
constexpr char kUnsupportedLanguage[] = "xu";

// Length of the language part of a platform identifier. The player supports no language with a
// longer one.
constexpr NSUInteger kLanguageLength = 2;

struct SpecialCase {
  NSString* platformPrefix;
  const char* playerCode;
};

// Tried in this order.
const SpecialCase kSpecialCases[] = {
    {@"en-GB", "en_gb"}, {@"zh-Hans", "zh-CN"}, {@"zh-Hant", "zh-TW"},
    {@"pt-PT", "pt_pt"}, {@"nn", "nb"},
};

// Languages whose player code is the platform's.
constexpr const char* kPassedThrough[] = {
    "ar", "bg", "cs", "da", "de", "el", "en", "es", "et", "fi", "fr", "he", "hr", "hu", "it", "ja",
    "ko", "lt", "lv", "nb", "nl", "pl", "pt", "ro", "ru", "sk", "sl", "sr", "sv", "th", "tr", "uk"};

constexpr const char* kSupportedCodes[] = {
    "en_gb", "zh-CN", "zh-TW", "pt_pt", "cs", "de", "en", "es", "fr", "it", "ja", "ko",
    "nl",    "pl",    "pt",    "ru",    "sv", "tr", "ar", "bg", "da", "el", "et", "fi",
    "he",    "hr",    "hu",    "lt",    "lv", "nb", "ro", "sk", "sl", "sr", "th", "uk"};

char macOSXLanguage[10];
bool languageWasObtained;

// Returns nil when there is none. The list is not read with `stringArrayForKey:`, which fails if a
// later element is not a string.
NSString* FirstPreferredLanguage() {
  NSArray* languages = [[NSUserDefaults standardUserDefaults] arrayForKey:kAppleLanguages];
  id language = [languages count] > 0 ? [languages objectAtIndex:0] : nil;
  return [language isKindOfClass:[NSString class]] ? language : nil;
}

// Returns the canonical form of `language`; nil for nil, which the platform's method does not
// accept.
NSString* CanonicalLanguage(NSString* language) {
  return language == nil ? nil : [NSLocale canonicalLocaleIdentifierFromString:language];
}

}  // namespace

const char* KorvelLanguageFromMacOSXLanguage(NSString* language) {
  if ([language length] < kLanguageLength) {
    return kUnsupportedLanguage;
  }
  for (const SpecialCase& each : kSpecialCases) {
    if ([language hasPrefix:each.platformPrefix]) {
      return each.playerCode;
    }
  }
  NSString* code = [language substringToIndex:kLanguageLength];
  for (const char* each : kPassedThrough) {
    if ([code isEqualToString:[NSString stringWithUTF8String:each]]) {
      return each;
    }
  }
  return kUnsupportedLanguage;
}

const char* ObtainMacOSLanguage() {
  if (languageWasObtained) {
    return macOSXLanguage;
  }
  NSString* language = CanonicalLanguage(FirstPreferredLanguage());
  strncpy(macOSXLanguage, KorvelLanguageFromMacOSXLanguage(language), sizeof(macOSXLanguage) - 1);
  macOSXLanguage[sizeof(macOSXLanguage) - 1] = '\0';
  languageWasObtained = true;
  return macOSXLanguage;
}

bool IsLanguageSupportedInMacPlayer(const char* code) {
  if (code == nullptr) {
    return false;
  }
  for (const char* each : kSupportedCodes) {
    if (strcmp(code, each) == 0) {
      return true;
    }
  }
  return false;
}
