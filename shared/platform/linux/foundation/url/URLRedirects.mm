#import "shared/platform/linux/foundation/url/URLRedirects.h"

#include <memory>

#include "shared/platform/linux/foundation/url/CurlLibrary.h"

namespace {

/// As on macOS.
constexpr NSInteger kMostRedirects = 16;

/// Property of a request: how many redirects led to it, and the file with its authorities if it has
/// one. GNUstep keeps only the first property that a request is given.
NSString* const kRedirectState = @"KPRedirectState";

/// Property of the first request: the path of the file with its authorities, see KPIMDownload.h.
NSString* const kAuthoritiesProperty = @"KPIMAuthorities";

struct URLDeleter {
  void operator()(CURLU* url) const { Curl().url_cleanup(url); }
};

/// The URL that the Location header `location` means in an answer from `base`. nil, with the reason
/// in `*errorCode`, when it is not a URL of http or https. (GNUstep's own would keep the query of
/// `base`.)
NSURL* RedirectTarget(NSString* location, NSURL* base, NSInteger* errorCode) {
  const std::unique_ptr<CURLU, URLDeleter> url(Curl().url());
  Curl().url_set(url.get(), CURLUPART_URL, [[base absoluteString] UTF8String], 0);
  const CURLUcode result = Curl().url_set(url.get(), CURLUPART_URL, [location UTF8String],
                                          CURLU_URLENCODE | CURLU_ALLOW_SPACE);
  char* text = nullptr;
  NSURL* target = nil;
  if (result == CURLUE_OK && Curl().url_get(url.get(), CURLUPART_URL, &text, 0) == CURLUE_OK) {
    target = [NSURL URLWithString:[NSString stringWithUTF8String:text]];
    Curl().free(text);
  }
  const bool isOther = target != nil && !IsWebScheme([target scheme]);
  *errorCode = isOther || result == CURLUE_UNSUPPORTED_SCHEME
                   ? NSURLErrorUnsupportedURL
                   : NSURLErrorRedirectToNonExistentLocation;
  return isOther ? nil : target;
}

NSArray* RedirectState(NSURLRequest* request) {
  return [NSURLProtocol propertyForKey:kRedirectState inRequest:request];
}

NSInteger RedirectCount(NSURLRequest* request) {
  NSArray* state = RedirectState(request);
  return state != nil ? [[state objectAtIndex:0] integerValue] : 0;
}

NSURLRequest* FollowingRequest(NSURLRequest* request, NSURL* target) {
  NSMutableURLRequest* next = [NSMutableURLRequest requestWithURL:target
                                                      cachePolicy:[request cachePolicy]
                                                  timeoutInterval:[request timeoutInterval]];
  NSMutableArray* state =
      [NSMutableArray arrayWithObject:[NSNumber numberWithInteger:RedirectCount(request) + 1]];
  NSString* authorities = AuthoritiesOf(request);
  if (authorities != nil) {
    [state addObject:authorities];
  }
  [NSURLProtocol setProperty:state forKey:kRedirectState inRequest:next];
  return next;
}

}  // namespace

BOOL IsWebScheme(NSString* scheme) {
  NSString* name = [scheme lowercaseString];
  return [name isEqualToString:@"http"] || [name isEqualToString:@"https"];
}

BOOL IsRedirect(NSInteger status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

NSString* AuthoritiesOf(NSURLRequest* request) {
  NSArray* state = RedirectState(request);
  if (state == nil) {
    return [NSURLProtocol propertyForKey:kAuthoritiesProperty inRequest:request];
  }
  return [state count] > 1 ? [state objectAtIndex:1] : nil;
}

NSURLRequest* RequestAfterRedirect(NSURLRequest* request, NSString* location,
                                   NSInteger* errorCode) {
  if (RedirectCount(request) >= kMostRedirects) {
    *errorCode = NSURLErrorHTTPTooManyRedirects;
    return nil;
  }
  NSURL* target = RedirectTarget(location, [request URL], errorCode);
  return target == nil ? nil : FollowingRequest(request, target);
}
