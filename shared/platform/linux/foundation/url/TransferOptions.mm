#import "shared/platform/linux/foundation/url/TransferOptions.h"

#include <algorithm>

#include "shared/platform/linux/foundation/url/CurlLibrary.h"
#import "shared/platform/linux/foundation/url/URLRedirects.h"

namespace {

/// Debian's trust store, as its ca-certificates package keeps it.
constexpr char kTrustedCertificatesFile[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr char kTrustedCertificatesFolder[] = "/etc/ssl/certs";

constexpr NSTimeInterval kDefaultTimeout = 60;

/// Bytes that libcurl reads at once. In one turn of the run loop it does so a hundred times at
/// most, so this bounds the chunks.
constexpr long kReceiveBufferSize = 16L * 1024;

/// As macOS builds it: program and version, then the HTTP library and its version.
NSString* UserAgent() {
  NSString* version =
      [[NSBundle mainBundle] objectForInfoDictionaryKey:@"CFBundleVersion"] ?: @"(unknown version)";
  return [NSString stringWithFormat:@"%@/%@ libcurl/%s", [[NSProcessInfo processInfo] processName],
                                    version, Curl().version_info(CURLVERSION_NOW)->version];
}

void SetTrustedCertificates(CURL* transfer, NSString* authorities) {
  const bool isOwn = authorities != nil;
  Curl().easy_setopt(transfer, CURLOPT_CAINFO,
                     isOwn ? [authorities UTF8String] : kTrustedCertificatesFile);
  Curl().easy_setopt(transfer, CURLOPT_CAPATH, isOwn ? nullptr : kTrustedCertificatesFolder);
  Curl().easy_setopt(transfer, CURLOPT_SSL_VERIFYPEER, 1L);
  Curl().easy_setopt(transfer, CURLOPT_SSL_VERIFYHOST, 2L);
}

}  // namespace

NSInteger CheckRequest(NSURLRequest* request, const char** reason) {
  NSURL* url = [request URL];
  if (!IsWebScheme([url scheme])) {
    *reason = "The URL names no protocol";
    return NSURLErrorUnsupportedURL;
  }
  if ([[url host] length] == 0) {
    *reason = "The URL names no host";
    return NSURLErrorBadURL;
  }
  if (![[request HTTPMethod] isEqualToString:@"GET"] || [request HTTPBody] != nil ||
      [request HTTPBodyStream] != nil || [[request allHTTPHeaderFields] count] > 0) {
    *reason = "Only GET without headers or a body is supported";
    return NSURLErrorUnknown;
  }
  return 0;
}

NSTimeInterval TimeoutOf(NSURLRequest* request) {
  const NSTimeInterval wanted = [request timeoutInterval];
  return wanted > 0 ? wanted : kDefaultTimeout;
}

void SetTransferOptions(CURL* transfer, NSURLRequest* request) {
  const NSTimeInterval milliseconds = std::min(TimeoutOf(request) * 1000, 1e9);
  Curl().easy_setopt(transfer, CURLOPT_CONNECTTIMEOUT_MS,
                     std::max(static_cast<long>(milliseconds), 1L));
  // Without it, giving up during a name's look-up waits for the resolver's own, longer time-out.
  Curl().easy_setopt(transfer, CURLOPT_QUICK_EXIT, 1L);
  Curl().easy_setopt(transfer, CURLOPT_PROTOCOLS_STR, "http,https");
  Curl().easy_setopt(transfer, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Curl().easy_setopt(transfer, CURLOPT_PATH_AS_IS, 1L);
  Curl().easy_setopt(transfer, CURLOPT_PROXY, "");  // Also ignores the environment's proxies.
  SetTrustedCertificates(transfer, AuthoritiesOf(request));
  Curl().easy_setopt(transfer, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  // A body that is coded nevertheless stays so: its length is that of the coded bytes.
  Curl().easy_setopt(transfer, CURLOPT_ACCEPT_ENCODING, "identity");
  Curl().easy_setopt(transfer, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  Curl().easy_setopt(transfer, CURLOPT_USERAGENT, [UserAgent() UTF8String]);
  Curl().easy_setopt(transfer, CURLOPT_URL, [[[request URL] absoluteString] UTF8String]);
}
