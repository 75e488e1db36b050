#pragma once

// For SDKs without the headers of the ServiceManagement framework: declarations of what the
// elevated launch uses, as in Apple's documentation. The framework itself has been part of macOS
// since 10.6. With a complete SDK the build does not use this file.

#include <Availability.h>
#include <CoreFoundation/CoreFoundation.h>
#include <Security/Authorization.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The launchd domain of jobs that run as root for the whole system.
extern CFStringRef kSMDomainSystemLaunchd __OSX_AVAILABLE_STARTING(__MAC_10_6, __IPHONE_NA);

/// Submits a job to launchd.
///
/// @param domain    The domain that the job runs in, such as kSMDomainSystemLaunchd.
/// @param job       The job: a dictionary with the keys of launchd.plist(5).
/// @param auth      An authorization with the right to modify the domain, or NULL.
/// @param outError  Receives the reason of a failure, to be released by the caller; may be NULL.
/// @return whether launchd took the job.
Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef job, AuthorizationRef auth,
                    CFErrorRef* outError) __OSX_AVAILABLE_STARTING(__MAC_10_6, __IPHONE_NA);

/// Removes a job from launchd.
///
/// @param domain    The domain that the job was submitted to.
/// @param jobLabel  The value of the job's "Label" key.
/// @param auth      An authorization with the right to modify the domain, or NULL.
/// @param wait      Whether to return only once the job is gone.
/// @param outError  Receives the reason of a failure, to be released by the caller; may be NULL.
/// @return whether the job was removed.
Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth, Boolean wait,
                    CFErrorRef* outError) __OSX_AVAILABLE_STARTING(__MAC_10_6, __IPHONE_NA);

#ifdef __cplusplus
}
#endif
