// The one function of SystemConfiguration that the product uses, over logind: sd-login(3).
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __SCDynamicStore* SCDynamicStoreRef;

/// Name of the user at the console, that is of the session in the foreground of "seat0", graphical
/// or text. The caller releases it. For a login screen's session it is "loginwindow", as on
/// macOS; for a user id without a passwd entry, its decimal text.
///
/// Returns NULL, and leaves the ids as they are, when no session is in the foreground, when that
/// session is closing, and when logind does not run. For a user's session also returns NULL when
/// the name service fails (a missing entry is not a failure) and when the user's name is not UTF-8.
/// `store` is ignored. `uid` and `gid` may be NULL; they receive the session's user (of a login
/// screen: the one that it runs as) and that user's primary group, (gid_t)-1 without a passwd
/// entry.
CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid);

#ifdef __cplusplus
}
#endif
