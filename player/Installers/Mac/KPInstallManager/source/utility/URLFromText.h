// Making URLs from composed text.
#pragma once

#import <Foundation/Foundation.h>

/// Returns the URL with the text `text`, autoreleased. No character is escaped. Returns nil when
/// `text` is nil or contains a character that is not printable ASCII, a blank, a double quote, one
/// of the characters < > \ ^ ` { | }, a "%" that is not followed by two hexadecimal digits, or a
/// second "#".
///
/// In programs built with an SDK before macOS 14, `URLWithString:` itself returns nil for such
/// text. In later ones it escapes the characters instead.
NSURL* URLFromText(NSString* text);
