// kpim check: whether this version may be installed on this machine.
#import <Foundation/Foundation.h>

#include <unistd.h>

#include <string>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMInstallChecks.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/FoundationText.h"
#include "tools/kpim/JSON.h"
#include "tools/kpim/Report.h"

namespace kpim {

namespace {

struct Verdict {
  unsigned int bit;
  const char* name;
  const char* jsonName;
};

constexpr Verdict kVerdicts[] = {
    {kKPIMInstallChecksSystemTooOld, "minimum system", "minimumSystem"},
    {kKPIMInstallChecksDowngrade, "downgrade", "downgrade"},
    {kKPIMInstallChecksChannelSwitch, "channel switch", "channelSwitch"},
};

constexpr char kSystemVersionFile[] = "/System/Library/CoreServices/SystemVersion.plist";
NSString* const kSystemVersionKey = @"ProductVersion";

// Returns a version that `getSystemOSVersion` has packed as text, with dots.
std::string SystemVersion(unsigned int packed) {
  return std::to_string(packed >> 16) + "." + std::to_string(packed >> 8 & 0xFF) + "." +
         std::to_string(packed & 0xFF);
}

// Returns whether the system reports its version; otherwise it counts as 10.0.0.
bool HasSystemVersion() {
  NSString* path = [NSString stringWithUTF8String:kSystemVersionFile];
  id version = [[NSDictionary dictionaryWithContentsOfFile:path] objectForKey:kSystemVersionKey];
  return [version isKindOfClass:[NSString class]];
}

std::string DescribeSystem() {
  const std::string needed = SystemVersion(kKPIMOldestSystem) + " or later is needed";
  if (HasSystemVersion()) {
    return "the system is " + SystemVersion([KPIMCommonUtil getSystemOSVersion]) + ", " + needed;
  }
  const bool exists = access(kSystemVersionFile, F_OK) == 0;
  return std::string(kSystemVersionFile) + (exists ? " has no version" : " is missing") + ", " +
         needed;
}

// Returns why the check `bit` has failed.
std::string ReasonOf(unsigned int bit, NSString* installed, NSString* offered) {
  switch (bit) {
    case kKPIMInstallChecksSystemTooOld:
      return DescribeSystem();
    case kKPIMInstallChecksDowngrade:
      return "the installed " + TextOrNone(installed) + " is newer than " + TextOrNone(offered);
    default:
      return "the installed player comes from another build channel and must be uninstalled "
             "first: " KP_UNINSTALLER_URL;
  }
}

void PrintText(unsigned int result, NSString* installed, NSString* offered) {
  Print("installed: " + TextOrNone(installed) + "\n");
  Print("to be installed: " + TextOrNone(offered) + "\n");
  for (const Verdict& verdict : kVerdicts) {
    const bool passed = (result & verdict.bit) == 0;
    Print(std::string(verdict.name) + ": " +
          (passed ? "passed" : "failed: " + ReasonOf(verdict.bit, installed, offered)) + "\n");
  }
  Print("result: " + std::to_string(result) + "\n");
}

void PrintJSON(unsigned int result, NSString* installed, NSString* offered) {
  JSONObject object;
  JSONObject reasons;
  for (const Verdict& verdict : kVerdicts) {
    const bool passed = (result & verdict.bit) == 0;
    object.AddBool(verdict.jsonName, passed);
    if (!passed) {
      reasons.AddString(verdict.jsonName, ReasonOf(verdict.bit, installed, offered));
    }
  }
  object.AddNumber("result", result)
      .Add("reasons", reasons.Text())
      .Add("installed", JSONOrNull(installed))
      .Add("toBeInstalled", JSONOrNull(offered));
  Print(object.Text() + "\n");
}

}  // namespace

int Check(const CheckOptions& options) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const unsigned int result = [KPIMVersionManager performInstallChecks];
  NSString* installed = [KPIMVersionManager versionOfKorvelPlayerOnSystem];
  NSString* offered = [KPIMVersionManager versionOfKorvelPlayerToBeInstalled];
  if (options.json) {
    PrintJSON(result, installed, offered);
  } else {
    PrintText(result, installed, offered);
  }
  [pool release];
  return result == kKPIMInstallChecksPassed ? kExitOK : kExitFailed;
}

}  // namespace kpim
