#import <CoreFoundation/CoreFoundation.h>
#import <Foundation/Foundation.h>

#include <cstdio>
#include <cstdlib>

namespace {

/// macOS ends the process too. A message to nil would pass in silence.
void RequireObject(CFTypeRef object, const char* function) {
  if (object == nullptr) {
    (void)fprintf(stderr, "host port: %s() called with NULL\n", function);
    abort();
  }
}

}  // namespace

void CFRelease(CFTypeRef object) {
  RequireObject(object, __func__);
  [(id)object release];
}

Boolean CFEqual(CFTypeRef left, CFTypeRef right) {
  RequireObject(left, __func__);
  RequireObject(right, __func__);
  return [(id)left isEqual:(id)right] ? 1 : 0;
}
