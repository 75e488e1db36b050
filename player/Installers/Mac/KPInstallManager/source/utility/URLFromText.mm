#import "player/Installers/Mac/KPInstallManager/source/utility/URLFromText.h"

#include <cstring>

namespace {

constexpr unichar kFirstPrintable = '!';
constexpr unichar kLastPrintable = '~';
constexpr char kRefused[] = "\"<>\\^`{|}";

bool IsHexadecimal(unichar character) {
  return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'F') ||
         (character >= 'a' && character <= 'f');
}

bool IsEscape(NSString* text, NSUInteger index) {
  return index + 2 < [text length] && IsHexadecimal([text characterAtIndex:index + 1]) &&
         IsHexadecimal([text characterAtIndex:index + 2]);
}

bool IsLegal(NSString* text) {
  bool hasFragment = false;
  for (NSUInteger i = 0; i < [text length]; ++i) {
    const unichar character = [text characterAtIndex:i];
    if (character < kFirstPrintable || character > kLastPrintable ||
        strchr(kRefused, character) != nullptr || (character == '%' && !IsEscape(text, i)) ||
        (character == '#' && hasFragment)) {
      return false;
    }
    hasFragment = hasFragment || character == '#';
  }
  return true;
}

}  // namespace

NSURL* URLFromText(NSString* text) {
  return text != nil && IsLegal(text) ? [NSURL URLWithString:text] : nil;
}
