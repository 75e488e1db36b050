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

// Returns `value` with at most six significant digits, and with a dot in every locale.
std::string Number(float value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << value;
  return text.str();
}

// A number that is too large for a float is read as infinity, which JSON cannot express.
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

// Runs the run loop until the request of `manager` has ended or `timeLimit` seconds have passed.
// Returns whether it has ended.
bool WaitForAnswer(KPIMVersionManager* manager, int timeLimit) {
  const StageLine stage("fetching the version description");
  // Not a date: the limit does not change when the clock is set.
  NSProcessInfo* process = [NSProcessInfo processInfo];
  const NSTimeInterval end = [process systemUptime] + timeLimit;
  while ([manager downloadState] == kDownloadStateStarted) {
    const NSTimeInterval rest = end - [process systemUptime];
    if (rest <= 0) {
      return false;
    }
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode
                             beforeDate:[NSDate dateWithTimeIntervalSinceNow:rest]];
    [pool release];
  }
  return true;
}

// Returns the address of the request, or the name of the command when there is none.
std::string RequestAddress(KPIMVersionManager* manager) {
  NSString* address = [[manager address] absoluteString];
  // Untested: the options are checked, so that they always make an address.
  return address != nil ? UTF8(address) : kCommand;
}

// Returns which parts of a version description the answer lacks; empty when it is complete.
std::string MissingParts(KPIMVersionManager* manager) {
  const bool hasVersion = [manager XMLVersionString] != nil;
  const bool hasMessage = [manager HTMLDisplayString] != nil;
  if (!hasVersion && !hasMessage) {
    return "a version and a message";
  }
  return !hasVersion ? "a version" : !hasMessage ? "a message" : "";
}

bool IsSuccess(int status) { return status >= 200 && status < 300; }

// Reports why the request has failed and returns true; returns false when it has a description.
bool ReportFailure(KPIMVersionManager* manager) {
  const std::string asked = RequestAddress(manager);
  const int status = [manager statusCode];
  const std::string answer = "HTTP status " + std::to_string(status);
  if ([manager downloadState] != kDownloadStateCompleted) {
    NSString* failure = [manager failure];
    // Untested: a request that fails without a reason.
    ReportError(asked, (status != 0 ? answer + ", then: " : "") +
                           (failure != nil ? UTF8(failure) : "no answer"));
    return true;
  }
  const std::string lacking = MissingParts(manager);
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

// Returns true when the file with the authorities can be read, or none is given; otherwise reports
// an error and returns false.
bool CheckAuthorities(const LatestOptions& options) {
  if (!options.authorities) {
    return true;
  }
  // Another name would become nil, which means the system's authorities.
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
  // The manager and its download retain each other, and exist until the process ends.
  static KPIMVersionManager* const s_manager = [[KPIMVersionManager alloc] init];
  [s_manager sendVersionXMLRequestFor:options.kind == kPepperKind ? kKPIMPlayerKindPepper
                                                                  : kKPIMPlayerKindPlugin
                               locale:FoundationText(options.locale)
                      authoritiesFile:FoundationText(options.authorities)];
  if (!WaitForAnswer(s_manager, options.timeLimit)) {
    const int status = [s_manager statusCode];
    ReportError(RequestAddress(s_manager),
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
