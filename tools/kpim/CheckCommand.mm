// kpim check: may this version be installed here.
#import <Foundation/Foundation.h>

#include <memory>
#include <string>

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMVersionManager.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/FoundationText.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr char kFooter[] =
    "Why a check failed is in the install log, KorvelPlayerInstallManager.log in Library/Logs of\n"
    "the home directory, or of / when nobody is logged in.\n"
    "\n"
    "With --json, prints an object with the three verdicts, true for passed; \"result\", the sum\n"
    "of 1, 2 and 4 for those that failed; and the two versions, null where there is none.";

struct CheckOptions {
  bool json = false;
};

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
  Print("{");
  for (const Verdict& verdict : kVerdicts) {
    const bool passed = (result & verdict.bit) == 0;
    Print(JSONString(verdict.jsonName) + ": " + (passed ? "true" : "false") + ", ");
  }
  Print("\"result\": " + std::to_string(result) + ", \"installed\": " + JSONOrNull(installed) +
        ", \"toBeInstalled\": " + JSONOrNull(offered) + "}\n");
}

int Check(const CheckOptions& options) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const unsigned int result = [KPIMVersionManager performInstallChecks];
  NSString* installed = [KPIMVersionManager versionOfKorvelPlayerOnSystem];
  NSString* offered = [KPIMVersionManager versionOfKorvelPlayerToBeInstalled];
  (options.json ? PrintJSON : PrintText)(result, installed, offered);
  [pool release];
  return result == kKPIMInstallChecksPassed ? kExitOK : kExitFailed;
}

}  // namespace

void AddCheckCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* command = app.add_subcommand("check", "Tell whether this version may be installed");
  command->footer(kFooter);
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = Check(*options); });
}

}  // namespace kpim
