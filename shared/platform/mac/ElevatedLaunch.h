// Running a tool with administrator rights and reading what it prints.
//
// From OS X 10.7 on the tool is a job of the system's launch daemon, before it is run directly
// through the authorization. The system's version is the one in
// `MacSystemVersion::sCachedSystemVersion`, which is filled on first use. A failure is only told by
// the result: nothing is logged. Not thread-safe: the version is kept without a lock.
//
// `toolPath` and `arguments` (strings, or nil for none) reach the tool as UTF-8 and without a
// shell. `output` is null when nobody wants what the tool prints; otherwise it receives an
// autoreleased string, or nil.
#pragma once

#import <Foundation/Foundation.h>

#include <Security/Authorization.h>

/// Asks the user for an authorization to run `toolPath` and does what
/// launchElevatedWithAuthorization() does. False, too, when the authorization is refused; `*output`
/// is then left as it is.
bool launchElevated(NSString* label, NSString* toolPath, NSArray* arguments, NSString** output);

/// Runs `toolPath` as the job `label`, in place of any job of that label. Without `output`: returns
/// true once the job has been submitted, and leaves it registered. With `output`: waits, without
/// sleeping, until the tool's process has been seen and, however long that takes, isPIDAlive() no
/// longer finds it, puts what it has printed there (nil when that is not UTF-8), removes the job
/// and returns true.
///
/// False, with nil in `*output`, when `toolPath` does not lead to a file, when the job cannot be
/// described or is refused, and when no process of the tool has been seen after 3 seconds: a tool
/// that was quicker than that has run nevertheless. What the tool printed stays in a file of
/// the caller's own in /tmp.
///
/// Before 10.7 it is launchElevatedWithAuthorizationOnSnowLeopard().
bool launchElevatedWithAuthorization(AuthorizationRef authorization, NSString* label,
                                     NSString* toolPath, NSArray* arguments, NSString** output);

/// Runs `toolPath` directly and waits until it closes its output, of which each line is appended to
/// `*output`: as UTF-8, or as ISO Latin-1 a line that is not UTF-8. A line of 4096 bytes without
/// its end is the last, and is no UTF-8 when it ends within a character. True whatever the tool's
/// exit status; false, with an empty `*output`, when the tool cannot be run.
bool launchElevatedWithAuthorizationOnSnowLeopard(AuthorizationRef authorization,
                                                  NSString* toolPath, NSArray* arguments,
                                                  NSString** output);
