// AppleLanguages of the user defaults: the languages of the effective user.
#import <Foundation/Foundation.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

#import "shared/platform/linux/foundation/DefaultsFile.h"
#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

NSString* const kAppleLanguages = @"AppleLanguages";
NSString* const kGlobalDomainFile = @"NSGlobalDomain.plist";

/// Enough for every entry that libc's own tools accept.
constexpr size_t kPasswordEntrySize = size_t{64} * 1024;

/// A POSIX locale: language, region, and the rest, which a language's identifier does not have.
NSString* const kLocale = @"^([A-Za-z]{2,3})(?:_([^_.@]*))?(?:[.@][\\s\\S]*)?$";

/// The language of the POSIX locale `locale`, such as "zh_TW.UTF-8" or "de_AT@euro", in the form of
/// macOS's list ("zh-Hant-TW", "de-AT"); nil for "C", "POSIX" and text of another form.
NSString* LanguageOfLocale(NSString* locale) {
  NSRegularExpression* expression = [NSRegularExpression regularExpressionWithPattern:kLocale
                                                                              options:0
                                                                                error:nullptr];
  NSTextCheckingResult* match = [expression firstMatchInString:locale
                                                       options:0
                                                         range:NSMakeRange(0, [locale length])];
  if (match == nil) {
    return nil;
  }
  NSString* language = [[locale substringWithRange:[match rangeAtIndex:1]] lowercaseString];
  const NSRange regionRange = [match rangeAtIndex:2];
  NSString* region = regionRange.length > 0 && regionRange.location != NSNotFound
                         ? [locale substringWithRange:regionRange]
                         : @"";
  if ([language isEqualToString:@"zh"]) {
    // POSIX locales name a region instead of a script.
    NSArray* traditional = [NSArray arrayWithObjects:@"HK", @"MO", @"TW", nil];
    language = [traditional containsObject:[region uppercaseString]] ? @"zh-Hant" : @"zh-Hans";
  }
  NSString* identifier =
      [region length] > 0 ? [language stringByAppendingFormat:@"-%@", region] : language;
  return [NSLocale canonicalLocaleIdentifierFromString:identifier];
}

/// Each language is compared with all before it.
constexpr NSUInteger kMostLanguages = 32;

/// The languages that the environment names, the preferred one first; nil without any. LANGUAGE, a
/// list, comes before the locale: the first of LC_ALL, LC_MESSAGES and LANG that is not empty. With
/// the locale "C" or "POSIX", LANGUAGE is ignored, as in gettext(3).
NSArray* LanguagesOfEnvironment() {
  NSString* locale = nil;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = getenv(variable);
    if (value != nullptr && *value != '\0') {
      locale = [NSString stringWithUTF8String:value];
      break;
    }
  }
  if ([locale isEqualToString:@"C"] || [locale isEqualToString:@"POSIX"]) {
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

/// The folder with the saved defaults of the user named `name`, in UTF-8; nil when Foundation does
/// not know it.
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

/// AppleLanguages in the saved defaults of the user `userID`: this program's, then those of all
/// programs. nil when there are none, and for a user without a passwd entry.
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

id (*s_objectForKey)(id, SEL, NSString*);

/// The effective user at the start. Foundation keeps that user's defaults when the effective user
/// changes; macOS does not.
const uid_t s_firstUser = geteuid();

/// AppleLanguages among the arguments of the program, which hold for every user; nil without.
id LanguagesOfArguments(NSUserDefaults* defaults) {
  return [[defaults volatileDomainForName:NSArgumentDomain] objectForKey:kAppleLanguages];
}

id ObjectForKey(id self, SEL selector, NSString* key) {
  if (![key isEqual:kAppleLanguages]) {
    return s_objectForKey(self, selector, key);
  }
  const uid_t user = geteuid();
  id languages = user == s_firstUser
                     ? s_objectForKey(self, selector, key)
                     : LanguagesOfArguments(self) ?: LanguagesSavedByUser(user);
  return languages ?: LanguagesOfEnvironment();
}

const MethodReplacement s_replacement('-', "NSUserDefaults", "objectForKey:", ObjectForKey,
                                      &s_objectForKey);

}  // namespace
