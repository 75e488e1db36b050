// The install log: a text file that every stage of an installation appends to.
#pragma once

#import <Foundation/Foundation.h>

/// Severity of a log line; a lower number is more severe. A line of any other level is written
/// without a tag.
enum : unsigned int {
  kLogLevelError = 1,
  kLogLevelWarning = 2,
  kLogLevelInformation = 3,
  /// More detail than information; a logger set to this level writes everything up to it.
  kLogLevelDetail = 4,
};

/// Appends time-stamped lines to one file:
///
///     2026-11-16 07:14:00 +0000 [I] FIN: [finalizer started]
///
/// A line has the local time, a tag for the level, the logger's prefix and the message, in UTF-8.
///
/// Each line is written at the current end of the file and flushed to the disk before the call
/// returns, so several loggers, in one process or in several, may share a file. A line that cannot
/// be written, for instance because the disk is full, is lost without a report.
///
/// A logger is used from one thread at a time.
@interface KP_DECOMP_KPIMLogger : NSObject {
 @private
  NSFileHandle* mLogFH;
  unsigned int mLoggingLevel;
  NSString* mPrefix;
}

/// Returns nil: a logger needs a path.
- (id)init;

/// Makes a logger for the file at `path`, at level 1 and with an empty prefix. The file is opened
/// or created as OpenInstallLogFile describes; its contents are kept.
///
/// Returns nil when the file cannot be opened. Callers need not test for that: messages to nil do
/// nothing.
- (id)initWithPath:(NSString*)path;

/// Sets the highest level that is written; 0 silences the logger.
- (void)setLoggingLevel:(unsigned int)level;

/// Sets the text between tag and message. Retains `prefix`.
- (void)setPrefix:(NSString*)prefix;

/// Logs the build flavour, the product version and "log start" at level 3.
- (void)stampNewSessionStart;

/// Logs the build flavour, the product version and "log end" at level 3.
- (void)stampCurrentSessionEnd;

/// Writes `message` as one line if `level` is not above the logger's.
- (void)logTimeStampedString:(NSString*)message withLoggingLevel:(unsigned int)level;

/// Writes `text` without adding anything, not even a newline. The level is ignored:
/// `logTimeStampedString:withLoggingLevel:` has compared it already.
- (void)logString:(NSString*)text withLoggingLevel:(unsigned int)level;

/// Returns `condition`. If it is false, logs `message`, which may be nil, at level 2.
- (bool)assert:(bool)condition message:(NSString*)message;

@end

/// The name of the class in the sources. The class is registered with the runtime under the longer
/// name, so that it does not collide with a class of another installer tool in the same process.
@compatibility_alias KPIMLogger KP_DECOMP_KPIMLogger;
