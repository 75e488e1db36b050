#import "player/Installers/Mac/KPInstallManager/source/utility/NSFileManager+RemoveItem.h"

@implementation NSFileManager (RemoveItem)

- (BOOL)removeItemAtPathIfItExists:(NSString*)path error:(NSError**)error {
  // The item's own attributes: fileExistsAtPath: follows links and says no to a dangling one.
  if (path == nil || [self attributesOfItemAtPath:path error:nullptr] == nil) {
    return YES;
  }
  return [self removeItemAtPath:path error:error];
}

@end
