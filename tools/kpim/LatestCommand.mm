// kpim latest: the vendor's current version description.
#import <Foundation/Foundation.h>

#include <cmath>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMVersionManager.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/FoundationText.h"
#include "tools/kpim/JSON.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/StageLine.h"
#include "tools/kpim/Text.h"

namespace {

NSString* const kErrorMark = @"ERROR: ";

/// What went wrong, in the order in which it was logged.
std::vector<std::string> s_errors;

}  // namespace

/// Passes everything on to the update services' log, and keeps the errors for kpim to report.
@interface KPErrorCollector : KPIMLogger
@end

@implementation KPErrorCollector

/// Needs no file, unlike its superclass: it writes nothing by itself.
- (id)init {
  return self;
}

- (void)logTimeStampedString:(NSString*)message withLoggingLevel:(unsigned int)level {
  [[KPIMVersionManager _logger] logTimeStampedString:message withLoggingLevel:level];
  if (level == kLogLevelError) {
    NSString* reason =
        // Untested: every error has the mark.
        [message hasPrefix:kErrorMark] ? [message substringFromIndex:[kErrorMark length]] : message;
    s_errors.push_back(kpim::UTF8(reason));
  }
}

@end

/// A client whose errors kpim hears of.
@interface KPReportingVersionManager : KPIMVersionManager
@end

@implementation KPReportingVersionManager

+ (KPIMLogger*)_logger {
  static KPIMLogger* s_collector = nil;
  if (s_collector == nil) {
    s_collector = [[KPErrorCollector alloc] init];
  }
  return s_collector;
}

@end

namespace kpim {

namespace {

constexpr char kCommand[] = "latest";

/// With six significant digits at most, and a dot in every locale.
std::string Number(float value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << value;
  return text.str();
}

/// JSON has no infinity, which is what a number too large for a float is read as.
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

/// Lets the request of `manager` go on until it has ended or `timeLimit` seconds are over. Returns
/// whether it has ended.
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

/// Whether an answer has come with a version and a message in it.
bool HasAnswer(KPIMVersionManager* manager) {
  return [manager downloadState] == kDownloadStateCompleted && [manager XMLVersionString] != nil &&
         [manager HTMLDisplayString] != nil;
}

int Fetch(const LatestOptions& options) {
  // It and its download retain each other, and live as long as the process.
  static KPIMVersionManager* const s_manager = [[KPReportingVersionManager alloc] init];
  [s_manager sendVersionXMLRequestFor:options.kind == kPepperKind ? kKPIMPlayerKindPepper
                                                                  : kKPIMPlayerKindPlugin];
  if (!WaitForAnswer(s_manager, options.timeLimit)) {
    ReportError(kCommand,
                "no complete answer within " +
                    Counted(static_cast<unsigned long>(options.timeLimit), "second", "seconds"));
    return kExitFailed;
  }
  if (!s_errors.empty()) {
    for (const std::string& error : s_errors) {
      ReportError(kCommand, error);
    }
    return kExitFailed;
  }
  if (!HasAnswer(s_manager)) {
    // Nobody has logged why.
    ReportError(kCommand, "no usable version description");
    return kExitFailed;
  }
  (options.json ? PrintJSON : PrintText)(s_manager);
  return kExitOK;
}

}  // namespace

int Latest(const LatestOptions& options) {
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
