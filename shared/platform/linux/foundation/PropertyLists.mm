// Property lists: checked before they are parsed, and binary ones read from files.
#import <Foundation/Foundation.h>

#include <cstring>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#import "shared/platform/linux/foundation/PropertyListCheck.h"

namespace {

// The first bytes of every version of the format.
constexpr char kBinaryPropertyList[] = "bplist";

// NSPropertyListReadCorruptError of macOS, which GNUstep lacks.
constexpr NSInteger kPropertyListReadCorruptError = 3840;
NSString* const kUnsafeList = @"damaged, too deeply nested or too large";

// ---- NSPropertyListSerialization

id (*s_propertyList)(id, SEL, NSData*, NSPropertyListReadOptions, NSPropertyListFormat*, NSError**);

void SetCorrupt(NSError** error, NSString* reason) {
  if (error == nullptr) {
    return;
  }
  *error = [NSError errorWithDomain:NSCocoaErrorDomain
                               code:kPropertyListReadCorruptError
                           userInfo:[NSDictionary dictionaryWithObject:reason
                                                                forKey:NSLocalizedDescriptionKey]];
}

/// For some malformed lists GNUstep raises or crashes instead of returning an error. Every list is
/// parsed by this method, also those of dictionaries from files and URLs.
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
    SetCorrupt(error, [exception reason] ?: kUnsafeList);
    return nil;
  }
}

// ---- NSDictionary

id (*s_initWithContentsOfFile)(id, SEL, NSString*);
id (*s_initWithContentsOfURL)(id, SEL, NSURL*);

/// GNUstep takes every file for text, and so finds nothing in a binary property list.
bool IsBinaryPropertyList(NSData* data) {
  const size_t length = strlen(kBinaryPropertyList);
  return data != nil && [data length] >= length &&
         memcmp([data bytes], kBinaryPropertyList, length) == 0;
}

/// Initializes `self` with the dictionary in the property list `data`; nil when it is not a
/// dictionary.
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
  return [url isFileURL] ? [self initWithContentsOfFile:[url path]]
                         : s_initWithContentsOfURL(self, selector, url);
}

const MethodReplacement s_replacements[] = {
    {'+', "NSPropertyListSerialization", "propertyListWithData:options:format:error:", PropertyList,
     &s_propertyList},
    {'-', "NSDictionary", "initWithContentsOfFile:", InitWithContentsOfFile,
     &s_initWithContentsOfFile},
    {'-', "NSDictionary", "initWithContentsOfURL:", InitWithContentsOfURL,
     &s_initWithContentsOfURL},
};

}  // namespace
