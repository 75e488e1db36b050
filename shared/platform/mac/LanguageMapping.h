// The player's language codes, which differ from the platform's.
#pragma once

#import <Foundation/Foundation.h>

/// Returns the player code for the platform's language identifier `language`, which may have
/// further subtags: "fr" for "fr-CA", "zh-TW" for "zh-Hant-HK". The comparison is case-sensitive.
/// Except for the special cases ("en-GB", "zh-Hans", "zh-Hant", "pt-PT", "nn") only the first two
/// characters count: "fil" becomes "fi". Returns "xu" when these are not a language that the player
/// supports, for fewer than two characters, and for nil. The result is a constant string.
const char* KorvelLanguageFromMacOSXLanguage(NSString* language);

/// Returns the player code of the language that the current effective user prefers, at most 9
/// characters, in static memory. The result of the first call is kept for the process: later
/// changes, also of the effective user, have no effect. Not thread-safe.
const char* ObtainMacOSLanguage();

/// Returns whether `code` is, byte for byte, the code of a language that the player supports; false
/// for null.
bool IsLanguageSupportedInMacPlayer(const char* code);
