// kpim latest: the vendor's current version description.
#import <Foundation/Foundation.h>

#include <errno.h>
#include <sys/stat.h>

#include <cmath>
#include <locale>
#include <optional>
#include <sstream>
#include <string>

#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionManager.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/FoundationText.h"
#include "tools/kpim/InputFile.h"
#include "tools/kpim/JSON.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/StageLine.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr char kCommand[] = "latest";

// With six significant digits at most, and a dot in every locale.
std::string Number(float value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << value;
  return text.str();
}

// JSON has no infinity, which is what a number too large for a float is read as.
std::string JSONNumber(float value) { return std::isfinite(value) ? Number(value) : "null"; }

void PrintText(KPIMVersionManager* manager) {
  Print("version: " + TextOrNone([manager XMLVersionString]) + "\n");
  Print("auto-update mode: " + TextOrNone([manager AutoUpdateModeString]) + "\n");
  Print("dialog size: " + Number([manager dialogWidth]) + " x " + Number([manager dialogHeight]) +
        "\n");
  Print("message: " + TextOrNone([manager HTMLDisplayString]) + "\n");
}

void PrintJSON(KPIMVersionManager* manager) {
  Print(JSONObject()
            .Add("version", JSONOrNull([manager XMLVersionString]))
            .Add("message", JSONOrNull([manager HTMLDisplayString]))
            .Add("autoUpdateMode", JSONOrNull([manager AutoUpdateModeString]))
            .Add("dialogWidth", JSONNumber([manager dialogWidth]))
            .Add("dialogHeight", JSONNumber([manager dialogHeight]))
            .Text() +
        "\n");
}

// Lets the request of `manager` go on until it has ended or `timeLimit` seconds are over. Returns
// whether it has ended.
bool WaitForAnswer(KPIMVersionManager* manager, int timeLimit) {
  const StageLine stage("fetching the version description");
  NSDate* end = [NSDate dateWithTimeIntervalSinceNow:timeLimit];
  while ([manager downloadState] == kDownloadStateStarted) {
    if ([end timeIntervalSinceNow] <= 0) {
      return false;
    }
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:end];
    [pool release];
  }
  return true;
}

// The address that was asked, or the command when there is none.
std::string Asked(KPIMVersionManager* manager) {
  NSString* address = [[manager address] absoluteString];
  return address != nil ? UTF8(address) : kCommand;
}

// What the answer lacks of a version description; empty when nothing.
std::string Lacking(KPIMVersionManager* manager) {
  const bool hasVersion = [manager XMLVersionString] != nil;
  const bool hasMessage = [manager HTMLDisplayString] != nil;
  if (!hasVersion && !hasMessage) {
    return "a version and a message";
  }
  return !hasVersion ? "a version" : !hasMessage ? "a message" : "";
}

bool IsSuccess(int status) { return status >= 200 && status < 300; }

// Says why there is no description. False when there is one.
bool ReportFailure(KPIMVersionManager* manager) {
  const std::string asked = Asked(manager);
  const int status = [manager statusCode];
  const std::string answer = "HTTP status " + std::to_string(status);
  if ([manager downloadState] != kDownloadStateCompleted) {
    NSString* failure = [manager failure];
    ReportError(asked, (status != 0 ? answer + ", then: " : "") +
                           (failure != nil ? UTF8(failure) : "no answer"));
    return true;
  }
  const std::string lacking = Lacking(manager);
  if (!lacking.empty()) {
    ReportError(asked, answer + (IsSuccess(status) ? ", but the answer" : ", and the answer") +
                           " lacks " + lacking);
    return true;
  }
  if (!IsSuccess(status)) {
    ReportWarning(asked, answer + ", with a version description all the same");
  }
  return false;
}

NSString* FoundationText(const std::optional<std::string>& text) {
  return text ? [NSString stringWithUTF8String:text->c_str()] : nil;
}

// False, and reported, unless the file with the authorities can be read.
bool CheckAuthorities(const LatestOptions& options) {
  if (!options.authorities) {
    return true;
  }
  // No other name reaches Foundation, which would fall back on the system's authorities.
  if (!IsUTF8(*options.authorities)) {
    ReportError(*options.authorities, "the name is not UTF-8");
    return false;
  }
  InputFile file;
  int error = file.Open(*options.authorities);
  if (error == 0 && S_ISDIR(file.status().st_mode)) {
    error = EISDIR;
  }
  if (error != 0) {
    ReportSystemError(*options.authorities, error);
  }
  return error == 0;
}

int Fetch(const LatestOptions& options) {
  // It and its download retain each other, and live as long as the process.
  static KPIMVersionManager* const s_manager = [[KPIMVersionManager alloc] init];
  [s_manager sendVersionXMLRequestFor:options.kind == kPepperKind ? kKPIMPlayerKindPepper
                                                                  : kKPIMPlayerKindPlugin
                               locale:FoundationText(options.locale)
                      authoritiesFile:FoundationText(options.authorities)];
  if (!WaitForAnswer(s_manager, options.timeLimit)) {
    const int status = [s_manager statusCode];
    ReportError(Asked(s_manager),
                (status != 0 ? "HTTP status " + std::to_string(status) + ", but " : "") +
                    "no complete answer within " +
                    Counted(static_cast<unsigned long>(options.timeLimit), "second", "seconds"));
    return kExitFailed;
  }
  if (ReportFailure(s_manager)) {
    return kExitFailed;
  }
  if (options.json) {
    PrintJSON(s_manager);
  } else {
    PrintText(s_manager);
  }
  return kExitOK;
}

}  // namespace

int Latest(const LatestOptions& options) {
  if (!CheckAuthorities(options)) {
    return kExitFailed;
  }
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  int status = kExitFailed;
  @try {
    status = Fetch(options);
  } @catch (NSException* exception) {
    ReportError(kCommand, UTF8([exception reason]));
  }
  [pool release];
  return status;
}

}  // namespace kpim
