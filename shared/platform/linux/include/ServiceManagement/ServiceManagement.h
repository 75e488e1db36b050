// The part of macOS's ServiceManagement that the product uses, over systemd's transient services.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Authorization.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Jobs that run as the superuser for the whole system. The only domain that is known here.
extern CFStringRef kSMDomainSystemLaunchd;

/// Submits `job`, a dictionary with keys of macOS's launchd.plist(5), which stays registered under
/// its "Label" after its program has ended. "Label", "ProgramArguments" and "RunAtLoad", which must
/// be true, are required; "StandardOutPath" and "KeepAlive", which must be false, are known. A
/// label that is still registered is refused. The user may be asked only with an interactive
/// `auth`, and never as the superuser. Returns whether the job was accepted; if not, `*outError`,
/// unless `outError` is NULL, receives an error of POSIX, which the caller releases.
Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef job, AuthorizationRef auth,
                    CFErrorRef* outError);

/// Ends the job `jobLabel` and forgets it. Returns once it is gone, whatever `wait` is: whether it
/// was removed; if not, `*outError` is set as by SMJobSubmit.
Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth, Boolean wait,
                    CFErrorRef* outError);

#ifdef __cplusplus
}
#endif
