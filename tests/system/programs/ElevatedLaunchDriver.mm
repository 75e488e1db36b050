// Runs a tool through the elevated launch and prints the result, for the tests in a booted
// system.
//
//   elevated_launch_driver VERSION OUTPUT LABEL TOOL [ARGUMENT]...
//
// VERSION is the system version to pretend, such as "10.7", or "-" for the real one. OUTPUT is
// "output" or "no-output". Prints the result ("true", "false") and, in a second line, the output:
// "none" for "no-output", "nil", or "text" followed by its UTF-8 bytes after the line's end.
#import <Foundation/Foundation.h>

#include <cstdio>
#include <cstring>

#import "shared/platform/mac/ElevatedLaunch.h"
#include "shared/platform/mac/MacSystemVersion.h"

namespace {

NSString* Text(const char* bytes) { return [NSString stringWithUTF8String:bytes]; }

bool PretendVersion(const char* text) {
  MacSystemVersion version = MacSystemVersion::sMacSystemVersionUninitialized;
  if (strcmp(text, "-") != 0 && sscanf(text, "%hu.%hu", &version.major, &version.minor) != 2) {
    return false;
  }
  MacSystemVersion::sCachedSystemVersion = version;
  return true;
}

void PrintOutput(NSString* output, bool hasSlot) {
  if (!hasSlot || output == nil) {
    (void)puts(hasSlot ? "nil" : "none");
    return;
  }
  (void)puts("text");
  NSData* bytes = [output dataUsingEncoding:NSUTF8StringEncoding];
  (void)fwrite([bytes bytes], 1, [bytes length], stdout);
}

}  // namespace

int main(int argc, char** argv) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  if (argc < 5 || !PretendVersion(argv[1])) {
    (void)fprintf(stderr,
                  "usage: elevated_launch_driver VERSION OUTPUT LABEL TOOL [ARGUMENT]...\n");
    return 2;
  }
  const bool hasSlot = strcmp(argv[2], "output") == 0;
  NSMutableArray* arguments = [NSMutableArray array];
  for (int i = 5; i < argc; ++i) {
    [arguments addObject:Text(argv[i])];
  }
  NSString* output = @"untouched";
  const bool result =
      launchElevated(Text(argv[3]), Text(argv[4]), arguments, hasSlot ? &output : nullptr);
  (void)puts(result ? "true" : "false");
  PrintOutput(output, hasSlot);
  [pool release];
  return 0;
}
