#include "tests/unit/UpdateServices/ConnectionRecorder.h"

namespace {

struct Records {
  NSURLRequest* request;
  id delegate;
  id connection;
  NSData* reply;
  int requests;
  int cancelled;
  int connections;
  bool askedForMore;
  bool requestsRaise;
  bool delegatesAreRetained;
} s_records;

void RecordRequest(NSURLRequest* request) {
  [request retain];
  [s_records.request release];
  s_records.request = request;
  ++s_records.requests;
}

}  // namespace

@interface StatusResponse : NSHTTPURLResponse {
  NSInteger _status;
}
- (id)initWithURL:(NSURL*)url status:(NSInteger)status;
@end

@implementation StatusResponse

- (id)initWithURL:(NSURL*)url status:(NSInteger)status {
  self = [super initWithURL:url MIMEType:nil expectedContentLength:-1 textEncodingName:nil];
  _status = status;
  return self;
}

- (NSInteger)statusCode {
  return _status;
}

@end

NSHTTPURLResponse* HTTPResponse(NSURL* url, NSInteger status) {
  return [[[StatusResponse alloc] initWithURL:url status:status] autorelease];
}

@interface RecordedConnection : NSObject {
  id _delegate;
}
- (id)initWithDelegate:(id)delegate;
- (void)cancel;
@end

@implementation RecordedConnection

- (id)initWithDelegate:(id)delegate {
  self = [super init];
  _delegate = [delegate retain];
  ++s_records.connections;
  return self;
}

- (void)dealloc {
  --s_records.connections;
  [_delegate release];
  [super dealloc];
}

- (void)cancel {
  ++s_records.cancelled;
  id delegate = _delegate;
  _delegate = nil;
  [delegate release];
}

@end

namespace {

id Connect(id self, SEL /*selector*/, NSURLRequest* request, id delegate) {
  RecordRequest(request);
  s_records.delegate = delegate;
  [self release];
  s_records.connection =
      [[RecordedConnection alloc] initWithDelegate:s_records.delegatesAreRetained ? delegate : nil];
  return s_records.connection;
}

NSData* Send(id /*self*/, SEL /*selector*/, NSURLRequest* request, NSURLResponse** response,
             NSError** error) {
  RecordRequest(request);
  s_records.askedForMore = response != nullptr || error != nullptr;
  if (s_records.requestsRaise) {
    [NSException raise:NSInternalInconsistencyException format:@"no connection"];
  }
  return s_records.reply;
}

}  // namespace

ConnectionRecorder::ConnectionRecorder()
    : connect_([NSURLConnection class], @selector(initWithRequest:delegate:), (IMP)Connect),
      send_([NSURLConnection class], @selector(sendSynchronousRequest:returningResponse:error:),
            (IMP)Send, ScopedMethodReplacement::kClassMethod) {
  s_records = {};
}

ConnectionRecorder::~ConnectionRecorder() {
  [s_records.request release];
  [s_records.reply release];
  s_records = {};
}

NSURLRequest* ConnectionRecorder::request() const { return s_records.request; }
int ConnectionRecorder::requests() const { return s_records.requests; }
id ConnectionRecorder::delegate() const { return s_records.delegate; }
id ConnectionRecorder::connection() const { return s_records.connection; }
int ConnectionRecorder::cancelled() const { return s_records.cancelled; }
int ConnectionRecorder::connections() const { return s_records.connections; }
bool ConnectionRecorder::askedForMore() const { return s_records.askedForMore; }

void ConnectionRecorder::SetReply(NSData* reply) {
  [reply retain];
  [s_records.reply release];
  s_records.reply = reply;
}

void ConnectionRecorder::MakeRequestsRaise() { s_records.requestsRaise = true; }
void ConnectionRecorder::MakeConnectionsRetainDelegates() { s_records.delegatesAreRetained = true; }
