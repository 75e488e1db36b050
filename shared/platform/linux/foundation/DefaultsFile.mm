#import "shared/platform/linux/foundation/DefaultsFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Transfer.h"

namespace {

/// Files of defaults are small; a longer file is something else.
constexpr off_t kLongestFile = off_t{64} * 1024;

/// The bytes of the regular file at `path`; nil when it cannot be opened or is too long.
NSData* BytesOfFile(NSString* path) {
  struct stat status = {};
  const int descriptor =
      OpenRegularFile([path fileSystemRepresentation], O_RDONLY, 0, FileNames::kAny, &status);
  if (descriptor < 0) {
    return nil;
  }
  NSMutableData* bytes = nil;
  if (status.st_size <= kLongestFile) {
    bytes = [NSMutableData dataWithLength:static_cast<NSUInteger>(status.st_size)];
    size_t length = 0;
    (void)ReadBytes(descriptor, static_cast<unsigned char*>([bytes mutableBytes]), [bytes length],
                    length);
    [bytes setLength:length];
  }
  close(descriptor);
  return bytes;
}

}  // namespace

NSDictionary* DictionaryOfDefaultsFile(NSString* path) {
  NSData* bytes = BytesOfFile(path);
  if (bytes == nil) {
    return nil;
  }
  id dictionary = [NSPropertyListSerialization propertyListWithData:bytes
                                                            options:NSPropertyListImmutable
                                                             format:nullptr
                                                              error:nullptr];
  return [dictionary isKindOfClass:[NSDictionary class]] ? dictionary : nil;
}
