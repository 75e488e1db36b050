// The user defaults: read without GNUstep's lock.
#import <Foundation/Foundation.h>

#import "shared/platform/linux/foundation/MethodReplacement.h"

/// A lock that is always free and leaves nothing on the disk.
@interface KPOpenLock : NSDistributedLock
@end

@implementation KPOpenLock

- (BOOL)tryLock {
  return YES;
}

- (void)unlock {
}

@end

namespace {

NSString* const kDefaultsLock = @".GNUstepDefaults.lck";
NSString* const kDefaultsLockFolder = @".lck";

id (*s_initLockWithPath)(id, SEL, NSString*);

/// GNUstep reads no defaults without their lock. It prints a complaint when the home cannot be
/// written, and waits up to a minute for a lock that was left over. The product only reads
/// defaults, and a file of them is replaced as a whole: a reader needs no lock.
id InitLockWithPath(id self, SEL selector, NSString* path) {
  if ([[path lastPathComponent] isEqualToString:kDefaultsLock]) {
    [self release];
    return [[KPOpenLock alloc] init];
  }
  return s_initLockWithPath(self, selector, path);
}

BOOL (*s_createDirectory)(id, SEL, NSString*, BOOL, NSDictionary*, NSError**);

/// Whether `path` is the folder of the user's own defaults or the ".lck" in it. A ".lck" elsewhere
/// is created as usual.
bool IsForTheDefaultsLock(NSString* path) {
  NSString* defaults = [GSDefaultsRootForUser(NSUserName()) stringByStandardizingPath];
  return [path isEqualToString:defaults] ||
         [path isEqualToString:[defaults stringByAppendingPathComponent:kDefaultsLockFolder]];
}

/// GNUstep makes the folder of the defaults, and one for the lock in it, before it takes the lock,
/// which here needs neither.
BOOL CreateDirectory(id self, SEL selector, NSString* path, BOOL intermediates,
                     NSDictionary* attributes, NSError** error) {
  return IsForTheDefaultsLock(path)
             ? YES
             : s_createDirectory(self, selector, path, intermediates, attributes, error);
}

const MethodReplacement s_replacements[] = {
    {'-', "NSDistributedLock", "initWithPath:", InitLockWithPath, &s_initLockWithPath},
    {'-', "NSFileManager", "createDirectoryAtPath:withIntermediateDirectories:attributes:error:",
     CreateDirectory, &s_createDirectory},
};

}  // namespace
