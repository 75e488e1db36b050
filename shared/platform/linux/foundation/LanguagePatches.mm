// The user's languages: AppleLanguages of the user defaults, and canonical locale identifiers.
#import <Foundation/Foundation.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <mutex>

#import "shared/platform/linux/foundation/DefaultsFile.h"
#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

NSString* const kAppleLanguages = @"AppleLanguages";
NSString* const kGlobalDomainFile = @"NSGlobalDomain.plist";

/// Enough for every entry that libc's own tools accept.
constexpr size_t kPasswordEntrySize = size_t{64} * 1024;

/// Identifiers are far shorter. The time that it takes to rewrite one grows with its square.
constexpr NSUInteger kLongestIdentifier = 256;

struct Renaming {
  NSString* from;
  NSString* to;
};

/// Language names of the first macOS releases. They still stand in old preferences files.
const Renaming kLanguageNames[] = {
    {@"Dutch", @"nl"},   {@"English", @"en"},  {@"French", @"fr"},  {@"German", @"de"},
    {@"Italian", @"it"}, {@"Japanese", @"ja"}, {@"Spanish", @"es"},
};

/// Codes that ISO 639 withdrew, and "no", for which macOS says "nb".
const Renaming kLanguageCodes[] = {{@"in", @"id"}, {@"iw", @"he"}, {@"ji", @"yi"}, {@"no", @"nb"}};

/// Script of a Chinese text by region: POSIX locales name the region alone.
const Renaming kChineseScripts[] = {
    {@"CN", @"Hans"}, {@"SG", @"Hans"}, {@"HK", @"Hant"}, {@"MO", @"Hant"}, {@"TW", @"Hant"}};

template <size_t Count>
NSString* Renamed(NSString* name, const Renaming (&table)[Count]) {
  for (const Renaming& row : table) {
    if ([name isEqualToString:row.from]) {
      return row.to;
    }
  }
  return nil;
}

BOOL HasOnlyLetters(NSString* text) {
  NSCharacterSet* letters = [NSCharacterSet
      characterSetWithCharactersInString:@"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"];
  return [[text stringByTrimmingCharactersInSet:letters] length] == 0;
}

/// `text` before the first character of `ends`.
NSString* TextBefore(NSString* text, NSString* ends) {
  const NSRange end =
      [text rangeOfCharacterFromSet:[NSCharacterSet characterSetWithCharactersInString:ends]];
  return end.location == NSNotFound ? text : [text substringToIndex:end.location];
}

BOOL IsPlainLocale(NSString* locale) {
  return [locale isEqualToString:@"C"] || [locale isEqualToString:@"POSIX"];
}

/// The language that the POSIX locale `locale`, such as "zh_TW.UTF-8" or "de_AT@euro", stands for,
/// in the form of macOS's list ("zh-Hant-TW", "de-AT"); nil for "C", "POSIX" and what is not in the
/// form of a locale.
NSString* LanguageOfLocale(NSString* locale) {
  NSArray* parts = [TextBefore(locale, @".@") componentsSeparatedByString:@"_"];
  NSString* language = [parts objectAtIndex:0];
  NSString* region = [parts count] == 2 ? [parts objectAtIndex:1] : @"";
  if ([parts count] > 2 || ([language length] != 2 && [language length] != 3) ||
      !HasOnlyLetters(language)) {
    return nil;
  }
  NSMutableArray* subtags = [NSMutableArray arrayWithObject:[language lowercaseString]];
  if ([[subtags objectAtIndex:0] isEqualToString:@"zh"]) {
    [subtags addObject:Renamed([region uppercaseString], kChineseScripts) ?: @"Hans"];
  }
  if ([region length] > 0) {
    [subtags addObject:region];
  }
  return [NSLocale canonicalLocaleIdentifierFromString:[subtags componentsJoinedByString:@"-"]];
}

/// No user speaks more, and each is compared with all before it.
constexpr NSUInteger kMostLanguages = 32;

/// The languages that the environment asks for, most wanted first; nil when it asks for none.
/// LANGUAGE, a list, comes before the locale of LC_ALL, LC_MESSAGES or LANG, the first of them that
/// is not empty; with the locale "C" or "POSIX" it counts for nothing, as in gettext(3).
NSArray* LanguagesOfEnvironment() {
  NSString* locale = nil;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = getenv(variable);
    if (value != nullptr && *value != '\0') {
      locale = [NSString stringWithUTF8String:value];
      break;
    }
  }
  if (IsPlainLocale(locale)) {
    return nil;
  }

  NSMutableArray* locales = [NSMutableArray array];
  const char* list = getenv("LANGUAGE");
  NSString* wanted = list == nullptr ? nil : [NSString stringWithUTF8String:list];
  [locales addObjectsFromArray:[wanted componentsSeparatedByString:@":"] ?: [NSArray array]];
  if (locale != nil) {
    [locales addObject:locale];
  }

  NSMutableArray* languages = [NSMutableArray array];
  for (NSString* each in locales) {
    NSString* language = LanguageOfLocale(each);
    if (language != nil && ![languages containsObject:language]) {
      [languages addObject:language];
    }
    if ([languages count] == kMostLanguages) {
      break;
    }
  }
  return [languages count] > 0 ? languages : nil;
}

/// The folder of the defaults that the user named `name`, in UTF-8, saved; nil when Foundation
/// cannot tell.
NSString* DefaultsFolderOfUser(const char* name) {
  NSString* user = [NSString stringWithUTF8String:name];
  if (user == nil) {
    return nil;  // For nil, Foundation looks the name up by itself, and may end the process.
  }
  @try {
    return GSDefaultsRootForUser(user);
  } @catch (NSException*) {
    return nil;  // Raised for a name that Foundation's string encoding lacks.
  }
}

/// AppleLanguages in the defaults that the user `userID` saved: those for this program, then those
/// for all. nil when there are none, and for a user without a passwd entry.
id LanguagesSavedByUser(uid_t userID) {
  NSMutableData* buffer = [NSMutableData dataWithLength:kPasswordEntrySize];
  passwd entry;
  passwd* found = nullptr;
  if (getpwuid_r(userID, &entry, static_cast<char*>([buffer mutableBytes]), [buffer length],
                 &found) != 0 ||
      found == nullptr) {
    return nil;
  }
  NSString* folder = DefaultsFolderOfUser(found->pw_name);
  if (folder == nil) {
    return nil;
  }
  NSString* program = [[[NSProcessInfo processInfo] processName] stringByAppendingString:@".plist"];
  for (NSString *file in [NSArray arrayWithObjects:program, kGlobalDomainFile, nil]) {
    NSDictionary* domain = DictionaryOfDefaultsFile([folder stringByAppendingPathComponent:file]);
    id languages = [domain objectForKey:kAppleLanguages];
    if (languages != nil) {
      return languages;
    }
  }
  return nil;
}

using StandardUserDefaultsMethod = NSUserDefaults* (*)(id, SEL);
using ObjectForKeyMethod = id (*)(id, SEL, NSString*);

StandardUserDefaultsMethod s_standardUserDefaults;
ObjectForKeyMethod s_objectForKey;

/// The shared defaults, and the effective user whose files were read into them: Foundation keeps
/// the object when the effective user changes, as macOS does not.
std::mutex s_sharedDefaultsMutex;
NSUserDefaults* s_sharedDefaults;
uid_t s_sharedDefaultsUser;

NSUserDefaults* StandardUserDefaults(id self, SEL selector) {
  const uid_t user = geteuid();
  NSUserDefaults* defaults = s_standardUserDefaults(self, selector);
  const std::lock_guard<std::mutex> lock(s_sharedDefaultsMutex);
  if (defaults != s_sharedDefaults) {
    s_sharedDefaults = defaults;
    s_sharedDefaultsUser = user;
  }
  return defaults;
}

/// Whether `defaults` holds what another user than `user` saved.
BOOL IsOfAnotherUser(NSUserDefaults* defaults, uid_t user) {
  const std::lock_guard<std::mutex> lock(s_sharedDefaultsMutex);
  return defaults == s_sharedDefaults && user != s_sharedDefaultsUser;
}

/// AppleLanguages among the arguments of the program, which stand whoever the user is; nil without.
id LanguagesOfArguments(NSUserDefaults* defaults) {
  return [[defaults volatileDomainForName:NSArgumentDomain] objectForKey:kAppleLanguages];
}

id ObjectForKey(id self, SEL selector, NSString* key) {
  if (![key isEqual:kAppleLanguages]) {
    return s_objectForKey(self, selector, key);
  }
  const uid_t user = geteuid();
  id languages = IsOfAnotherUser(self, user)
                     ? LanguagesOfArguments(self) ?: LanguagesSavedByUser(user)
                     : s_objectForKey(self, selector, key);
  return languages ?: LanguagesOfEnvironment();
}

/// The subtag `text`, which is at `position` in its identifier, in the letter case of BCP 47
/// (RFC 5646, section 2.1.1).
NSString* CanonicalSubtag(NSString* text, NSUInteger position) {
  if (position == 0) {
    NSString* code = [text lowercaseString];
    return Renamed(code, kLanguageCodes) ?: code;
  }
  if ([text length] == 4 && HasOnlyLetters(text)) {
    return [text capitalizedString];
  }
  return [text length] == 2 && HasOnlyLetters(text) ? [text uppercaseString] : text;
}

/// The canonical form of the identifier `string`: letter case as in BCP 47, current language codes,
/// a code for the language names of old. The separators stay as they are, since macOS tells
/// "en-GB", a language with a regional variant, from "en_GB", a locale. What follows a "." or "@"
/// stays too, and so does a string that is too long for an identifier. nil for nil, and for an
/// object that is not a string. GNUstep's drops the subtags between hyphens and raises for "en-GB".
NSString* CanonicalIdentifier(id /*self*/, SEL /*selector*/, NSString* string) {
  if (![string isKindOfClass:[NSString class]]) {
    return nil;
  }
  if ([string length] > kLongestIdentifier) {
    return string;
  }
  NSString* code = Renamed(string, kLanguageNames);
  if (code != nil) {
    return code;
  }

  NSString* subtags = TextBefore(string, @".@");
  NSMutableString* canonical = [NSMutableString stringWithCapacity:[string length]];
  NSUInteger position = 0;
  while ([subtags length] > 0) {
    NSString* subtag = TextBefore(subtags, @"-_");
    [canonical appendString:CanonicalSubtag(subtag, position++)];
    subtags = [subtags substringFromIndex:[subtag length]];
    if ([subtags length] > 0) {
      [canonical appendString:[subtags substringToIndex:1]];
      subtags = [subtags substringFromIndex:1];
    }
  }
  [canonical appendString:[string substringFromIndex:[TextBefore(string, @".@") length]]];
  return canonical;
}

}  // namespace

@interface KPLanguagePatches : NSObject
@end

@implementation KPLanguagePatches

+ (void)load {
  s_standardUserDefaults = (StandardUserDefaultsMethod)ReplaceMethod(
      "NSUserDefaults", @selector(standardUserDefaults), (IMP)StandardUserDefaults, true);
  s_objectForKey = (ObjectForKeyMethod)ReplaceMethod("NSUserDefaults", @selector(objectForKey:),
                                                     (IMP)ObjectForKey);
  ReplaceMethod("NSLocale", @selector(canonicalLocaleIdentifierFromString:),
                (IMP)CanonicalIdentifier, true);
}

@end
