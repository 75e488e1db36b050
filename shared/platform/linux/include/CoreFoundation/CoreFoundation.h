// The few names of CoreFoundation that the product uses. Its objects are Foundation's own, so a
// cast turns one into the other, as on macOS. Usable from C, C++ and Objective-C.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char Boolean;

typedef const void* CFTypeRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFDictionary* CFDictionaryRef;
/// An NSError.
typedef struct __CFError* CFErrorRef;

/// A constant string; available in Objective-C only.
#ifdef __OBJC__
#define CFSTR(text) ((CFStringRef) @"" text)
#endif

/// Releases one ownership of `object`. NULL ends the process, as on macOS.
void CFRelease(CFTypeRef object);

/// True when the two are equal as Foundation's `isEqual:` sees it. NULL ends the process, as
/// on macOS.
Boolean CFEqual(CFTypeRef left, CFTypeRef right);

#ifdef __cplusplus
}
#endif
