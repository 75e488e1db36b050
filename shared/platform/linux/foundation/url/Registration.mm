// Makes Foundation load http and https with CurlURLProtocol, without cookies.
#import <Foundation/Foundation.h>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#import "shared/platform/linux/foundation/url/CurlURLProtocol.h"

namespace {

using InitializeMethod = void (*)(id, SEL);
InitializeMethod s_initialize;

/// Foundation registers its own protocols here. The one registered last is asked first.
void InitializeURLProtocol(id self, SEL selector) {
  s_initialize(self, selector);
  if (self == [NSURLProtocol class]) {  // Also called for subclasses, in the midst of the above.
    [NSURLProtocol registerClass:[CurlURLProtocol class]];
  }
}

/// nil: no cookies are kept or sent. GNUstep's storage makes folders in the user's home and starts
/// a notification daemon with the first connection, as root too.
id SharedHTTPCookieStorage(id /*self*/, SEL /*selector*/) { return nil; }

}  // namespace

@interface KPURLLoadingPatches : NSObject
@end

@implementation KPURLLoadingPatches

+ (void)load {
  s_initialize = (InitializeMethod)ReplaceMethod("NSURLProtocol", @selector(initialize),
                                                 (IMP)InitializeURLProtocol, true);
  ReplaceMethod("NSHTTPCookieStorage", @selector(sharedHTTPCookieStorage),
                (IMP)SharedHTTPCookieStorage, true);
}

@end
