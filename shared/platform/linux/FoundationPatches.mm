// Corrections of GNUstep Base where the product relies on what macOS does.
#import <Foundation/Foundation.h>

#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#import "shared/platform/linux/MethodReplacement.h"

// GNUstep Base exports it and describes it in Foundation/NSString.h, but declares it nowhere.
extern "C" const char* GSPathHandling(const char* mode);

namespace {

NSString* const kCoreServices = @"/System/Library/CoreServices";

constexpr char kLocalTimeLink[] = "/etc/localtime";
constexpr char kZoneFolder[] = "/zoneinfo/";

// ---- NSFileHandle

/// GNUstep flushes all file systems of the machine with sync(2). Raises like the handle's other
/// methods when the disk reports an error; what cannot be flushed at all, a pipe, is not an error.
void SynchronizeFile(id self, SEL /*selector*/) {
  if (fsync([self fileDescriptor]) == 0 || errno == EINVAL) {
    return;
  }
  [NSException raise:NSFileHandleOperationException
              format:@"unable to synchronize descriptor - %s", strerror(errno)];
}

// ---- NSDictionary

/// Makes `self` the dictionary that a property list in `data` holds; nil when it holds none.
id InitWithPropertyList(id self, NSData* data) {
  id properties = nil;
  @try {
    properties = data == nil
                     ? nil
                     : [NSPropertyListSerialization propertyListWithData:data
                                                                 options:NSPropertyListImmutable
                                                                  format:nullptr
                                                                   error:nullptr];
  } @catch (NSException*) {
    // Raised for some malformed lists instead of the error that others give.
  }
  if (![properties isKindOfClass:[NSDictionary class]]) {
    [self release];
    return nil;
  }
  return [self initWithDictionary:properties];
}

/// GNUstep takes a file for text, and so finds nothing in a binary property list.
id InitWithContentsOfFile(id self, SEL /*selector*/, NSString* path) {
  return InitWithPropertyList(self, [NSData dataWithContentsOfFile:path]);
}

id InitWithContentsOfURL(id self, SEL /*selector*/, NSURL* url) {
  return InitWithPropertyList(self, [NSData dataWithContentsOfURL:url]);
}

// ---- NSFileManager

using URLForDirectoryMethod = NSURL* (*)(id, SEL, NSSearchPathDirectory, NSSearchPathDomainMask,
                                         NSURL*, BOOL, NSError**);
URLForDirectoryMethod s_urlForDirectory;

/// GNUstep has a core-services folder of its own. The system's is where macOS has it.
NSURL* URLForDirectory(id self, SEL selector, NSSearchPathDirectory directory,
                       NSSearchPathDomainMask domain, NSURL* url, BOOL create, NSError** error) {
  if (directory == NSCoreServiceDirectory && domain == NSSystemDomainMask) {
    return [NSURL fileURLWithPath:kCoreServices isDirectory:YES];
  }
  return s_urlForDirectory(self, selector, directory, domain, url, create, error);
}

// ---- NSTimeZone

/// Name of the local time zone as the C library finds it (tzset(3)): from TZ, or from where
/// /etc/localtime points to. Nil when neither names one.
NSString* LocalTimeZoneName() {
  char target[PATH_MAX];
  const char* name = getenv("TZ");
  if (name == nullptr) {
    const ssize_t length = readlink(kLocalTimeLink, target, sizeof(target) - 1);
    if (length < 0) {
      return nil;
    }
    target[length] = '\0';
    name = target;
  } else if (*name == ':') {
    ++name;
  }
  const char* folder = strstr(name, kZoneFolder);
  if (folder != nullptr) {
    name = folder + strlen(kZoneFolder);
  }
  return *name == '\0' || *name == '/' ? nil : [NSString stringWithUTF8String:name];
}

/// GNUstep reads Debian's /etc/timezone, which may be missing or stale, and complains at length on
/// standard error when it names no zone. macOS goes by TZ and /etc/localtime.
NSTimeZone* SystemTimeZone(id /*self*/, SEL /*selector*/) {
  const time_t now = time(nullptr);
  struct tm local;
  tzset();
  localtime_r(&now, &local);

  NSString* name = LocalTimeZoneName();
  NSTimeZone* zone = name != nil ? [NSTimeZone timeZoneWithName:name] : nil;
  if (zone != nil && [zone secondsFromGMT] == local.tm_gmtoff) {
    return zone;
  }
  // A rule in TZ, or a copy in place of the link: no name to find it by, but the offset holds.
  return [NSTimeZone timeZoneForSecondsFromGMT:local.tm_gmtoff];
}

}  // namespace

@interface KPFoundationPatches : NSObject
@end

@implementation KPFoundationPatches

+ (void)load {
  // Otherwise a backslash separates the components of a path, as a slash does.
  GSPathHandling("unix");
  ReplaceMethod("GSFileHandle", @selector(synchronizeFile), (IMP)SynchronizeFile);
  ReplaceMethod("NSDictionary", @selector(initWithContentsOfFile:), (IMP)InitWithContentsOfFile);
  ReplaceMethod("NSDictionary", @selector(initWithContentsOfURL:), (IMP)InitWithContentsOfURL);
  s_urlForDirectory = (URLForDirectoryMethod)ReplaceMethod(
      "NSFileManager", @selector(URLForDirectory:inDomain:appropriateForURL:create:error:),
      (IMP)URLForDirectory);
  ReplaceMethod("NSTimeZone", @selector(systemTimeZone), (IMP)SystemTimeZone, true);
}

@end
