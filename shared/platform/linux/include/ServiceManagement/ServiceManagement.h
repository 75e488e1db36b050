// The part of macOS's ServiceManagement that the product uses, over systemd's transient services.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Authorization.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Jobs that run as the superuser for the whole system. The only domain that is known here.
extern CFStringRef kSMDomainSystemLaunchd;

/// Submits `job`, a dictionary with keys of macOS's launchd.plist(5), which stays registered
/// under its "Label" after its program has ended. A label that is still registered is refused.
/// Without an interactive `auth`, or as the superuser, nobody is asked. Returns whether the job was
/// taken; if not, `*outError`, unless `outError` is NULL, receives the reason, which the caller
/// releases.
Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef job, AuthorizationRef auth,
                    CFErrorRef* outError);

/// Ends the job `jobLabel` and forgets it; with `wait`, returns once it is gone. Returns whether
/// it was removed; if not, the reason is given as by SMJobSubmit.
Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth, Boolean wait,
                    CFErrorRef* outError);

#ifdef __cplusplus
}
#endif
