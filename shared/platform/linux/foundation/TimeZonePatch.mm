// The local time zone, as the C library finds it.
#import <Foundation/Foundation.h>

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

constexpr char kLocalTimeLink[] = "/etc/localtime";
NSString* const kZoneFolder = @"/usr/share/zoneinfo";
// In the links to zones, which may be relative.
NSString* const kZoneFolderInLinks = @"/zoneinfo/";

// The first bytes of a zone's file (tzfile(5)).
constexpr char kZoneFileStart[] = "TZif";

constexpr int kSecondsPerMinute = 60;
constexpr int kMinutesPerHour = 60;

/// What TZ says, or where /etc/localtime points to (tzset(3)); nil when neither says anything.
NSString* LocalTimeZonePath() {
  const char* variable = getenv("TZ");
  if (variable != nullptr) {
    return [NSString stringWithUTF8String:*variable == ':' ? variable + 1 : variable];
  }
  char target[PATH_MAX];
  const ssize_t length = readlink(kLocalTimeLink, target, sizeof(target) - 1);
  if (length < 0) {
    return nil;
  }
  target[length] = '\0';
  return [NSString stringWithUTF8String:target];
}

/// The name of the zone at `path`, which is below the zone folder: "Asia/Kolkata" for
/// "posix/Asia//Kolkata", where the same zones lie once more, as below "right". Nil when the path
/// leads elsewhere.
NSString* ZoneName(NSString* path) {
  const NSRange folder = [path rangeOfString:kZoneFolderInLinks];
  if (folder.length > 0) {
    path = [path substringFromIndex:NSMaxRange(folder)];
  } else if ([path hasPrefix:@"/"]) {
    return nil;
  }
  NSMutableArray* parts = [NSMutableArray array];
  for (NSString* part in [path componentsSeparatedByString:@"/"]) {
    if ([part isEqualToString:@".."]) {
      return nil;
    }
    const bool isCollection = [part isEqualToString:@"posix"] || [part isEqualToString:@"right"];
    if ([part length] > 0 && ![part isEqualToString:@"."] &&
        !(isCollection && [parts count] == 0)) {
      [parts addObject:part];
    }
  }
  return [parts count] > 0 ? [parts componentsJoinedByString:@"/"] : nil;
}

/// False for the zone folder's other files, about which GNUstep complains on standard error.
bool IsZoneFile(NSString* name) {
  NSString* path = [kZoneFolder stringByAppendingPathComponent:name];
  FILE* file = fopen([path fileSystemRepresentation], "re");
  if (file == nullptr) {
    return false;
  }
  char start[sizeof(kZoneFileStart) - 1];
  const bool isZone = fread(start, sizeof(start), 1, file) == 1 &&
                      memcmp(start, kZoneFileStart, sizeof(start)) == 0;
  (void)fclose(file);
  return isZone;
}

// A new formatter asks for the local time zone, also the one that finds out about it.
thread_local bool s_isTrying = false;

/// True when dates of now are formatted in `zone` with the offset of `minutes` from GMT. The
/// formatter knows zones by name from tables of its own, and takes one that is missing in them for
/// GMT.
bool FormatsWithOffset(NSTimeZone* zone, long minutes) {
  s_isTrying = true;
  NSLocale* locale = [[NSLocale alloc] initWithLocaleIdentifier:@"en_US_POSIX"];
  NSDateFormatter* formatter = [[NSDateFormatter alloc] init];
  [formatter setLocale:locale];
  [formatter setTimeZone:zone];
  [formatter setDateFormat:@"Z"];
  NSString* formatted = [formatter stringFromDate:[NSDate date]];
  [formatter release];
  [locale release];
  s_isTrying = false;
  const long distance = labs(minutes);
  return [formatted
      isEqualToString:[NSString stringWithFormat:@"%c%02ld%02ld", minutes < 0 ? '-' : '+',
                                                 distance / kMinutesPerHour,
                                                 distance % kMinutesPerHour]];
}

/// GNUstep reads Debian's /etc/timezone, which may be missing or stale, and complains at length on
/// standard error when it names no zone. macOS goes by TZ and /etc/localtime. Whole minutes, as in
/// the offsets that are printed.
NSTimeZone* SystemTimeZone(id /*self*/, SEL /*selector*/) {
  NSTimeZone* greenwich = [NSTimeZone timeZoneForSecondsFromGMT:0];
  if (s_isTrying) {
    return greenwich;
  }
  const time_t now = time(nullptr);
  struct tm local;
  tzset();
  localtime_r(&now, &local);
  const long minutes = local.tm_gmtoff / kSecondsPerMinute;

  NSString* name = ZoneName(LocalTimeZonePath());
  if (name != nil && IsZoneFile(name)) {
    NSTimeZone* zone = [NSTimeZone timeZoneWithName:name];
    if (zone != nil && FormatsWithOffset(zone, minutes)) {
      return zone;
    }
  }
  // A rule in TZ, or a copy in place of the link: no name to find it by, but the offset holds.
  // Foundation has none of more than 18 hours.
  return [NSTimeZone timeZoneForSecondsFromGMT:minutes * kSecondsPerMinute] ?: greenwich;
}

}  // namespace

@interface KPTimeZonePatch : NSObject
@end

@implementation KPTimeZonePatch

+ (void)load {
  ReplaceMethod("NSTimeZone", @selector(systemTimeZone), (IMP)SystemTimeZone, true);
}

@end
