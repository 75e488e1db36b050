// kpim check: may this version be installed here.
#import <Foundation/Foundation.h>

#include <string>

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMVersionManager.h"
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

void PrintText(unsigned int result, NSString* installed, NSString* offered) {
  Print("installed: " + TextOrNone(installed) + "\n");
  Print("to be installed: " + TextOrNone(offered) + "\n");
  for (const Verdict& verdict : kVerdicts) {
    const bool passed = (result & verdict.bit) == 0;
    Print(std::string(verdict.name) + ": " + (passed ? "passed" : "failed") + "\n");
  }
  Print("result: " + std::to_string(result) + "\n");
}

void PrintJSON(unsigned int result, NSString* installed, NSString* offered) {
  JSONObject object;
  for (const Verdict& verdict : kVerdicts) {
    object.AddBool(verdict.jsonName, (result & verdict.bit) == 0);
  }
  object.AddNumber("result", result)
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
  (options.json ? PrintJSON : PrintText)(result, installed, offered);
  [pool release];
  return result == kKPIMInstallChecksPassed ? kExitOK : kExitFailed;
}

}  // namespace kpim
