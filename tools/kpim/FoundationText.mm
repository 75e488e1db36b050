#include "tools/kpim/FoundationText.h"

#include "tools/kpim/JSON.h"
#include "tools/kpim/Text.h"

namespace kpim {

std::string UTF8(NSString* text) {
  NSData* data = [text dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
  // Untested: the lossy conversion does not fail.
  return data != nil ? std::string(static_cast<const char*>([data bytes]), [data length]) : "";
}

std::string TextOrNone(NSString* text) { return text != nil ? Printable(UTF8(text)) : "none"; }

std::string JSONOrNull(NSString* text) { return text != nil ? JSONString(UTF8(text)) : "null"; }

}  // namespace kpim
