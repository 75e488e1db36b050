// URLs from text that the product has put together.
#pragma once

#import <Foundation/Foundation.h>

/// The URL that `text` spells, autoreleased. Nil when no URL may hold the text, which is nowhere
/// escaped: a character that is not printable ASCII, a blank, one of "<>\^`{|}, a "%" that is not
/// followed by two hexadecimal digits, or a second "#". Nil also for nil.
///
/// This is what `URLWithString:` itself refuses in programs built with an SDK before macOS 14. In
/// later ones it escapes such characters instead.
NSURL* URLFromText(NSString* text);
