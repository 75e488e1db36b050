#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMInstallChecks.h"

#include <limits.h>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"

namespace {

NSString* const kOtherPlugin = @"/Library/Internet Plug-Ins/Korvel Player.plugin";
NSString* const kInfoFile = @"Contents/Info.plist";

// The build channel whose installations this one may replace marks its plug-in's text with this.
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

// `value`, or nil when it is no string: a property list may hold anything.
NSString* StringOrNil(id value) { return [value isKindOfClass:[NSString class]] ? value : nil; }

NSString* InfoFileOf(NSString* plugin) { return [plugin stringByAppendingPathComponent:kInfoFile]; }

// Numbers between dots or commas.
NSArray* Components(NSString* tuple) {
  return [[tuple stringByReplacingOccurrencesOfString:@","
                                           withString:@"."] componentsSeparatedByString:@"."];
}

// The integer that the component at `index` begins with; 0 when there is none. A number that an
// int cannot hold becomes the largest or smallest that it can.
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
  // The scanner stops at its own limits in the same way.
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
  // All of them, so that each logs its own failure.
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
  // An absent text has the mark "at 0", not nowhere, and so passes.
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
