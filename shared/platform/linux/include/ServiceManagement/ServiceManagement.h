// The part of macOS's ServiceManagement that the product uses, over systemd's transient services.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Authorization.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The domain of jobs that run as the superuser for the whole system; the only one that is
/// supported here.
extern CFStringRef kSMDomainSystemLaunchd;

/// Submits `job`, a dictionary with keys of macOS's launchd.plist(5). The job stays registered
/// under its "Label" after its program has ended; a label that is still registered is refused.
/// "Label", "ProgramArguments" and "RunAtLoad" (true) are required, "StandardOutPath" and
/// "KeepAlive" (false) are optional, and other keys are refused. polkit may ask the user only if
/// `auth` allows interaction, and never asks the superuser. Returns whether the job was accepted;
/// if not, `*outError`, unless `outError` is NULL, receives an error of NSPOSIXErrorDomain, which
/// the caller releases.
Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef job, AuthorizationRef auth,
                    CFErrorRef* outError);

/// Ends the job `jobLabel`, removes its registration, and returns once it is gone, whatever `wait`
/// is. Returns whether it was removed; if not, `*outError` is set as by SMJobSubmit.
Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth, Boolean wait,
                    CFErrorRef* outError);

#ifdef __cplusplus
}
#endif
