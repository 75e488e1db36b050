// What is behind an AuthorizationRef.
#pragma once

#include <Security/Authorization.h>

struct AuthorizationObject {
  /// Whether the user may be asked for a password.
  bool mayInteract;
};

/// Null for NULL.
inline AuthorizationObject* ObjectOf(AuthorizationRef authorization) {
  return reinterpret_cast<AuthorizationObject*>(
      const_cast<struct AuthorizationOpaqueRef*>(authorization));
}
