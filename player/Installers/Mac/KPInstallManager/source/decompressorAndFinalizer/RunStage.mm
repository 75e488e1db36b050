#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/RunStage.h"

#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CatchCxxExceptions.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"

namespace {

struct Call {
  void (*function)(void*);
  void* context;
  // The reason of the Objective-C exception that has ended it, or nil.
  NSString* reason;
};

void CatchObjects(void* context) {
  auto* const call = static_cast<Call*>(context);
  @try {
    call->function(call->context);
  } @catch (NSException* exception) {
    call->reason = [NSString stringWithFormat:@"%@", [exception reason]];
  }
}

// Calls `function` with `context`. Returns the reason of the exception that has ended it, or nil.
NSString* ReasonOfFailure(void (*function)(void*), void* context) {
  Call call = {function, context, nil};
  switch (CatchCxxExceptions(CatchObjects, &call)) {
    case CxxException::kNone:
      return call.reason;
    case CxxException::kOutOfMemory:
      return @"not enough memory";
    case CxxException::kOther:
      return @"an exception of an unknown kind";
  }
  return nil;  // Untested: the cases are complete.
}

struct Failure {
  NSString* name;
  NSString* reason;
};

void LogFailure(void* context) {
  const auto* const failure = static_cast<const Failure*>(context);
  NSString* line =
      [NSString stringWithFormat:@"ERROR: %@ failed: %@.", failure->name, failure->reason];
  [g_logger logTimeStampedString:line withLoggingLevel:kLogLevelError];
}

}  // namespace

void RunStageFunction(NSString* name, void (*function)(void*), void* context) {
  Failure failure = {name, ReasonOfFailure(function, context)};
  if (failure.reason != nil) {
    // The cause, for instance a lack of memory, may make logging fail too.
    (void)ReasonOfFailure(LogFailure, &failure);
  }
}
