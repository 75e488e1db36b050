// Conversion between the strings of the tests and the platform's.
#pragma once

#import <Foundation/Foundation.h>

#include <string>

/// The text in UTF-8; "(absent)" for nil.
inline std::string Text(NSString* string) {
  return string != nil ? [string UTF8String] : "(absent)";
}

inline NSString* String(const std::string& text) {
  return [NSString stringWithUTF8String:text.c_str()];
}
