#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMInstallChecks.h"

#include <limits.h>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"

namespace {

NSString* const kOtherPlugin = @"/Library/Internet Plug-Ins/Korvel Player.plugin";
NSString* const kInfoFile = @"Contents/Info.plist";

// The plug-ins that this build may replace have this mark in their CFBundleGetInfoString.
NSString* const kChannelMark = @"d0";

NSString* const kAllPassed = @"All install checks pass";
NSString* const kSystemFormat = @"Failed install check: System OS version is %X";
NSString* const kDowngradeFormat =
    @"Failed install check. Version downgrade was attempted and explicitly prevented. System "
    @"Korvel Player version is %@; Trying to install Korvel Player version %@";
NSString* const kChannelSwitchMessage =
    @"Failed install check. You must run the Korvel Player uninstaller before installing this "
    @"version of Korvel Player. Please visit the Tarvix Labs web page to download the "
    @"uninstaller. " KP_UNINSTALLER_URL;

void LogFailure(NSString* message) {
  [[KPIMVersionManager _logger] logTimeStampedString:message withLoggingLevel:kLogLevelError];
}

// Returns `value`, or nil if it is not a string: a property list may contain any type.
NSString* StringOrNil(id value) { return [value isKindOfClass:[NSString class]] ? value : nil; }

NSString* InfoFileOf(NSString* plugin) { return [plugin stringByAppendingPathComponent:kInfoFile]; }

// Returns the texts between dots or commas.
NSArray* Components(NSString* tuple) {
  return [[tuple stringByReplacingOccurrencesOfString:@","
                                           withString:@"."] componentsSeparatedByString:@"."];
}

// Returns the integer at the beginning of the component at `index`, or 0 if there is none. A number
// out of the range of int becomes the largest or smallest int.
int IntegerAt(NSUInteger index, NSArray* components) {
  if (index >= [components count]) {
    return 0;
  }
  long long value = 0;
  NSScanner* scanner = [[NSScanner alloc] initWithString:[components objectAtIndex:index]];
  const bool found = [scanner scanLongLong:&value];
  [scanner release];
  if (!found) {
    return 0;
  }
  // The scanner limits numbers to its own range in the same way.
  return static_cast<int>(MAX(INT_MIN, MIN(value, INT_MAX)));
}

}  // namespace

@implementation KPIMVersionManager (InstallChecks)

+ (NSString*)versionOfKorvelPlayerToBeInstalled {
  return StringOrNil([[[NSBundle mainBundle] infoDictionary] objectForKey:@"CFBundleVersion"]);
}

+ (NSString*)versionOfPlayerOnSystemFor:(int)kind {
  NSString* infoFile = InfoFileOf(kind == kKPIMPlayerKindPepper ? kPluginBundlePath : kOtherPlugin);
  if (![[NSFileManager defaultManager] fileExistsAtPath:infoFile]) {
    return nil;
  }
  NSDictionary* info = [NSDictionary dictionaryWithContentsOfFile:infoFile];
  return StringOrNil([info objectForKey:@"CFBundleShortVersionString"]);
}

+ (NSString*)versionOfKorvelPlayerOnSystem {
  return [self versionOfPlayerOnSystemFor:kKPIMPlayerKindPepper];
}

+ (unsigned int)performInstallChecks {
  // All of them run, so that each logs its own failure.
  const unsigned int system = [self checkMinimumSystemRequirements];
  const unsigned int downgrade = [self checkDowngradeAttempt];
  const unsigned int channel = [self checkChannelSwitch];
  const unsigned int result = system | downgrade | channel;
  if (result == kKPIMInstallChecksPassed) {
    [[KPIMVersionManager _logger] logTimeStampedString:kAllPassed
                                      withLoggingLevel:kLogLevelInformation];
  }
  return result;
}

+ (unsigned int)checkMinimumSystemRequirements {
  const unsigned int system = [KPIMCommonUtil getSystemOSVersion];
  if (system >= kKPIMOldestSystem) {
    return kKPIMInstallChecksPassed;
  }
  LogFailure([NSString stringWithFormat:kSystemFormat, system]);
  return kKPIMInstallChecksSystemTooOld;
}

+ (unsigned int)checkDowngradeAttempt {
  NSString* installed = [self versionOfKorvelPlayerOnSystem];
  if (installed == nil) {
    return kKPIMInstallChecksPassed;
  }
  NSString* offered = [self versionOfKorvelPlayerToBeInstalled];
  if ([self compareTuple1:installed withTuple2:offered] != 1) {
    return kKPIMInstallChecksPassed;
  }
  LogFailure([NSString stringWithFormat:kDowngradeFormat, installed, offered]);
  return kKPIMInstallChecksDowngrade;
}

+ (unsigned int)checkChannelSwitch {
  NSString* infoFile = InfoFileOf(kPluginBundlePath);
  if (![[NSFileManager defaultManager] fileExistsAtPath:infoFile]) {
    return kKPIMInstallChecksPassed;
  }
  NSDictionary* info = [NSDictionary dictionaryWithContentsOfFile:infoFile];
  NSString* getInfo = StringOrNil([info objectForKey:@"CFBundleGetInfoString"]);
  // For a missing text the location is 0, not NSNotFound, so the check passes.
  if ([getInfo rangeOfString:kChannelMark options:NSLiteralSearch].location != NSNotFound) {
    return kKPIMInstallChecksPassed;
  }
  LogFailure(kChannelSwitchMessage);
  return kKPIMInstallChecksChannelSwitch;
}

+ (NSInteger)compareTuple1:(NSString*)tuple1 withTuple2:(NSString*)tuple2 {
  NSArray* components1 = Components(tuple1);
  NSArray* components2 = Components(tuple2);
  const NSUInteger length = MAX([components1 count], [components2 count]);
  for (NSUInteger position = 0; position < length; ++position) {
    const int a = IntegerAt(position, components1);
    const int b = IntegerAt(position, components2);
    if (a != b) {
      return a > b ? 1 : -1;
    }
  }
  return 0;
}

@end
