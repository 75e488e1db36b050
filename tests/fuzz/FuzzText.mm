#include "tests/fuzz/FuzzText.h"

NSString* NewFuzzText(const uint8_t* data, size_t size) {
  NSString* text = [[NSString alloc] initWithBytes:data length:size encoding:NSUTF8StringEncoding];
  if (text == nil) {
    text = [[NSString alloc] initWithBytes:data length:size encoding:NSISOLatin1StringEncoding];
  }
  return text;
}
