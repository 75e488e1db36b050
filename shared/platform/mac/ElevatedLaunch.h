// Running a tool with administrator rights and reading its output.
//
// From OS X 10.7 on the tool is run as a job of the system's launch daemon; on older systems it is
// run directly, with the authorization. The system's version is taken from
// `MacSystemVersion::sCachedSystemVersion`, which is set on first use. A failure is reported by the
// result only, not logged. Not thread-safe: the version is cached without a lock.
//
// `toolPath` and `arguments` (strings, or nil for none) are passed to the tool as UTF-8, without a
// shell. `output` receives the text that the tool prints, an autoreleased string or nil; pass null
// if it is not needed.
#pragma once

#import <Foundation/Foundation.h>

#include <Security/Authorization.h>

/// Asks the user for an authorization and then runs `toolPath` as launchElevatedWithAuthorization()
/// does. Also returns false when the authorization is refused; `*output` is not changed then.
bool launchElevated(NSString* label, NSString* toolPath, NSArray* arguments, NSString** output);

/// Runs `toolPath` as the job `label`, in place of any job of that label. Without `output`, returns
/// true once the job has been submitted, and leaves it registered. With `output`, polls the process
/// table without a pause: for at most 3 seconds until the tool's process appears, then without a
/// limit until isPIDAlive() no longer finds it. Then stores the text that the tool has printed in
/// `*output` (nil if it is not UTF-8), removes the job and returns true.
///
/// Returns false, with nil in `*output`, when `label` is nil, when `toolPath` does not exist, when
/// the output file cannot be created, when the job cannot be described or is refused, and when no
/// process of the tool was seen within 3 seconds, even if the tool ran and ended unseen: the job
/// then stays registered and may still run.
///
/// The output file is created in /tmp, belongs to the calling user, and is never removed.
///
/// Before 10.7 this calls launchElevatedWithAuthorizationOnSnowLeopard() instead.
bool launchElevatedWithAuthorization(AuthorizationRef authorization, NSString* label,
                                     NSString* toolPath, NSArray* arguments, NSString** output);

/// Runs `toolPath` directly and waits until it closes its output. Appends each line to `*output`,
/// read as UTF-8 or, if it is not UTF-8, as ISO Latin-1. Reading stops after 4096 bytes without a
/// line end; they count as a line. Returns true whatever the tool's exit status is; false, with an
/// empty `*output`, when the tool cannot be run.
bool launchElevatedWithAuthorizationOnSnowLeopard(AuthorizationRef authorization,
                                                  NSString* toolPath, NSArray* arguments,
                                                  NSString** output);
