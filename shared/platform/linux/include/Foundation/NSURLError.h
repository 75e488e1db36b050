// GNUstep's URL error codes, and those of macOS's <Foundation/NSURLError.h> that it lacks.
#pragma once

#include_next <Foundation/NSURLError.h>

enum {
  /// The server's answer is not HTTP, or breaks its rules.
  NSURLErrorCannotParseResponse = -1017
};
