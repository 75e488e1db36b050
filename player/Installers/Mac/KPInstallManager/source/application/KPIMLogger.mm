#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

#include <unistd.h>

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/application/InstallLogFile.h"

namespace {

NSString* const kTimeStampPattern = @"yyyy-MM-dd HH:mm:ss Z";
NSString* const kTimeStampLocale = @"en_US_POSIX";
NSString* const kLineFormat = @"%@ %@%@%@\n";

NSString* const kBuildFlavour = @"PPAPI";
NSString* const kSessionStartFormat = @"%@ %d.%d.%d.%d ---------- log start ----------";
NSString* const kSessionEndFormat = @"%@ %d.%d.%d.%d ---------- log end ----------";

NSString* const kAssertionFailedFormat = @"ASSERTION FAILED: %@";
NSString* const kUnknownReason = @"(unknown reason)";

// Returns the current time. The locale is fixed, so that a log looks the same on every machine:
// ASCII digits and the Gregorian calendar, whatever the user prefers.
NSString* TimeStamp() {
  NSLocale* locale = [[NSLocale alloc] initWithLocaleIdentifier:kTimeStampLocale];
  NSDateFormatter* formatter = [[NSDateFormatter alloc] init];
  [formatter setLocale:locale];
  [formatter setDateFormat:kTimeStampPattern];
  NSString* timeStamp = [formatter stringFromDate:[NSDate date]];
  [formatter release];
  [locale release];
  return timeStamp;
}

NSString* TagForLevel(unsigned int level) {
  switch (level) {
    case kLogLevelError:
      return @"[E] ";
    case kLogLevelWarning:
      return @"[W] ";
    case kLogLevelInformation:
      return @"[I] ";
    default:
      return @"";
  }
}

NSString* SessionStamp(NSString* format) {
  return [NSString stringWithFormat:format, kBuildFlavour, KP_VERSION_MAJOR, KP_VERSION_MINOR,
                                    KP_VERSION_BUGFIX, KP_VERSION_BUILD];
}

}  // namespace

@implementation KP_DECOMP_KPIMLogger

- (id)init {
  [self autorelease];
  return nil;
}

- (id)initWithPath:(NSString*)path {
  self = [super init];
  if (self == nil) {
    // Untested: NSObject's init never returns nil.
    return nil;
  }

  // Initializes the class before the log is opened: the class may need a descriptor, and the log
  // could take the last one.
  (void)[NSFileHandle class];
  const int file = OpenInstallLogFile(path);
  if (file < 0) {
    [self autorelease];
    return nil;
  }
  mLogFH = [[NSFileHandle alloc] initWithFileDescriptor:file closeOnDealloc:YES];
  if (mLogFH == nil) {
    // Untested: it takes a failed allocation.
    close(file);
    [self autorelease];
    return nil;
  }
  @try {
    [mLogFH seekToEndOfFile];
  } @catch (NSException*) {
    // Each write seeks again.
  }

  mLoggingLevel = kLogLevelError;
  mPrefix = @"";
  return self;
}

- (void)dealloc {
  [mLogFH closeFile];
  [mLogFH release];
  [mPrefix release];
  [super dealloc];
}

- (void)setLoggingLevel:(unsigned int)level {
  mLoggingLevel = level;
}

- (void)setPrefix:(NSString*)prefix {
  [prefix retain];
  [mPrefix release];
  mPrefix = prefix;
}

- (void)stampNewSessionStart {
  [self logTimeStampedString:SessionStamp(kSessionStartFormat)
            withLoggingLevel:kLogLevelInformation];
}

- (void)stampCurrentSessionEnd {
  [self logTimeStampedString:SessionStamp(kSessionEndFormat) withLoggingLevel:kLogLevelInformation];
}

- (void)logTimeStampedString:(NSString*)message withLoggingLevel:(unsigned int)level {
  if (mLoggingLevel < level) {
    return;
  }
  NSString* line =
      [NSString stringWithFormat:kLineFormat, TimeStamp(), TagForLevel(level), mPrefix, message];
  [self logString:line withLoggingLevel:level];
}

- (void)logString:(NSString*)text withLoggingLevel:(unsigned int)level {
  (void)level;
  NSData* data = [text dataUsingEncoding:NSUTF8StringEncoding];
  @try {
    [mLogFH seekToEndOfFile];
    [mLogFH writeData:data];
    [mLogFH synchronizeFile];
  } @catch (NSException*) {
    // A handle raises an exception when the disk is full. The installation continues without this
    // line.
  }
}

- (bool)assert:(bool)condition message:(NSString*)message {
  if (condition) {
    return true;
  }
  NSString* reason = message != nil ? message : kUnknownReason;
  [self logTimeStampedString:[NSString stringWithFormat:kAssertionFailedFormat, reason]
            withLoggingLevel:kLogLevelWarning];
  return false;
}

@end
