// http and https for Foundation's URL loading, over libcurl.
#import <Foundation/Foundation.h>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#include "shared/platform/linux/foundation/url/CurlLibrary.h"
#import "shared/platform/linux/foundation/url/URLErrors.h"
#import "shared/platform/linux/foundation/url/URLRedirects.h"

namespace {

/// Debian's trust store, as its ca-certificates package keeps it.
constexpr char kTrustedCertificatesFile[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr char kTrustedCertificatesFolder[] = "/etc/ssl/certs";

/// As on macOS.
constexpr NSTimeInterval kDefaultTimeout = 60;

/// Bytes that libcurl reads at once. In one turn of the run loop it does so a hundred times at
/// most, so this bounds the chunks.
constexpr long kReceiveBufferSize = 16L * 1024;

/// Headers of a reply, those of interim replies and the trailers included. libcurl bounds each
/// line, and not in every release their sum.
constexpr size_t kMostHeaderBytes = size_t{1024} * 1024;

constexpr int kMostReadyDescriptors = 8;

/// Keeps libcurl from asking for leave before it sends a body, which costs a round trip.
NSString* const kNoExpectation = @"Expect:";

/// Text of an HTTP header, which is UTF-8 or, by its history, Latin-1.
NSString* HeaderText(std::string_view bytes) {
  NSString* text = [[[NSString alloc] initWithBytes:bytes.data()
                                             length:bytes.size()
                                           encoding:NSUTF8StringEncoding] autorelease];
  return text
             ?: [[[NSString alloc] initWithBytes:bytes.data()
                                          length:bytes.size()
                                        encoding:NSISOLatin1StringEncoding] autorelease];
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t start = text.find_first_not_of(kBlanks);
  return start == std::string_view::npos
             ? std::string_view()
             : text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

/// As macOS builds it: program and version, then the library that speaks.
NSString* UserAgent() {
  NSString* version =
      [[NSBundle mainBundle] objectForInfoDictionaryKey:@"CFBundleVersion"] ?: @"(unknown version)";
  return [NSString stringWithFormat:@"%@/%@ libcurl/%s", [[NSProcessInfo processInfo] processName],
                                    version, Curl().version_info(CURLVERSION_NOW)->version];
}

/// Sets the one-shot timer `timer` to `seconds` from now, at least a nanosecond.
void StartTimer(int timer, NSTimeInterval seconds) {
  itimerspec time = {};
  time.it_value.tv_sec = static_cast<time_t>(seconds);
  time.it_value.tv_nsec = std::max(
      static_cast<long>((seconds - static_cast<NSTimeInterval>(time.it_value.tv_sec)) * 1e9), 1L);
  timerfd_settime(timer, 0, &time, nullptr);
}

void StopTimer(int timer) {
  const itimerspec never = {};
  timerfd_settime(timer, 0, &never, nullptr);
}

/// `descriptor` as the run loop wants it.
void* RunLoopEvent(int descriptor) {
  const auto event = static_cast<intptr_t>(descriptor);
  return reinterpret_cast<void*>(event);  // NOLINT(performance-no-int-to-ptr)
}

BOOL Watch(int poller, int descriptor) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  return epoll_ctl(poller, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace

/// A response that knows lengths beyond 2 GiB, which GNUstep reads from the header as an int.
@interface CurlHTTPURLResponse : NSHTTPURLResponse {
  long long _length;
}
- (id)initWithURL:(NSURL*)url
       statusCode:(NSInteger)status
     headerFields:(NSDictionary*)fields
           length:(long long)length;
@end

@implementation CurlHTTPURLResponse

- (id)initWithURL:(NSURL*)url
       statusCode:(NSInteger)status
     headerFields:(NSDictionary*)fields
           length:(long long)length {
  self = [super initWithURL:url statusCode:status HTTPVersion:@"HTTP/1.1" headerFields:fields];
  if (self != nil) {
    _length = length;
  }
  return self;
}

- (long long)expectedContentLength {
  return _length;
}

@end

/// Loads http and https URLs for NSURLConnection. Registered after Foundation's own, it takes
/// the place of GNUstep's own handlers, which verify no certificate and wait for ever after a
/// redirect or a dropped connection. Requests without a URL are taken too, to fail as on macOS.
///
/// One object serves one request, wholly on the run loop of the thread that started it, in the
/// default mode: one descriptor is watched there, so that nothing is polled and every callback ends
/// a -runMode:beforeDate:. libcurl never calls the client from inside itself; a client may cancel,
/// or release what it likes, in every callback.
///
/// What the client is told, as on macOS:
/// - A redirect (301, 302, 303, 307 or 308 with a Location) goes to
///   URLProtocol:wasRedirectedToRequest:redirectResponse:, which starts the next request; only that
///   one's response reaches the delegate. A client that does not follow gets the redirect itself as
///   the response. At most 16 redirects, and only to http and https.
/// - The response arrives with its headers, before the body; its expectedContentLength is -1 when
///   the server gave none. Every HTTP status is a response, not an error.
/// - The body arrives in chunks as the server sends them. No content coding is asked for.
/// - The request's time-out is an idle time: it runs again whenever the server is heard from. While
///   connecting, from the name's look-up to the end of the TLS handshake, it is the whole time.
/// - Headers and trailers of more than 1 MiB fail, on Linux alone. A body may be of any length: see
///   SynchronousLoading.mm for those that are collected in memory.
/// - A failure is an NSError of NSURLErrorDomain with a localized description, libcurl's own words
///   as the failure reason, and the failing URL.
///
/// Certificates and host names are verified against the system's trust store alone, or against the
/// file that the program itself has named in the request: the environment and files in the user's
/// home change neither that nor the route (no proxies, no .netrc), because
/// the program runs as root with whatever environment its installer had. Nothing is cached, no
/// cookies are kept, and a request body from a stream is refused.
@interface CurlURLProtocol : NSURLProtocol <RunLoopEvents> {
  CURLM* _multi;
  CURL* _transfer;
  curl_slist* _requestHeaders;
  char _reason[CURL_ERROR_SIZE];

  // The run loop watches the poller; the poller watches libcurl's sockets and the two timers.
  int _poller;
  int _wakeTimer;
  int _idleTimer;
  NSRunLoop* _runLoop;

  // What libcurl said and the client has not been told yet.
  NSMutableDictionary* _headers;
  NSMutableData* _body;
  size_t _headerBytes;
  BOOL _headersComplete;
  BOOL _responseTold;
  BOOL _done;
  NSInteger _errorCode;

  BOOL _heard;
  BOOL _stopped;
}
- (void)watchSocket:(curl_socket_t)socket for:(int)what;
- (void)wakeAfterMilliseconds:(long)milliseconds;
- (BOOL)receiveHeader:(std::string_view)line;
- (BOOL)receiveBody:(std::string_view)bytes;
@end

namespace {

int SocketCallback(CURL*, curl_socket_t socket, int what, void* protocol, void*) {
  [static_cast<CurlURLProtocol*>(protocol) watchSocket:socket for:what];
  return 0;
}

int TimerCallback(CURLM*, long milliseconds, void* protocol) {
  [static_cast<CurlURLProtocol*>(protocol) wakeAfterMilliseconds:milliseconds];
  return 0;
}

size_t HeaderCallback(char* bytes, size_t size, size_t count, void* protocol) {
  const std::string_view line(bytes, size * count);
  return [static_cast<CurlURLProtocol*>(protocol) receiveHeader:line] ? line.size() : 0;
}

size_t BodyCallback(char* bytes, size_t size, size_t count, void* protocol) {
  const std::string_view piece(bytes, size * count);
  return [static_cast<CurlURLProtocol*>(protocol) receiveBody:piece] ? piece.size() : 0;
}

}  // namespace

@implementation CurlURLProtocol

+ (BOOL)canInitWithRequest:(NSURLRequest*)request {
  NSString* scheme = [[request URL] scheme];
  return scheme == nil || IsWebScheme(scheme);
}

+ (NSURLRequest*)canonicalRequestForRequest:(NSURLRequest*)request {
  return request;
}

- (id)initWithRequest:(NSURLRequest*)request
       cachedResponse:(NSCachedURLResponse*)cachedResponse
               client:(id<NSURLProtocolClient>)client {
  self = [super initWithRequest:request cachedResponse:cachedResponse client:client];
  if (self != nil) {
    _poller = _wakeTimer = _idleTimer = -1;
  }
  return self;
}

- (void)dealloc {
  [self tearDown];
  [_headers release];
  [_body release];
  [super dealloc];
}

#pragma mark Starting and stopping

- (void)startLoading {
  if (_runLoop != nil || _stopped) {
    return;
  }
  _runLoop = [[NSRunLoop currentRunLoop] retain];
  if (![self openDescriptors]) {
    [self endWithErrorCode:NSURLErrorUnknown reason:"No descriptors are left"];
    [self performSelector:@selector(tellClient)
               withObject:nil
               afterDelay:0
                  inModes:[NSArray arrayWithObject:NSDefaultRunLoopMode]];
    return;
  }
  [_runLoop addEvent:RunLoopEvent(_poller) type:ET_RDESC watcher:self forMode:NSDefaultRunLoopMode];
  [self restartIdleTimer];
  if (![self startTransfer]) {
    StartTimer(_wakeTimer, 0);  // The client is told from the run loop, never from in here.
  }
}

- (void)stopLoading {
  _stopped = YES;
  [self tearDown];
}

- (BOOL)openDescriptors {
  _poller = epoll_create1(EPOLL_CLOEXEC);
  _wakeTimer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  _idleTimer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  return _poller >= 0 && _wakeTimer >= 0 && _idleTimer >= 0 && Watch(_poller, _wakeTimer) &&
         Watch(_poller, _idleTimer);
}

/// Ends the transfer and gives everything back. Not to be called from inside of libcurl.
- (void)tearDown {
  if (_transfer != nullptr) {
    Curl().multi_remove_handle(_multi, _transfer);
    Curl().easy_cleanup(_transfer);
    _transfer = nullptr;
  }
  if (_multi != nullptr) {
    Curl().multi_cleanup(_multi);
    _multi = nullptr;
  }
  if (_requestHeaders != nullptr) {
    Curl().slist_free_all(_requestHeaders);
    _requestHeaders = nullptr;
  }
  [_runLoop removeEvent:RunLoopEvent(_poller) type:ET_RDESC forMode:NSDefaultRunLoopMode all:YES];
  for (int* descriptor : {&_poller, &_wakeTimer, &_idleTimer}) {
    if (*descriptor >= 0) {
      close(*descriptor);
      *descriptor = -1;
    }
  }
  [_runLoop release];
  _runLoop = nil;
}

- (NSTimeInterval)timeout {
  const NSTimeInterval wanted = [[self request] timeoutInterval];
  return wanted > 0 ? wanted : kDefaultTimeout;
}

- (void)restartIdleTimer {
  // A timer further away than this many seconds would never be seen to end.
  constexpr NSTimeInterval kLongest = 1e9;
  StartTimer(_idleTimer, std::min([self timeout], kLongest));
}

#pragma mark The transfer

/// Hands the request to libcurl. NO when it cannot be sent; the outcome then says why.
- (BOOL)startTransfer {
  NSURL* url = [[self request] URL];
  if (!IsWebScheme([url scheme])) {
    return [self endWithErrorCode:NSURLErrorUnsupportedURL reason:"The URL names no protocol"];
  }
  if ([[url host] length] == 0) {
    return [self endWithErrorCode:NSURLErrorBadURL reason:"The URL names no host"];
  }
  if ([[self request] HTTPBodyStream] != nil) {
    return [self endWithErrorCode:NSURLErrorUnknown
                           reason:"A request body from a stream is not supported"];
  }
  const char* reason = nullptr;
  if (LoadedCurlLibrary(&reason) == nullptr) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:reason];
  }
  _multi = Curl().multi_init();
  _transfer = Curl().easy_init();
  if (_multi == nullptr || _transfer == nullptr) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:"Out of memory"];
  }
  Curl().multi_setopt(_multi, CURLMOPT_SOCKETFUNCTION, SocketCallback);
  Curl().multi_setopt(_multi, CURLMOPT_SOCKETDATA, self);
  Curl().multi_setopt(_multi, CURLMOPT_TIMERFUNCTION, TimerCallback);
  Curl().multi_setopt(_multi, CURLMOPT_TIMERDATA, self);

  [self setConnectionOptions];
  if (![self setRequestOptions]) {
    return [self endWithErrorCode:NSURLErrorBadURL reason:"A line break in a request header"];
  }
  Curl().easy_setopt(_transfer, CURLOPT_URL, [[url absoluteString] UTF8String]);
  if (Curl().multi_add_handle(_multi, _transfer) != CURLM_OK) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:"Out of memory"];
  }
  return YES;
}

- (void)setConnectionOptions {
  const NSTimeInterval milliseconds = std::min([self timeout] * 1000, 1e9);
  Curl().easy_setopt(_transfer, CURLOPT_CONNECTTIMEOUT_MS,
                     std::max(static_cast<long>(milliseconds), 1L));
  // Without it, giving up during a name's look-up waits for the resolver's own, longer time-out.
  Curl().easy_setopt(_transfer, CURLOPT_QUICK_EXIT, 1L);
  Curl().easy_setopt(_transfer, CURLOPT_PROTOCOLS_STR, "http,https");
  Curl().easy_setopt(_transfer, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Curl().easy_setopt(_transfer, CURLOPT_PATH_AS_IS, 1L);
  Curl().easy_setopt(_transfer, CURLOPT_PROXY, "");  // Also shuts out the environment's proxies.
  NSString* authorities = AuthoritiesOf([self request]);
  const bool isOwn = authorities != nil;
  Curl().easy_setopt(_transfer, CURLOPT_CAINFO,
                     isOwn ? [authorities UTF8String] : kTrustedCertificatesFile);
  Curl().easy_setopt(_transfer, CURLOPT_CAPATH, isOwn ? nullptr : kTrustedCertificatesFolder);
  Curl().easy_setopt(_transfer, CURLOPT_SSL_VERIFYPEER, 1L);
  Curl().easy_setopt(_transfer, CURLOPT_SSL_VERIFYHOST, 2L);
  Curl().easy_setopt(_transfer, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  Curl().easy_setopt(_transfer, CURLOPT_ERRORBUFFER, _reason);
  Curl().easy_setopt(_transfer, CURLOPT_HEADERFUNCTION, HeaderCallback);
  Curl().easy_setopt(_transfer, CURLOPT_HEADERDATA, self);
  Curl().easy_setopt(_transfer, CURLOPT_WRITEFUNCTION, BodyCallback);
  Curl().easy_setopt(_transfer, CURLOPT_WRITEDATA, self);
}

/// NO when the method or a header would break out of its line.
- (BOOL)setRequestOptions {
  NSURLRequest* request = [self request];
  NSString* method = [request HTTPMethod];
  NSData* body = [request HTTPBody];
  if ([method isEqualToString:@"HEAD"]) {
    Curl().easy_setopt(_transfer, CURLOPT_NOBODY, 1L);
  } else if (body != nil || ![method isEqualToString:@"GET"]) {
    // The body stays with the request, which outlives the transfer.
    Curl().easy_setopt(_transfer, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>([body length]));
    Curl().easy_setopt(_transfer, CURLOPT_POSTFIELDS, [body length] > 0 ? [body bytes] : "");
    Curl().easy_setopt(_transfer, CURLOPT_CUSTOMREQUEST, [method UTF8String]);
  }

  NSMutableArray* lines = [NSMutableArray arrayWithObject:kNoExpectation];
  NSDictionary* fields = [request allHTTPHeaderFields];
  [lines addObjectsFromArray:[CurlURLProtocol headerLinesOfFields:fields]];
  [lines addObjectsFromArray:[CurlURLProtocol
                                 headerLinesOfFields:[CurlURLProtocol usualFieldsBut:fields]]];

  NSCharacterSet* lineBreaks = [NSCharacterSet characterSetWithCharactersInString:@"\r\n"];
  for (NSString* line in [lines arrayByAddingObject:method]) {
    if ([line rangeOfCharacterFromSet:lineBreaks].location != NSNotFound) {
      return NO;
    }
  }
  for (NSString* line in lines) {
    _requestHeaders = Curl().slist_append(_requestHeaders, [line UTF8String]);
  }
  Curl().easy_setopt(_transfer, CURLOPT_HTTPHEADER, _requestHeaders);
  return YES;
}

/// The headers that every request has, without those that `fields` sets itself.
+ (NSDictionary*)usualFieldsBut:(NSDictionary*)fields {
  NSMutableDictionary* usual =
      [NSMutableDictionary dictionaryWithObjectsAndKeys:UserAgent(), @"User-Agent", @"identity",
                                                        @"Accept-Encoding", nil];
  for (NSString* name in fields) {
    for (NSString* usualName in [usual allKeys]) {
      if ([name caseInsensitiveCompare:usualName] == NSOrderedSame) {
        [usual removeObjectForKey:usualName];
      }
    }
  }
  return usual;
}

+ (NSArray*)headerLinesOfFields:(NSDictionary*)fields {
  NSMutableArray* lines = [NSMutableArray array];
  for (NSString* name in fields) {
    NSString* value = [fields objectForKey:name];
    // libcurl takes "Name:" for the wish to leave the header out, "Name;" for an empty one.
    [lines addObject:[value length] > 0 ? [NSString stringWithFormat:@"%@: %@", name, value]
                                        : [name stringByAppendingString:@";"]];
  }
  return lines;
}

#pragma mark Called by libcurl

- (void)watchSocket:(curl_socket_t)socket for:(int)what {
  epoll_event event = {};
  event.data.fd = socket;
  if (what == CURL_POLL_REMOVE) {
    epoll_ctl(_poller, EPOLL_CTL_DEL, socket, &event);
    return;
  }
  event.events =
      ((what & CURL_POLL_IN) != 0 ? EPOLLIN : 0U) | ((what & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0U);
  if (epoll_ctl(_poller, EPOLL_CTL_MOD, socket, &event) != 0) {
    epoll_ctl(_poller, EPOLL_CTL_ADD, socket, &event);
  }
}

- (void)wakeAfterMilliseconds:(long)milliseconds {
  if (milliseconds < 0) {
    StopTimer(_wakeTimer);
  } else {
    StartTimer(_wakeTimer, static_cast<NSTimeInterval>(milliseconds) / 1000);
  }
}

// These two return NO to end the transfer. Nothing may be raised through libcurl.

- (BOOL)receiveHeader:(std::string_view)line {
  _heard = YES;
  _headerBytes += line.size();
  if (_headerBytes > kMostHeaderBytes) {
    return NO;
  }
  @try {
    [self takeHeader:Trimmed(line)];
  } @catch (NSException*) {  // There is no memory.
    return NO;
  }
  return YES;
}

- (BOOL)receiveBody:(std::string_view)bytes {
  _heard = YES;
  @try {
    if (_body == nil) {
      _body = [[NSMutableData alloc] initWithCapacity:bytes.size()];
    }
    [_body appendBytes:bytes.data() length:bytes.size()];
  } @catch (NSException*) {  // There is no memory.
    return NO;
  }
  return YES;
}

- (void)takeHeader:(std::string_view)text {
  if (_headersComplete) {
    return;  // A trailer, after the body.
  }
  if (text.empty()) {
    long status = 0;
    Curl().easy_getinfo(_transfer, CURLINFO_RESPONSE_CODE, &status);
    _headersComplete = status >= 200;  // Smaller ones announce the response proper.
    return;
  }
  const size_t colon = text.find(':');
  if (text.substr(0, 5) == "HTTP/" || colon == std::string_view::npos) {
    // GNUstep looks names up in lower case; its own dictionary for them ignores the case.
    [_headers release];
    _headers = [[NSClassFromString(@"_GSMutableInsensitiveDictionary")
                     ?: [NSMutableDictionary class] alloc] init];
    return;
  }
  NSString* name = HeaderText(Trimmed(text.substr(0, colon)));
  NSString* value = HeaderText(Trimmed(text.substr(colon + 1)));
  NSString* earlier = [_headers objectForKey:name];
  [_headers setObject:earlier == nil ? value : [NSString stringWithFormat:@"%@, %@", earlier, value]
               forKey:name];
}

#pragma mark Called by the run loop

- (void)receivedEvent:(void*)data
                 type:(RunLoopEventType)type
                extra:(void*)extra
              forMode:(NSString*)mode {
  [[self retain] autorelease];  // The client may let go of us.
  [self serveDescriptors];
  [self takeOutcome];
  [self tellClient];
}

/// Lets libcurl work on what is ready.
- (void)serveDescriptors {
  epoll_event ready[kMostReadyDescriptors];
  const int count = epoll_wait(_poller, ready, kMostReadyDescriptors, 0);
  BOOL idle = NO;
  _heard = NO;
  for (int i = 0; i < count; i++) {
    const int descriptor = ready[i].data.fd;
    int running = 0;
    if (descriptor == _idleTimer) {
      idle = YES;
    } else if (_multi == nullptr) {
      StopTimer(_wakeTimer);  // The request could not be sent.
    } else if (descriptor == _wakeTimer) {
      StopTimer(_wakeTimer);
      Curl().multi_socket_action(_multi, CURL_SOCKET_TIMEOUT, 0, &running);
    } else {
      const uint32_t events = ready[i].events;
      const int action = ((events & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
                         ((events & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                         ((events & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0);
      _heard = YES;
      Curl().multi_socket_action(_multi, descriptor, action, &running);
    }
  }
  if (_heard) {
    [self restartIdleTimer];
  } else if (idle) {
    [self endWithErrorCode:NSURLErrorTimedOut reason:"The server was silent"];
  }
}

/// Notes how the transfer ended, if it did.
- (void)takeOutcome {
  int left = 0;
  const CURLMsg* message = _multi == nullptr ? nullptr : Curl().multi_info_read(_multi, &left);
  if (message == nullptr || _done) {
    return;
  }
  if (_headerBytes > kMostHeaderBytes) {
    [self endWithErrorCode:NSURLErrorDataLengthExceedsMaximum
                    reason:"The headers are longer than 1 MiB"];
    return;
  }
  CURLcode result = message->data.result;
  if (result == CURLE_OK && !_headersComplete) {
    result = CURLE_GOT_NOTHING;  // libcurl is content with half a head.
  }
  [self endWithErrorCode:result == CURLE_OK ? 0 : URLErrorCodeOfTransfer(result, _transfer)
                  reason:_reason[0] != '\0' ? _reason : Curl().easy_strerror(result)];
}

/// Notes the outcome: `errorCode` of NSURLErrorDomain, 0 for success. Always NO.
- (BOOL)endWithErrorCode:(NSInteger)errorCode reason:(const char*)reason {
  _done = YES;
  _errorCode = errorCode;
  if (reason != _reason) {
    static_cast<void>(snprintf(_reason, sizeof(_reason), "%s", reason));
  }
  return NO;
}

#pragma mark Telling the client

/// Hands over what arrived, in order. The client may stop the load in every one of these calls.
- (void)tellClient {
  if (!_stopped && _headersComplete && !_responseTold) {
    _responseTold = YES;
    [self tellResponse];
  }
  if (!_stopped && _body != nil) {
    NSData* chunk = [_body autorelease];
    _body = nil;
    [[self client] URLProtocol:self didLoadData:chunk];
  }
  if (!_stopped && _done) {
    [self tellOutcome];
  }
}

- (void)tellResponse {
  NSHTTPURLResponse* response = [self response];
  NSString* location = [_headers objectForKey:@"Location"];
  if (IsRedirect([response statusCode]) && [location length] > 0) {
    NSInteger errorCode = 0;
    NSURLRequest* next =
        RequestAfterRedirect([self request], [response statusCode], location, &errorCode);
    if (next == nil) {
      [self endWithErrorCode:errorCode reason:"The redirect cannot be followed"];
      [_body release];
      _body = nil;
      return;
    }
    [[self client] URLProtocol:self wasRedirectedToRequest:next redirectResponse:response];
  }
  if (!_stopped) {
    [[self client] URLProtocol:self
            didReceiveResponse:response
            cacheStoragePolicy:NSURLCacheStorageNotAllowed];
  }
}

- (NSHTTPURLResponse*)response {
  long status = 0;
  curl_off_t length = -1;
  Curl().easy_getinfo(_transfer, CURLINFO_RESPONSE_CODE, &status);
  Curl().easy_getinfo(_transfer, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  return [[[CurlHTTPURLResponse alloc] initWithURL:[[self request] URL]
                                        statusCode:status
                                      headerFields:_headers
                                            length:length] autorelease];
}

- (void)tellOutcome {
  NSError* error = _errorCode == 0 ? nil : URLError(_errorCode, _reason, [[self request] URL]);
  [self stopLoading];
  id<NSURLProtocolClient> client = [[[self client] retain] autorelease];
  if (error == nil) {
    [client URLProtocolDidFinishLoading:self];
  } else {
    [client URLProtocol:self didFailWithError:error];
  }
  // A connection and its protocol retain each other; nobody else parts them when all is over.
  if ([client isKindOfClass:[NSURLConnection class]]) {
    [static_cast<NSURLConnection*>(client) cancel];
  }
}

@end

namespace {

using InitializeMethod = void (*)(id, SEL);
InitializeMethod s_initialize;

/// Foundation registers its own protocols here. The one registered last is asked first.
void InitializeURLProtocol(id self, SEL selector) {
  s_initialize(self, selector);
  if (self == [NSURLProtocol class]) {  // Called for subclasses too, in the midst of the above.
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
