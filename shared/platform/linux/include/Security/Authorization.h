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

/// What a caller has been authorized for. Created by AuthorizationCreate, released by
/// AuthorizationFree.
typedef const struct AuthorizationOpaqueRef* AuthorizationRef;

typedef uint32_t AuthorizationFlags;
enum {
  kAuthorizationFlagDefaults = 0,
  /// The user may be asked for a password.
  kAuthorizationFlagInteractionAllowed = 1 << 0,
  /// Ignored here: rights that are named are always checked.
  kAuthorizationFlagExtendRights = 1 << 1,
  /// The rights will be used later. Ignored here.
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

/// Authorizes the calling process. Whatever `rights` names, polkit is asked for the action
/// "org.freedesktop.systemd1.manage-units", the one that a job needs here; without rights, and for
/// the superuser, it is not asked. The user is asked only with
/// kAuthorizationFlagInteractionAllowed. `environment` is ignored. On success `*authorization` is
/// the caller's, otherwise it is NULL.
///
/// Returns errAuthorizationDenied when polkit refuses, errAuthorizationCanceled when the user
/// closed its dialog, errAuthorizationInteractionNotAllowed when the user would have had to be
/// asked, errAuthorizationInternal when polkit cannot be reached.
OSStatus AuthorizationCreate(const AuthorizationRights* rights,
                             const AuthorizationEnvironment* environment, AuthorizationFlags flags,
                             AuthorizationRef* authorization);

/// Releases `authorization`. `flags` are ignored: how long the rights last is polkit's policy.
/// Returns errAuthorizationInvalidRef for NULL.
OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags);

/// Starts the tool at `pathToTool` as the superuser, without a shell, in the caller's working
/// directory, and does not wait for it. `arguments`, which end with a null pointer, follow its
/// path. `options` must be kAuthorizationFlagDefaults. The tool's standard input is empty and its
/// standard error the caller's; a stream that the caller has closed is /dev/null. On success
/// `*communicationsPipe`, which the caller closes, reads the tool's standard output; if
/// `communicationsPipe` is NULL, the tool shares the caller's standard output.
///
/// Started by the superuser, the tool gets only the environment variables that EnvironmentFilter.h
/// trusts. For other users it is started through pkexec(1), which asks polkit and gives the tool
/// its real path and an environment of pkexec's own. If `authorization` does not allow asking the
/// user, pkexec is started only when polkit need not ask.
///
/// Returns errAuthorizationToolExecuteFailure when the tool cannot be executed,
/// errAuthorizationDenied or errAuthorizationCanceled when pkexec did not become the tool, and
/// errAuthorizationToolEnvironmentError for an ordinary user from whom /proc hides the processes of
/// others. If the caller ignores SIGCHLD, a tool that ends at once may be reported as denied.
OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char* pathToTool,
                                            AuthorizationFlags options, char* const* arguments,
                                            FILE** communicationsPipe);

#ifdef __cplusplus
}
#endif
