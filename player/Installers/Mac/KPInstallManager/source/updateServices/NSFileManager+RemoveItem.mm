#import "player/Installers/Mac/KPInstallManager/source/updateServices/NSFileManager+RemoveItem.h"

#include <errno.h>
#include <sys/stat.h>

namespace {

// Returns whether nothing exists at `path`; a dangling link counts as an item. False when the
// system cannot find out.
bool IsMissing(NSString* path) {
  struct stat status;
  return lstat([path fileSystemRepresentation], &status) != 0 &&
         (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace

@implementation NSFileManager (RemoveItem)

- (BOOL)removeItemAtPathIfItExists:(NSString*)path error:(NSError**)error {
  if (path == nil || IsMissing(path)) {
    return YES;
  }
  return [self removeItemAtPath:path error:error];
}

@end
