// The part of macOS's Authorization Services that the product uses, over polkit: polkit(8).
// Values are macOS's.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t OSStatus;

/// What a caller has been authorized for. Made by AuthorizationCreate, given up with
/// AuthorizationFree.
typedef const struct AuthorizationOpaqueRef* AuthorizationRef;

typedef uint32_t AuthorizationFlags;
enum {
  kAuthorizationFlagDefaults = 0,
  /// The user may be asked for a password.
  kAuthorizationFlagInteractionAllowed = 1 << 0,
  /// The rights are wanted, not only the object.
  kAuthorizationFlagExtendRights = 1 << 1,
  /// The rights will be used later; here that is no different.
  kAuthorizationFlagPreAuthorize = 1 << 4
};

enum {
  errAuthorizationSuccess = 0,
  errAuthorizationInvalidRef = -60002,
  errAuthorizationDenied = -60005,
  errAuthorizationCanceled = -60006,
  errAuthorizationInteractionNotAllowed = -60007,
  errAuthorizationInternal = -60008,
  errAuthorizationInvalidFlags = -60011,
  errAuthorizationToolExecuteFailure = -60031,
  errAuthorizationToolEnvironmentError = -60032
};

typedef const char* AuthorizationString;

typedef struct {
  AuthorizationString name;
  size_t valueLength;
  void* value;
  uint32_t flags;
} AuthorizationItem;

typedef struct {
  uint32_t count;
  AuthorizationItem* items;
} AuthorizationItemSet;

typedef AuthorizationItemSet AuthorizationRights;
typedef AuthorizationItemSet AuthorizationEnvironment;

/// Authorizes the calling process, by polkit's action "org.freedesktop.systemd1.manage-units" for
/// whatever `rights` names, since that is what a job needs here. The superuser is authorized. The
/// user is asked only with kAuthorizationFlagInteractionAllowed. `environment` is ignored. On
/// success `*authorization` is the caller's, else NULL. errAuthorizationDenied when polkit refuses,
/// errAuthorizationCanceled when the user closed its dialog, errAuthorizationInteractionNotAllowed
/// when the user would have had to be asked, errAuthorizationInternal when polkit cannot be asked.
OSStatus AuthorizationCreate(const AuthorizationRights* rights,
                             const AuthorizationEnvironment* environment, AuthorizationFlags flags,
                             AuthorizationRef* authorization);

/// Releases `authorization`. `flags` are ignored: polkit keeps the rights as its policy says.
OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags);

/// Starts the tool at `pathToTool` as the superuser with the zero-terminated `arguments` after its
/// path, without a shell, in the same folder, and does not wait for it. Its standard input is
/// empty, its standard error the caller's; /dev/null takes the place of a stream that is closed.
/// From a superuser the tool gets only the environment variables that EnvironmentFilter.h trusts.
/// For other users polkit's pkexec(1) decides, which gives the tool its real path and an
/// environment of pkexec's own; where `authorization` does not allow to ask the user, it is only
/// tried when polkit need not. `options` must be kAuthorizationFlagDefaults. On success
/// `*communicationsPipe`, which the caller closes, reads what the tool writes to its standard
/// output; when the pointer is NULL, the tool shares the caller's standard output.
/// errAuthorizationToolExecuteFailure when there is no such program, errAuthorizationDenied or
/// errAuthorizationCanceled when pkexec did not become the tool,
/// errAuthorizationToolEnvironmentError for an ordinary user from whom /proc hides the processes of
/// others. A caller that ignores SIGCHLD may be refused a tool that ended at once.
OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char* pathToTool,
                                            AuthorizationFlags options, char* const* arguments,
                                            FILE** communicationsPipe);

#ifdef __cplusplus
}
#endif
