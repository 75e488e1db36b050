// Canonical locale identifiers, as macOS writes them.
#import <Foundation/Foundation.h>

#include <unicode/locid.h>

#include <cstring>

#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

struct LanguageName {
  NSString* name;
  NSString* code;
};

/// Language names of the first macOS releases, which old preferences files still hold.
const LanguageName kLanguageNames[] = {
    {@"Arabic", @"ar"},     {@"Bulgarian", @"bg"}, {@"Catalan", @"ca"},   {@"Croatian", @"hr"},
    {@"Czech", @"cs"},      {@"Danish", @"da"},    {@"Dutch", @"nl"},     {@"English", @"en"},
    {@"Finnish", @"fi"},    {@"French", @"fr"},    {@"German", @"de"},    {@"Greek", @"el"},
    {@"Hebrew", @"he"},     {@"Hungarian", @"hu"}, {@"Italian", @"it"},   {@"Japanese", @"ja"},
    {@"Korean", @"ko"},     {@"Norwegian", @"nb"}, {@"Nynorsk", @"nn"},   {@"Polish", @"pl"},
    {@"Portuguese", @"pt"}, {@"Romanian", @"ro"},  {@"Russian", @"ru"},   {@"Serbian", @"sr"},
    {@"Slovak", @"sk"},     {@"Slovenian", @"sl"}, {@"Spanish", @"es"},   {@"Swedish", @"sv"},
    {@"Thai", @"th"},       {@"Turkish", @"tr"},   {@"Ukrainian", @"uk"},
};

/// Language, script, the separator before the region, the region, and the rest.
NSString* const kIdentifier = @"([A-Za-z]*)(?:[-_]([A-Za-z]{4})(?![A-Za-z0-9]))?"
                              @"(?:([-_])([A-Za-z]{2}|[0-9]{3})(?![A-Za-z0-9]))?([\\s\\S]*)";

/// The current code of the language `code`, of two letters where there is one.
NSString* CanonicalLanguage(NSString* code) {
  NSString* language = [code lowercaseString];
  const bool isCode = [language length] == 2 || [language length] == 3;
  // macOS keeps these two, which ICU replaces.
  if (!isCode || [language isEqualToString:@"mo"] || [language isEqualToString:@"sh"]) {
    return language;
  }
  const icu::Locale current = icu::Locale::createCanonical([language UTF8String]);
  NSString* result = [NSString stringWithUTF8String:current.getLanguage()];
  return [result isEqualToString:@"no"] ? @"nb" : result;
}

/// Whether macOS leaves `script` out of the identifier because it is the usual one of `language`,
/// in `region` unless that is empty.
bool IsRedundantScript(NSString* script, NSString* language, NSString* separator,
                       NSString* region) {
  if ([separator isEqualToString:@"-"] || [language isEqualToString:@"ko"] ||
      ([language isEqualToString:@"zh"] && [separator length] == 0)) {
    return false;
  }
  icu::Locale locale([language UTF8String], [region UTF8String]);
  UErrorCode status = U_ZERO_ERROR;
  locale.addLikelySubtags(status);
  return U_SUCCESS(status) && strcmp(locale.getScript(), [script UTF8String]) == 0;
}

/// The text of the group `index` of `match` in `string`; empty when it has not matched.
NSString* Group(NSString* string, NSTextCheckingResult* match, NSUInteger index) {
  const NSRange range = [match rangeAtIndex:index];
  return range.location == NSNotFound ? @"" : [string substringWithRange:range];
}

/// GNUstep's method drops the subtags between hyphens and raises for "en-GB". nil for an object
/// that is not a string.
NSString* CanonicalIdentifier(id /*self*/, SEL /*selector*/, NSString* string) {
  if (![string isKindOfClass:[NSString class]]) {
    return nil;
  }
  for (const LanguageName& each : kLanguageNames) {
    if ([string isEqualToString:each.name]) {
      return each.code;
    }
  }
  NSRegularExpression* expression = [NSRegularExpression regularExpressionWithPattern:kIdentifier
                                                                              options:0
                                                                                error:nullptr];
  NSTextCheckingResult* match = [expression firstMatchInString:string
                                                       options:NSMatchingAnchored
                                                         range:NSMakeRange(0, [string length])];
  if (match == nil) {
    return string;
  }
  NSString* language = CanonicalLanguage(Group(string, match, 1));
  NSString* script = [Group(string, match, 2) capitalizedString];
  NSString* separator = Group(string, match, 3);
  NSString* region = [Group(string, match, 4) uppercaseString];
  NSString* rest = Group(string, match, 5);

  NSMutableString* result = [NSMutableString stringWithString:language];
  if ([script length] > 0 && !IsRedundantScript(script, language, separator, region)) {
    [result appendFormat:@"-%@", script];
  }
  [result appendFormat:@"%@%@", separator, region];
  // A modifier, as POSIX locales have it, is not part of an identifier; a keyword is.
  const bool isModifier = [rest hasPrefix:@"@"] && [rest rangeOfString:@"="].length == 0;
  return isModifier ? result : [result stringByAppendingString:rest];
}

const MethodReplacement s_canonicalIdentifier('+', "NSLocale",
                                              "canonicalLocaleIdentifierFromString:",
                                              CanonicalIdentifier);

}  // namespace
