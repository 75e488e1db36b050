#import "shared/platform/linux/foundation/DefaultsFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

/// Files of defaults are small; a longer file is something else.
constexpr off_t kLongestFile = off_t{64} * 1024;

/// The next `size` bytes of the file, or as many as there are.
NSData* ReadBytes(int descriptor, size_t size) {
  NSMutableData* bytes = [NSMutableData dataWithLength:size];
  auto* buffer = static_cast<char*>([bytes mutableBytes]);
  size_t length = 0;
  ssize_t count = 0;
  while ((count = Uninterrupted([&] { return read(descriptor, buffer + length, size - length); })) >
         0) {
    length += static_cast<size_t>(count);
  }
  [bytes setLength:length];
  return bytes;
}

/// The bytes of the regular file at `path`; nil when it cannot be opened or is too long.
NSData* BytesOfFile(NSString* path) {
  struct stat status = {};
  const int descriptor =
      OpenRegularFile([path fileSystemRepresentation], O_RDONLY, 0, FileNames::kAny, &status);
  if (descriptor < 0) {
    return nil;
  }
  NSData* bytes = status.st_size <= kLongestFile
                      ? ReadBytes(descriptor, static_cast<size_t>(status.st_size))
                      : nil;
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
