#include "tests/fuzz/FuzzSupport.h"

#include <stdio.h>
#include <stdlib.h>

void FuzzCheck(bool holds, const char* text, const char* file, int line) {
  if (!holds) {
    fprintf(stderr, "%s:%d: not so: %s\n", file, line, text);
    abort();
  }
}

NSString* NewFuzzText(const uint8_t* data, size_t size) {
  NSString* text = [[NSString alloc] initWithBytes:data length:size encoding:NSUTF8StringEncoding];
  if (text == nil) {
    text = [[NSString alloc] initWithBytes:data length:size encoding:NSISOLatin1StringEncoding];
  }
  return text;
}
