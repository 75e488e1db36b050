// http and https for Foundation's URL loading, over libcurl.
#pragma once

#import <Foundation/Foundation.h>

#include <curl/curl.h>

class Poller;

/// Loads http and https URLs for NSURLConnection, in place of GNUstep's own handlers, which verify
/// no certificate and wait forever after a redirect or a dropped connection. Requests without a URL
/// are taken too, to fail as on macOS. Only GET without headers or a body of its own is supported;
/// every other request fails.
///
/// One object serves one request, on the run loop of the thread that started it, in the default
/// mode. The run loop watches one descriptor, so nothing is polled, and every callback ends a
/// -runMode:beforeDate:. The client is never called from inside libcurl, so it may cancel, or
/// release any object, in every callback.
///
/// The client receives, as on macOS:
/// - A redirect (301, 302, 303, 307 or 308 with a Location) goes to
///   URLProtocol:wasRedirectedToRequest:redirectResponse:. A client that follows it starts the next
///   request, and only that request's response reaches the delegate; another client receives the
///   redirect itself as the response. At most 16 redirects are followed, and only to http and
///   https.
/// - The response arrives with its headers, before the body; its expectedContentLength is -1 when
///   the server did not send one. Every HTTP status is a response, not an error.
/// - The body arrives in chunks as the server sends them. No content coding is requested.
/// - The request's time-out is an idle time: it restarts whenever the server sends something. While
///   connecting, from the name's look-up to the end of the TLS handshake, it is the whole time.
/// - Headers and trailers of more than 1 MiB are a failure, on Linux only. A body may have any
///   length, except one that is collected in memory: see SynchronousLoading.mm.
/// - A failure is an NSError of NSURLErrorDomain with a localized description, libcurl's own words
///   as the failure reason, and the failing URL.
///
/// Certificates and host names are verified against the system's trust store alone, or against the
/// file that the program itself has named in the request. The environment and files in the user's
/// home change neither that nor the route (no proxies, no .netrc), because the program runs as root
/// with the environment of its installer. Nothing is cached, and no cookies are kept.
@interface CurlURLProtocol : NSURLProtocol <RunLoopEvents> {
  Poller* _poller;
  NSRunLoop* _runLoop;
  CURLM* _multi;
  CURL* _transfer;
  char _reason[CURL_ERROR_SIZE];

  // What has arrived.
  size_t _headSize;
  BOOL _headComplete;
  NSMutableData* _body;
  NSInteger _errorCode;
  BOOL _done;
  BOOL _heard;

  // What the client has received.
  BOOL _responseDelivered;
  BOOL _stopped;
}
@end
