// The player's language codes, which differ from the platform's.
#pragma once

#import <Foundation/Foundation.h>

/// The player code, zero-terminated, of the platform's language identifier `language`, which may
/// carry further subtags: "fr-CA" gives "fr", "zh-Hant-HK" gives "zh-TW". The comparison is
/// case-sensitive. "xu" for a language that the player does not speak, for fewer than two
/// characters, and for nil. The text is a constant.
const char* KorvelLanguageFromMacOSXLanguage(NSString* language);

/// The player code of the language that the current effective user prefers. The answer is found
/// once per process and kept: later changes, of the user too, are not seen. The text, at most 9
/// characters, is the function's own. Not thread-safe.
const char* ObtainMacOSLanguage();

/// Whether `code` is, byte for byte, the code of a language that the player speaks; false for
/// nullptr.
bool IsLanguageSupportedInMacPlayer(const char* code);
