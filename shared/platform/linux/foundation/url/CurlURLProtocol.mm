#import "shared/platform/linux/foundation/url/CurlURLProtocol.h"

#include <cstdio>
#include <string_view>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#include "shared/platform/linux/foundation/url/CurlLibrary.h"
#include "shared/platform/linux/foundation/url/Poller.h"
#import "shared/platform/linux/foundation/url/Response.h"
#import "shared/platform/linux/foundation/url/TransferOptions.h"
#import "shared/platform/linux/foundation/url/URLErrors.h"
#import "shared/platform/linux/foundation/url/URLRedirects.h"

@interface CurlURLProtocol (Callbacks)
- (BOOL)receiveHeader:(std::string_view)line;
- (BOOL)receiveBody:(std::string_view)bytes;
@end

namespace {

/// Header lines of a reply, those of interim replies and the trailers included. libcurl limits each
/// line, but not in every release their sum.
constexpr size_t kMostHeadBytes = size_t{1024} * 1024;

constexpr long kFirstFinalStatus = 200;  // Smaller ones are interim replies.

int SocketCallback(CURL*, curl_socket_t socket, int what, void* poller, void*) {
  static_cast<Poller*>(poller)->Watch(socket, what);
  return 0;
}

int TimerCallback(CURLM*, long milliseconds, void* poller) {
  static_cast<Poller*>(poller)->SetWakeTimer(milliseconds);
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

/// The poller's descriptor in the form of the run loop.
void* RunLoopEvent(const Poller& poller) {
  const auto event = static_cast<intptr_t>(poller.Descriptor());
  return reinterpret_cast<void*>(event);  // NOLINT(performance-no-int-to-ptr)
}

void (*s_initialize)(id, SEL);

/// Foundation registers its own protocols here. The one registered last is asked first.
void InitializeURLProtocol(id self, SEL selector) {
  s_initialize(self, selector);
  if (self == [NSURLProtocol class]) {  // Also called for subclasses, in the midst of the above.
    [NSURLProtocol registerClass:[CurlURLProtocol class]];
  }
}

const MethodReplacement s_registration('+', "NSURLProtocol", "initialize", InitializeURLProtocol,
                                       &s_initialize);

}  // namespace

@implementation CurlURLProtocol

+ (BOOL)canInitWithRequest:(NSURLRequest*)request {
  NSString* scheme = [[request URL] scheme];
  return scheme == nil || IsWebScheme(scheme);
}

+ (NSURLRequest*)canonicalRequestForRequest:(NSURLRequest*)request {
  return request;
}

- (void)dealloc {
  [self tearDown];
  [_body release];
  [super dealloc];
}

#pragma mark Starting and stopping

- (void)startLoading {
  if (_runLoop != nil || _stopped) {
    return;
  }
  _runLoop = [[NSRunLoop currentRunLoop] retain];
  _poller = new Poller;
  if (!_poller->IsOpen()) {
    [self endWithErrorCode:NSURLErrorUnknown reason:"No descriptors are left"];
    [self performSelector:@selector(deliver)
               withObject:nil
               afterDelay:0
                  inModes:[NSArray arrayWithObject:NSDefaultRunLoopMode]];
    return;
  }
  [_runLoop addEvent:RunLoopEvent(*_poller)
                type:ET_RDESC
             watcher:self
             forMode:NSDefaultRunLoopMode];
  [self restartIdleTimer];
  if (![self startTransfer]) {
    _poller->SetWakeTimer(0);  // The client is called from the run loop, never from in here.
  }
}

- (void)stopLoading {
  _stopped = YES;
  [self tearDown];
}

/// Ends the transfer and releases everything. Not to be called from inside of libcurl.
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
  if (_poller != nullptr) {
    [_runLoop removeEvent:RunLoopEvent(*_poller)
                     type:ET_RDESC
                  forMode:NSDefaultRunLoopMode
                      all:YES];
    delete _poller;
    _poller = nullptr;
  }
  [_runLoop release];
  _runLoop = nil;
}

/// Starts to send the request. NO when it cannot be sent; the outcome then says why.
- (BOOL)startTransfer {
  const char* reason = nullptr;
  const NSInteger errorCode = CheckRequest([self request], &reason);
  if (errorCode != 0) {
    return [self endWithErrorCode:errorCode reason:reason];
  }
  if (!Curl().failure.empty()) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:Curl().failure.c_str()];
  }
  _multi = Curl().multi_init();
  _transfer = Curl().easy_init();
  if (_multi == nullptr || _transfer == nullptr) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:"Out of memory"];
  }
  [self setCallbacks];
  SetTransferOptions(_transfer, [self request]);
  if (Curl().multi_add_handle(_multi, _transfer) != CURLM_OK) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:"Out of memory"];
  }
  return YES;
}

- (void)setCallbacks {
  Curl().multi_setopt(_multi, CURLMOPT_SOCKETFUNCTION, SocketCallback);
  Curl().multi_setopt(_multi, CURLMOPT_SOCKETDATA, _poller);
  Curl().multi_setopt(_multi, CURLMOPT_TIMERFUNCTION, TimerCallback);
  Curl().multi_setopt(_multi, CURLMOPT_TIMERDATA, _poller);
  Curl().easy_setopt(_transfer, CURLOPT_HEADERFUNCTION, HeaderCallback);
  Curl().easy_setopt(_transfer, CURLOPT_HEADERDATA, self);
  Curl().easy_setopt(_transfer, CURLOPT_WRITEFUNCTION, BodyCallback);
  Curl().easy_setopt(_transfer, CURLOPT_WRITEDATA, self);
  Curl().easy_setopt(_transfer, CURLOPT_ERRORBUFFER, _reason);
}

- (void)restartIdleTimer {
  _poller->SetIdleTimer(TimeoutOf([self request]));
}

#pragma mark Called by libcurl

// These two return NO to end the transfer. Nothing may be raised through libcurl.

- (BOOL)receiveHeader:(std::string_view)line {
  _heard = YES;
  _headSize += line.size();
  if (line == "\r\n" || line == "\n") {  // The end of a head, or of the trailers.
    long status = 0;
    Curl().easy_getinfo(_transfer, CURLINFO_RESPONSE_CODE, &status);
    _headComplete = status >= kFirstFinalStatus;
  }
  return _headSize <= kMostHeadBytes;
}

- (BOOL)receiveBody:(std::string_view)bytes {
  _heard = YES;
  @try {
    if (_body == nil) {
      _body = [[NSMutableData alloc] initWithCapacity:bytes.size()];
    }
    [_body appendBytes:bytes.data() length:bytes.size()];
  } @catch (NSException*) {  // Memory is exhausted.
    return NO;
  }
  return YES;
}

#pragma mark Called by the run loop

- (void)receivedEvent:(void*)data
                 type:(RunLoopEventType)type
                extra:(void*)extra
              forMode:(NSString*)mode {
  [[self retain] autorelease];  // The client may release us.
  [self serveDescriptors];
  [self takeOutcome];
  [self deliver];
}

/// Lets libcurl work on what is ready.
- (void)serveDescriptors {
  _heard = NO;
  const Poller::Activity activity = _poller->Serve(_multi);
  if (_heard || activity.isHeard) {
    [self restartIdleTimer];
  } else if (activity.isIdle) {
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
  if (_headSize > kMostHeadBytes) {
    [self endWithErrorCode:NSURLErrorDataLengthExceedsMaximum
                    reason:"The headers are longer than 1 MiB"];
    return;
  }
  CURLcode result = message->data.result;
  if (result == CURLE_OK && !_headComplete) {
    result = CURLE_GOT_NOTHING;  // libcurl accepts half a head.
  }
  [self endWithErrorCode:result == CURLE_OK ? 0 : URLErrorCodeOfTransfer(result, _transfer)
                  reason:_reason[0] != '\0' ? _reason : Curl().easy_strerror(result)];
}

/// Notes the outcome: `errorCode` of NSURLErrorDomain, 0 for success. Always NO.
- (BOOL)endWithErrorCode:(NSInteger)errorCode reason:(const char*)reason {
  _done = YES;
  _errorCode = errorCode;
  if (reason != _reason) {
    (void)snprintf(_reason, sizeof(_reason), "%s", reason);
  }
  return NO;
}

#pragma mark Calling the client

/// Hands over what arrived, in order. The client may stop the load in every one of these calls.
- (void)deliver {
  if (!_stopped && _headComplete && !_responseDelivered) {
    _responseDelivered = YES;
    [self deliverResponse];
  }
  if (!_stopped && _body != nil) {
    NSData* chunk = [_body autorelease];
    _body = nil;
    [[self client] URLProtocol:self didLoadData:chunk];
  }
  if (!_stopped && _done) {
    [self deliverOutcome];
  }
}

- (void)deliverResponse {
  NSHTTPURLResponse* response = ResponseOf(_transfer, [[self request] URL]);
  NSString* location = [[response allHeaderFields] objectForKey:@"Location"];
  if (IsRedirect([response statusCode]) && [location length] > 0) {
    NSInteger errorCode = 0;
    NSURLRequest* next = RequestAfterRedirect([self request], location, &errorCode);
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

- (void)deliverOutcome {
  NSError* error = _errorCode == 0 ? nil : URLError(_errorCode, _reason, [[self request] URL]);
  [self stopLoading];
  id<NSURLProtocolClient> client = [[[self client] retain] autorelease];
  if (error == nil) {
    [client URLProtocolDidFinishLoading:self];
  } else {
    [client URLProtocol:self didFailWithError:error];
  }
  // A connection and its protocol retain each other until one of them is stopped.
  if ([client isKindOfClass:[NSURLConnection class]]) {
    [static_cast<NSURLConnection*>(client) cancel];
  }
}

@end
