#import "shared/platform/linux/foundation/url/CurlURLProtocol.h"

#include <cstdio>

#include "shared/platform/linux/foundation/url/CurlLibrary.h"
#include "shared/platform/linux/foundation/url/Poller.h"
#import "shared/platform/linux/foundation/url/TransferOptions.h"
#import "shared/platform/linux/foundation/url/URLErrors.h"
#import "shared/platform/linux/foundation/url/URLRedirects.h"

/// What libcurl calls.
@interface CurlURLProtocol (Callbacks)
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

/// The poller's descriptor in the form of the run loop.
void* RunLoopEvent(const Poller& poller) {
  const auto event = static_cast<intptr_t>(poller.Descriptor());
  return reinterpret_cast<void*>(event);  // NOLINT(performance-no-int-to-ptr)
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

- (void)dealloc {
  [self tearDown];
  [_head release];
  [_body release];
  [super dealloc];
}

#pragma mark Starting and stopping

- (void)startLoading {
  if (_runLoop != nil || _stopped) {
    return;
  }
  _runLoop = [[NSRunLoop currentRunLoop] retain];
  _head = [[ReplyHead alloc] init];
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
    _poller->StartWakeTimer(0);  // The client is called from the run loop, never from in here.
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
  if (LoadedCurlLibrary(&reason) == nullptr) {
    return [self endWithErrorCode:NSURLErrorUnknown reason:reason];
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
  Curl().multi_setopt(_multi, CURLMOPT_SOCKETDATA, self);
  Curl().multi_setopt(_multi, CURLMOPT_TIMERFUNCTION, TimerCallback);
  Curl().multi_setopt(_multi, CURLMOPT_TIMERDATA, self);
  Curl().easy_setopt(_transfer, CURLOPT_HEADERFUNCTION, HeaderCallback);
  Curl().easy_setopt(_transfer, CURLOPT_HEADERDATA, self);
  Curl().easy_setopt(_transfer, CURLOPT_WRITEFUNCTION, BodyCallback);
  Curl().easy_setopt(_transfer, CURLOPT_WRITEDATA, self);
  Curl().easy_setopt(_transfer, CURLOPT_ERRORBUFFER, _reason);
}

- (void)restartIdleTimer {
  _poller->StartIdleTimer(TimeoutOf([self request]));
}

#pragma mark Called by libcurl

- (void)watchSocket:(curl_socket_t)socket for:(int)what {
  _poller->Watch(socket, what);
}

- (void)wakeAfterMilliseconds:(long)milliseconds {
  if (milliseconds < 0) {
    _poller->StopWakeTimer();
  } else {
    _poller->StartWakeTimer(static_cast<double>(milliseconds) / 1000);
  }
}

// These two return NO to end the transfer. Nothing may be raised through libcurl.

- (BOOL)receiveHeader:(std::string_view)line {
  _heard = YES;
  return [_head addLine:line status:[self status]];
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
  BOOL idle = NO;
  _heard = NO;
  for (const PollerEvent& event : _poller->TakeReady()) {
    switch (event.kind) {
      case PollerEvent::kIdleTimer:
        idle = YES;
        break;
      case PollerEvent::kWakeTimer:
        [self actOnSocket:CURL_SOCKET_TIMEOUT ready:0];
        break;
      case PollerEvent::kSocket:
        _heard = YES;
        [self actOnSocket:event.socket ready:event.action];
        break;
    }
  }
  if (_heard) {
    [self restartIdleTimer];
  } else if (idle) {
    [self endWithErrorCode:NSURLErrorTimedOut reason:"The server was silent"];
  }
}

- (void)actOnSocket:(curl_socket_t)socket ready:(int)action {
  int running = 0;
  if (_multi != nullptr) {  // Otherwise the request could not be sent.
    Curl().multi_socket_action(_multi, socket, action, &running);
  }
}

/// Notes how the transfer ended, if it did.
- (void)takeOutcome {
  int left = 0;
  const CURLMsg* message = _multi == nullptr ? nullptr : Curl().multi_info_read(_multi, &left);
  if (message == nullptr || _done) {
    return;
  }
  if ([_head isTooLong]) {
    [self endWithErrorCode:NSURLErrorDataLengthExceedsMaximum
                    reason:"The headers are longer than 1 MiB"];
    return;
  }
  CURLcode result = message->data.result;
  if (result == CURLE_OK && ![_head isComplete]) {
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
  if (!_stopped && [_head isComplete] && !_responseDelivered) {
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
  NSHTTPURLResponse* response = [self response];
  NSString* location = [_head field:@"Location"];
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

- (long)status {
  long status = 0;
  Curl().easy_getinfo(_transfer, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

- (NSHTTPURLResponse*)response {
  curl_off_t length = -1;
  Curl().easy_getinfo(_transfer, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  return [_head responseForURL:[[self request] URL] status:[self status] length:length];
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
