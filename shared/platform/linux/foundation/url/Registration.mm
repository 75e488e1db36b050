// Makes Foundation load http and https with CurlURLProtocol.
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

}  // namespace

@interface KPURLProtocolRegistration : NSObject
@end

@implementation KPURLProtocolRegistration

+ (void)load {
  s_initialize = (InitializeMethod)ReplaceMethod("NSURLProtocol", @selector(initialize),
                                                 (IMP)InitializeURLProtocol, true);
}

@end
