#include "shared/platform/mac/MacSystemVersion.h"

#import <Foundation/Foundation.h>

namespace {

NSString* const kVersionSelector = @"operatingSystemVersion";
NSString* const kVersionFile = @"SystemVersion.plist";
NSString* const kVersionKey = @"ProductVersion";

// What `operatingSystemVersion` returns. The type has a name only in SDKs that have the method.
struct VersionRecord {
  NSInteger major;
  NSInteger minor;
  NSInteger patch;
};

// Reads the version from the process-information object, which has it since OS X 10.10. The method
// is called by name, so that this code loads on systems without it. Returns false there.
bool AskProcessInfo(VersionRecord& version) {
  NSProcessInfo* processInfo = [NSProcessInfo processInfo];
  const SEL selector = NSSelectorFromString(kVersionSelector);
  if (![processInfo respondsToSelector:selector]) {
    return false;
  }
  NSMethodSignature* signature = [processInfo methodSignatureForSelector:selector];
  if ([signature methodReturnLength] != sizeof(version)) {
    return false;
  }
  NSInvocation* invocation = [NSInvocation invocationWithMethodSignature:signature];
  [invocation setSelector:selector];
  [invocation invokeWithTarget:processInfo];
  [invocation getReturnValue:&version];
  return true;
}

// Returns the components of the version in the system's property list; nil when it cannot be read.
NSArray* VersionFileComponents() {
  NSURL* folder = [[NSFileManager defaultManager] URLForDirectory:NSCoreServiceDirectory
                                                         inDomain:NSSystemDomainMask
                                                appropriateForURL:nil
                                                           create:NO
                                                            error:nullptr];
  if (folder == nil) {
    return nil;  // Reading from a nil URL raises an exception.
  }
  NSDictionary* properties =
      [NSDictionary dictionaryWithContentsOfURL:[folder URLByAppendingPathComponent:kVersionFile]];
  id version = [properties objectForKey:kVersionKey];
  return [version isKindOfClass:[NSString class]] ? [version componentsSeparatedByString:@"."]
                                                  : nil;
}

unsigned int NumberAt(NSArray* components, NSUInteger index, unsigned int defaultNumber) {
  return index < [components count]
             ? static_cast<unsigned int>([[components objectAtIndex:index] intValue])
             : defaultNumber;
}

}  // namespace

void ObtainMacSystemVersion(unsigned int* major, unsigned int* minor, unsigned int* bugfix) {
  VersionRecord version;
  if (AskProcessInfo(version)) {
    *major = static_cast<unsigned int>(version.major);
    *minor = static_cast<unsigned int>(version.minor);
    *bugfix = static_cast<unsigned int>(version.patch);
    return;
  }
  NSArray* components = VersionFileComponents();
  *major = NumberAt(components, 0, 10);
  *minor = NumberAt(components, 1, 0);
  *bugfix = NumberAt(components, 2, 0);
}

MacSystemVersion MacSystemVersion::sCachedSystemVersion = {0, 0, 0};
const MacSystemVersion MacSystemVersion::sMacSystemVersionUninitialized = {0, 0, 0};

MacSystemVersion MacSystemVersion::GetSystemVersion() {
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int bugfix = 0;
  ObtainMacSystemVersion(&major, &minor, &bugfix);
  return {static_cast<unsigned short>(major), static_cast<unsigned short>(minor),
          static_cast<unsigned short>(bugfix)};
}
