// Corrections of GNUstep Base where the product relies on what macOS does.
#import <Foundation/Foundation.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#import "shared/platform/linux/foundation/PropertyListCheck.h"

// GNUstep Base exports it and describes it in Foundation/NSString.h, but declares it nowhere.
extern "C" const char* GSPathHandling(const char* mode);

namespace {

NSString* const kCoreServices = @"/System/Library/CoreServices";

// The first bytes of every version of the format.
constexpr char kBinaryPropertyList[] = "bplist";

// NSPropertyListReadCorruptError of macOS, which GNUstep lacks.
constexpr NSInteger kPropertyListReadCorruptError = 3840;
NSString* const kUnsafeList = @"damaged, too deeply nested or too large";

constexpr long long kBeyondInt = static_cast<long long>(INT_MAX) + 1;

// ---- NSFileHandle

bool IsRegularFile(int descriptor) {
  struct stat status;
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

/// GNUstep flushes all file systems of the machine with sync(2). Raises like the handle's other
/// methods when the disk reports an error; what cannot be flushed at all, a pipe, is not an error.
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

// ---- NSPropertyListSerialization

using PropertyListMethod = id (*)(id, SEL, NSData*, NSPropertyListReadOptions,
                                  NSPropertyListFormat*, NSError**);
PropertyListMethod s_propertyList;

void SetCorrupt(NSError** error, NSString* reason) {
  if (error == nullptr) {
    return;
  }
  *error = [NSError errorWithDomain:NSCocoaErrorDomain
                               code:kPropertyListReadCorruptError
                           userInfo:[NSDictionary dictionaryWithObject:reason
                                                                forKey:NSLocalizedDescriptionKey]];
}

/// For some malformed lists GNUstep raises, or crashes, instead of giving the error that it gives
/// for others. Every list comes by here: those of dictionaries from files and URLs too.
id PropertyList(id self, SEL selector, NSData* data, NSPropertyListReadOptions options,
                NSPropertyListFormat* format, NSError** error) {
  [self class];  // It may be the first message: see ReplaceMethod().
  if (!IsSafePropertyList(data)) {
    SetCorrupt(error, kUnsafeList);
    return nil;
  }
  @try {
    return s_propertyList(self, selector, data, options, format, error);
  } @catch (NSException* exception) {
    SetCorrupt(error, [exception reason]);
    return nil;
  }
}

// ---- NSDictionary

using InitWithFileMethod = id (*)(id, SEL, NSString*);
InitWithFileMethod s_initWithContentsOfFile;

using InitWithURLMethod = id (*)(id, SEL, NSURL*);
InitWithURLMethod s_initWithContentsOfURL;

/// GNUstep takes every file for text, and so finds nothing in a binary property list.
bool IsBinaryPropertyList(NSData* data) {
  const size_t length = strlen(kBinaryPropertyList);
  return data != nil && [data length] >= length &&
         memcmp([data bytes], kBinaryPropertyList, length) == 0;
}

/// Makes `self` the dictionary that a property list in `data` holds; nil when it holds none.
id InitWithPropertyList(id self, NSData* data) {
  id properties = [NSPropertyListSerialization propertyListWithData:data
                                                            options:NSPropertyListImmutable
                                                             format:nullptr
                                                              error:nullptr];
  if (![properties isKindOfClass:[NSDictionary class]]) {
    [self release];
    return nil;
  }
  return [self initWithDictionary:properties];
}

id InitWithContentsOfFile(id self, SEL selector, NSString* path) {
  NSData* data = [NSData dataWithContentsOfFile:path];
  return IsBinaryPropertyList(data) ? InitWithPropertyList(self, data)
                                    : s_initWithContentsOfFile(self, selector, path);
}

id InitWithContentsOfURL(id self, SEL selector, NSURL* url) {
  // Nothing is loaded twice over a network.
  NSData* data = [url isFileURL] ? [NSData dataWithContentsOfURL:url] : nil;
  return IsBinaryPropertyList(data) ? InitWithPropertyList(self, data)
                                    : s_initWithContentsOfURL(self, selector, url);
}

// ---- NSString

/// Classes of strings with an `intValue` of their own.
constexpr const char* kStringClasses[] = {"NSString", "GSCString", "GSUnicodeString",
                                          "GSMutableString", "NSConstantString"};

/// GNUstep keeps the low 32 bits of a number that is too large. macOS answers with the nearest
/// number that an int holds.
int IntValue(id self, SEL /*selector*/) {
  const NSUInteger length = [self length];
  const auto at = [self, length](NSUInteger index) {
    const unichar character = index < length ? [self characterAtIndex:index] : 0;
    return character < 0x80 ? static_cast<int>(character) : 0;
  };
  NSUInteger index = 0;
  while (isspace(at(index)) != 0) {
    ++index;
  }
  const bool isNegative = at(index) == '-';
  if (isNegative || at(index) == '+') {
    ++index;
  }
  long long value = 0;
  for (; isdigit(at(index)) != 0; ++index) {
    value = std::min(value * 10 + (at(index) - '0'), kBeyondInt);
  }
  return static_cast<int>(isNegative ? -value : std::min(value, kBeyondInt - 1));
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

}  // namespace

@interface KPFoundationPatches : NSObject
@end

@implementation KPFoundationPatches

+ (void)load {
  // Otherwise a backslash separates the components of a path, as a slash does.
  GSPathHandling("unix");
  ReplaceMethod("GSFileHandle", @selector(synchronizeFile), (IMP)SynchronizeFile);
  s_propertyList = (PropertyListMethod)ReplaceMethod(
      "NSPropertyListSerialization", @selector(propertyListWithData:options:format:error:),
      (IMP)PropertyList, true);
  s_initWithContentsOfFile = (InitWithFileMethod)ReplaceMethod(
      "NSDictionary", @selector(initWithContentsOfFile:), (IMP)InitWithContentsOfFile);
  s_initWithContentsOfURL = (InitWithURLMethod)ReplaceMethod(
      "NSDictionary", @selector(initWithContentsOfURL:), (IMP)InitWithContentsOfURL);
  for (const char* stringClass : kStringClasses) {
    ReplaceMethod(stringClass, @selector(intValue), (IMP)IntValue);
  }
  s_urlForDirectory = (URLForDirectoryMethod)ReplaceMethod(
      "NSFileManager", @selector(URLForDirectory:inDomain:appropriateForURL:create:error:),
      (IMP)URLForDirectory);
}

@end
