// No cookies: none are kept or sent.
#import <Foundation/Foundation.h>

#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

/// nil. GNUstep's storage makes folders in the user's home and starts a notification daemon with
/// the first connection, as root too.
id SharedHTTPCookieStorage(id /*self*/, SEL /*selector*/) { return nil; }

const MethodReplacement s_storage('+', "NSHTTPCookieStorage", "sharedHTTPCookieStorage",
                                  SharedHTTPCookieStorage);

}  // namespace
