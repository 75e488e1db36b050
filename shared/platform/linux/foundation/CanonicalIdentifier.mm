// Canonical locale identifiers, as macOS writes them.
#import <Foundation/Foundation.h>

#include <unicode/locid.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

struct LanguageName {
  std::string_view name;
  std::string_view code;
};

/// Language names of the first macOS releases, which old preferences files still hold.
constexpr LanguageName kLanguageNames[] = {
    {"Arabic", "ar"},     {"Bulgarian", "bg"}, {"Catalan", "ca"},   {"Croatian", "hr"},
    {"Czech", "cs"},      {"Danish", "da"},    {"Dutch", "nl"},     {"English", "en"},
    {"Finnish", "fi"},    {"French", "fr"},    {"German", "de"},    {"Greek", "el"},
    {"Hebrew", "he"},     {"Hungarian", "hu"}, {"Italian", "it"},   {"Japanese", "ja"},
    {"Korean", "ko"},     {"Norwegian", "nb"}, {"Nynorsk", "nn"},   {"Polish", "pl"},
    {"Portuguese", "pt"}, {"Romanian", "ro"},  {"Russian", "ru"},   {"Serbian", "sr"},
    {"Slovak", "sk"},     {"Slovenian", "sl"}, {"Spanish", "es"},   {"Swedish", "sv"},
    {"Thai", "th"},       {"Turkish", "tr"},   {"Ukrainian", "uk"},
};

constexpr size_t kScriptLength = 4;

bool IsLetter(char byte) { return isalpha(static_cast<unsigned char>(byte)) != 0; }
bool IsDigit(char byte) { return isdigit(static_cast<unsigned char>(byte)) != 0; }

bool IsScript(std::string_view subtag) {
  return subtag.size() == kScriptLength && std::all_of(subtag.begin(), subtag.end(), IsLetter);
}

bool IsRegion(std::string_view subtag) {
  return (subtag.size() == 2 && std::all_of(subtag.begin(), subtag.end(), IsLetter)) ||
         (subtag.size() == 3 && std::all_of(subtag.begin(), subtag.end(), IsDigit));
}

std::string Lowercase(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char byte) { return static_cast<char>(tolower(byte)); });
  return result;
}

std::string Uppercase(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char byte) { return static_cast<char>(toupper(byte)); });
  return result;
}

/// The subtag at the start of `text`, after its separator; empty when there is none.
std::string_view NextSubtag(std::string_view text) {
  if (text.empty() || (text.front() != '-' && text.front() != '_')) {
    return {};
  }
  text.remove_prefix(1);
  const auto* const end = std::find_if_not(
      text.begin(), text.end(), [](char byte) { return IsLetter(byte) || IsDigit(byte); });
  return text.substr(0, static_cast<size_t>(end - text.begin()));
}

/// The current code of the language `code`, of two letters where there is one.
std::string CanonicalLanguage(std::string_view code) {
  const std::string language = Lowercase(code);
  const bool isCode = language.size() == 2 || language.size() == 3;
  // macOS keeps these two, which ICU replaces.
  if (!isCode || language == "mo" || language == "sh") {
    return language;
  }
  const std::string current = icu::Locale::createCanonical(language.c_str()).getLanguage();
  return current == "no" ? "nb" : current;
}

/// The script that `language` is usually written in, in `region`, which may be empty.
std::string UsualScript(const std::string& language, const std::string& region) {
  icu::Locale locale(language.c_str(), region.c_str());
  UErrorCode status = U_ZERO_ERROR;
  locale.addLikelySubtags(status);
  return U_SUCCESS(status) ? locale.getScript() : "";
}

/// Whether macOS leaves the script out of the identifier. `separator` is the one before the region,
/// or 0 without a region.
bool IsRedundantScript(const std::string& script, const std::string& language, char separator,
                       const std::string& region) {
  const bool isKept = separator == '-' || language == "ko" || (language == "zh" && separator == 0);
  return !isKept && script == UsualScript(language, region);
}

/// `text` is ASCII.
std::string Canonical(std::string_view text) {
  for (const LanguageName& each : kLanguageNames) {
    if (text == each.name) {
      return std::string(each.code);
    }
  }
  const auto* const end = std::find_if_not(text.begin(), text.end(), IsLetter);
  const auto length = static_cast<size_t>(end - text.begin());
  const std::string language = CanonicalLanguage(text.substr(0, length));
  text.remove_prefix(length);

  std::string script;
  if (IsScript(NextSubtag(text))) {
    script = Lowercase(NextSubtag(text));
    script[0] = Uppercase(script)[0];
    text.remove_prefix(1 + script.size());
  }
  char separator = 0;
  std::string region;
  if (IsRegion(NextSubtag(text))) {
    separator = text.front();
    region = Uppercase(NextSubtag(text));
    text.remove_prefix(1 + region.size());
  }
  // A modifier, as POSIX locales have it, is not part of an identifier; a keyword is.
  const bool isModifier = !text.empty() && text.front() == '@' && text.find('=') == text.npos;

  std::string result = language;
  if (!script.empty() && !IsRedundantScript(script, language, separator, region)) {
    result += "-" + script;
  }
  if (separator != 0) {
    result += separator + region;
  }
  return isModifier ? result : result.append(text);
}

/// GNUstep's method drops the subtags between hyphens and raises for "en-GB". nil for an object
/// that is not a string.
NSString* CanonicalIdentifier(id /*self*/, SEL /*selector*/, NSString* string) {
  if (![string isKindOfClass:[NSString class]]) {
    return nil;
  }
  NSData* ascii = [string dataUsingEncoding:NSASCIIStringEncoding];
  if (ascii == nil) {
    return string;
  }
  const std::string result = Canonical({static_cast<const char*>([ascii bytes]), [ascii length]});
  return [[[NSString alloc] initWithBytes:result.data()
                                   length:result.size()
                                 encoding:NSASCIIStringEncoding] autorelease];
}

}  // namespace

@interface KPCanonicalIdentifierPatch : NSObject
@end

@implementation KPCanonicalIdentifierPatch

+ (void)load {
  ReplaceMethod("NSLocale", @selector(canonicalLocaleIdentifierFromString:),
                (IMP)CanonicalIdentifier, true);
}

@end
