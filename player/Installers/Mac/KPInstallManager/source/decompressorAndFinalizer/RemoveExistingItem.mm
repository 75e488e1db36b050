#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RemoveExistingItem.h"

void RemoveExistingItem(NSString* root, NSString* path,
                        RemovalResult (*remove)(const char* root, const char* path)) {
  NSString* fullPath = [root stringByAppendingPathComponent:path];
  if (![[NSFileManager defaultManager] fileExistsAtPath:fullPath]) {
    return;
  }
  const char* start = [path isAbsolutePath] ? "/" : ".";
  if ([root length] > 0) {
    start = [root fileSystemRepresentation];
  }
  (void)remove(start, [path fileSystemRepresentation]);
}
