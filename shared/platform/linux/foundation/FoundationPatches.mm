// Corrections of GNUstep Base where the product relies on what macOS does.
#import <Foundation/Foundation.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#import "shared/platform/linux/foundation/MethodReplacement.h"

// GNUstep Base exports it and describes it in Foundation/NSString.h, but declares it nowhere.
extern "C" const char* GSPathHandling(const char* mode);

namespace {

NSString* const kCoreServices = @"/System/Library/CoreServices";

// ---- NSFileHandle

bool IsRegularFile(int descriptor) {
  struct stat status;
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

/// GNUstep flushes all file systems of the machine with sync(2). Raises like the handle's other
/// methods when the disk reports an error. A descriptor that cannot be flushed, such as a pipe's,
/// is not an error.
void SynchronizeFile(id self, SEL /*selector*/) {
  const int descriptor = [self fileDescriptor];
  if (fsync(descriptor) == 0) {
    return;
  }
  const int error = errno;
  if (error == EINVAL && !IsRegularFile(descriptor)) {
    return;
  }
  [NSException raise:NSFileHandleOperationException
              format:@"unable to synchronize descriptor - %s", strerror(error)];
}

// ---- NSString

/// Otherwise a backslash separates the components of a path, as a slash does.
[[maybe_unused]] const char* const s_pathHandling = GSPathHandling("unix");

/// GNUstep keeps the low 32 bits of a number that is too large. macOS answers with the nearest
/// number that an int holds.
int IntValue(id self, SEL /*selector*/) {
  NSData* data = [self dataUsingEncoding:NSASCIIStringEncoding allowLossyConversion:YES];
  const std::string text(static_cast<const char*>([data bytes]), [data length]);
  return static_cast<int>(
      std::clamp<long long>(strtoll(text.c_str(), nullptr, 10), INT_MIN, INT_MAX));
}

// ---- NSFileManager

NSURL* (*s_urlForDirectory)(id, SEL, NSSearchPathDirectory, NSSearchPathDomainMask, NSURL*, BOOL,
                            NSError**);

/// GNUstep has a core-services folder of its own. This returns macOS's path for the system's.
NSURL* URLForDirectory(id self, SEL selector, NSSearchPathDirectory directory,
                       NSSearchPathDomainMask domain, NSURL* url, BOOL create, NSError** error) {
  if (directory == NSCoreServiceDirectory && domain == NSSystemDomainMask) {
    return [NSURL fileURLWithPath:kCoreServices isDirectory:YES];
  }
  return s_urlForDirectory(self, selector, directory, domain, url, create, error);
}

const MethodReplacement s_replacements[] = {
    {'-', "GSFileHandle", "synchronizeFile", SynchronizeFile},
    // The classes of strings with an `intValue` of their own.
    {'-', "NSString", "intValue", IntValue},
    {'-', "GSCString", "intValue", IntValue},
    {'-', "GSUnicodeString", "intValue", IntValue},
    {'-', "GSMutableString", "intValue", IntValue},
    {'-', "NSConstantString", "intValue", IntValue},
    {'-', "NSFileManager", "URLForDirectory:inDomain:appropriateForURL:create:error:",
     URLForDirectory, &s_urlForDirectory},
};

}  // namespace
