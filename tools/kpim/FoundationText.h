// The platform's strings as kpim prints them.
#pragma once

#import <Foundation/Foundation.h>

#include <string>

namespace kpim {

/// `text` in UTF-8, also where it has no form in it: a lone surrogate becomes U+FFFD. Empty for
/// nil.
std::string UTF8(NSString* text);

/// `text` on one line that a terminal can show; "none" for nil.
std::string TextOrNone(NSString* text);

/// `text` as a JSON string; null for nil.
std::string JSONOrNull(NSString* text);

}  // namespace kpim
