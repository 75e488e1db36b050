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
/// that is the local time, a tag for the level, the logger's prefix and the message, in UTF-8.
///
/// Each line is written behind whatever the file's last byte is at that moment and flushed to
/// the disk before the call returns, so several loggers, also of several processes, may share a
/// file. A line that cannot be written, on a full disk for instance, is lost in silence.
///
/// A logger is used from one thread at a time.
@interface KP_DECOMP_KPIMLogger : NSObject {
 @private
  NSFileHandle* mLogFH;
  unsigned int mLoggingLevel;
  NSString* mPrefix;
}

/// Gives no object: a logger needs a path.
- (id)init;

/// A logger on the file at `path`, at level 1 and with an empty prefix. The file is opened, or
/// created, as OpenInstallLogFile describes: with the console user's rights, where these do not
/// suffice with root's, and only as a regular file with one name. A missing folder is not created;
/// what the file holds is kept.
///
/// Returns nil when the file cannot be opened. Callers keep the absent logger: messages to it do
/// nothing.
- (id)initWithPath:(NSString*)path;

/// Sets the highest level that is written; 0 silences the logger.
- (void)setLoggingLevel:(unsigned int)level;

/// Sets the text between tag and message, which it retains.
- (void)setPrefix:(NSString*)prefix;

/// Logs the build flavour, the product version and "log start" at level 3.
- (void)stampNewSessionStart;

/// Logs the build flavour, the product version and "log end" at level 3.
- (void)stampCurrentSessionEnd;

/// Writes `message` as one line if `level` is not above the logger's.
- (void)logTimeStampedString:(NSString*)message withLoggingLevel:(unsigned int)level;

/// Writes `text` as it stands: nothing is added, not even a newline. The level is ignored,
/// because the decorated path has filtered already.
- (void)logString:(NSString*)text withLoggingLevel:(unsigned int)level;

/// Returns `condition`. One that does not hold is logged with `message`, which may be absent,
/// at level 2.
- (bool)assert:(bool)condition message:(NSString*)message;

@end

/// The name by which the sources call the class. It is registered under the longer one, which
/// keeps it apart from the installer's other tools when they share a process.
@compatibility_alias KPIMLogger KP_DECOMP_KPIMLogger;
