#include "player/Installers/Mac/KPInstallManager/source/utility/ConsoleUserLanguage.h"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <pwd.h>
#include <unistd.h>

#include "shared/platform/mac/LanguageMapping.h"

namespace {

constexpr char kUnsupportedLanguage[] = "xu";

// Returns the code of the language that the user `entry` prefers, read from that user's
// preferences.
const char* LanguageOfUser(const passwd* entry) {
  const char* language = kUnsupportedLanguage;
  const int switched = seteuid(entry->pw_uid);
  @try {
    language = ObtainMacOSLanguage();
  } @catch (NSException*) {
    // If the preferences cannot be read, the language counts as unsupported.
  } @finally {
    // After a successful switch the value is 0, so this switches back to root. After a failed one
    // it is -1, which is not a user id, and the call has no effect.
    (void)seteuid(static_cast<uid_t>(switched));
  }
  return language;
}

}  // namespace

const char* ConsoleUserLanguage() {
  CFStringRef user = SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
  if (user == nullptr) {
    return kUnsupportedLanguage;
  }
  const bool isLoginWindow = CFEqual(user, CFSTR("loginwindow"));
  const passwd* entry = isLoginWindow ? nullptr : getpwnam([(NSString*)user UTF8String]);
  CFRelease(user);
  return entry != nullptr ? LanguageOfUser(entry) : kUnsupportedLanguage;
}
