// Foundation's strings as text that kpim prints.
#pragma once

#import <Foundation/Foundation.h>

#include <string>

namespace kpim {

/// Returns `text` in UTF-8; a lone surrogate, which has no UTF-8 form, becomes U+FFFD. Empty for
/// nil.
std::string UTF8(NSString* text);

/// Returns `text` on one line that a terminal can show; "none" for nil.
std::string TextOrNone(NSString* text);

/// Returns `text` as a JSON string; "null" for nil.
std::string JSONOrNull(NSString* text);

}  // namespace kpim
