// The object that an AuthorizationRef points to.
#pragma once

#include <Security/Authorization.h>

struct AuthorizationObject {
  /// Whether the user may be asked for a password.
  bool mayInteract;
};

/// Returns the object of `authorization`; null for NULL.
inline AuthorizationObject* ObjectOf(AuthorizationRef authorization) {
  return reinterpret_cast<AuthorizationObject*>(
      const_cast<struct AuthorizationOpaqueRef*>(authorization));
}
