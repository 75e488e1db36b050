// url_client: loads URLs through NSURLConnection and prints what its delegate receives, one line
// per callback. tests/system/host/test_url_loading.py runs it against servers of many kinds.
//
//   url_client [option...] URL...
//     --sync                 +sendSynchronousRequest:returningResponse:error: instead of a delegate
//     --timeout SECONDS      the request's time-out (default 60)
//     --method METHOD, --header NAME=VALUE, --body TEXT
//     --cancel-in CALLBACK   cancels inside the first redirect, response or data callback
//     --cancel-after SECONDS cancels from a timer, whatever has come
//     --refuse-redirect      answers nil to connection:willSendRequest:redirectResponse:
//     --release              keeps neither the connection nor its delegate
//     --reason               also prints a failure's reason
//     --field NAME           also prints this header field of a response
//     --summary              prints data only in sum, and at the end how often the run loop
//                            turned and the most memory that the process took, in kilobytes
//
// URLs load at the same time; each line begins with the URL's number. Exit status 0 when every load
// ended or was cancelled, 2 for wrong usage.
#import <Foundation/Foundation.h>

#include <sys/resource.h>

#include <cstdio>
#include <cstring>

namespace {

struct Options {
  BOOL isSynchronous;
  BOOL refusesRedirects;
  BOOL summarizes;
  BOOL tellsReasons;
  BOOL releases;
  NSTimeInterval timeout;
  NSTimeInterval cancelDelay;
  NSString* method;
  NSString* body;
  NSString* cancelIn;
  NSString* field;
  NSMutableDictionary* headers;
};

Options gOptions;

/// How long the program waits for callbacks of a cancelled load, which must not come.
constexpr NSTimeInterval kLinger = 0.2;

int gLoading;

NSMutableURLRequest* RequestFor(const char* text) {
  NSURL* url = [NSURL URLWithString:[NSString stringWithUTF8String:text]];
  NSMutableURLRequest* request =
      [NSMutableURLRequest requestWithURL:url
                              cachePolicy:NSURLRequestReloadIgnoringLocalCacheData
                          timeoutInterval:gOptions.timeout];
  if (gOptions.method != nil) {
    [request setHTTPMethod:gOptions.method];
  }
  [request setHTTPBody:[gOptions.body dataUsingEncoding:NSUTF8StringEncoding]];
  for (NSString* name in gOptions.headers) {
    [request setValue:[gOptions.headers objectForKey:name] forHTTPHeaderField:name];
  }
  return request;
}

void PrintResponse(int number, const char* event, NSURLResponse* response) {
  const auto* http = static_cast<NSHTTPURLResponse*>(response);
  printf("%d %s %d %lld %s %s\n", number, event, static_cast<int>([http statusCode]),
         static_cast<long long>([http expectedContentLength]),
         [[http MIMEType] UTF8String] ?: "(none)", [[[http URL] absoluteString] UTF8String]);
  if (gOptions.field != nil) {
    NSString* value = [[http allHeaderFields] objectForKey:gOptions.field];
    printf("%d field %s\n", number, [value UTF8String] ?: "(none)");
  }
}

void PrintFailure(int number, NSError* error) {
  printf("%d fail %s %d %s\n", number, [[error domain] UTF8String], static_cast<int>([error code]),
         [[error localizedDescription] UTF8String]);
  if (gOptions.tellsReasons) {
    printf("%d because %s\n", number, [[error localizedFailureReason] UTF8String]);
  }
}

}  // namespace

@interface Recorder : NSObject {
  int _number;
  NSURLConnection* _connection;
  BOOL _ended;
  unsigned long long _total;
  unsigned long long _largest;
  unsigned _checksum;
}
- (id)initWithURLText:(const char*)text number:(int)number;
- (void)cancel;
@end

@implementation Recorder

- (id)initWithURLText:(const char*)text number:(int)number {
  self = [super init];
  _number = number;
  gLoading++;
  if (gOptions.cancelDelay > 0) {
    [self performSelector:@selector(cancel) withObject:nil afterDelay:gOptions.cancelDelay];
  }
  _connection = [[NSURLConnection alloc] initWithRequest:RequestFor(text) delegate:self];
  printf("%d started\n", _number);
  if (gOptions.releases) {
    [_connection release];
    _connection = nil;
  }
  return self;
}

- (void)dealloc {
  [_connection release];
  [super dealloc];
}

- (void)end {
  if (!_ended) {
    _ended = YES;
    gLoading--;
  }
}

- (void)cancel {
  if (!_ended) {
    printf("%d cancel\n", _number);
    [_connection cancel];
    [self end];
  }
}

- (void)cancelIfIn:(NSString*)callback {
  if ([gOptions.cancelIn isEqualToString:callback]) {
    [self cancel];
  }
}

- (NSURLRequest*)connection:(NSURLConnection*)connection
            willSendRequest:(NSURLRequest*)request
           redirectResponse:(NSURLResponse*)response {
  PrintResponse(_number, "redirect", response);
  printf("%d to %s %s\n", _number, [[request HTTPMethod] UTF8String],
         [[[request URL] absoluteString] UTF8String]);
  [self cancelIfIn:@"redirect"];
  return gOptions.refusesRedirects ? nil : request;
}

- (void)connection:(NSURLConnection*)connection didReceiveResponse:(NSURLResponse*)response {
  PrintResponse(_number, "response", response);
  [self cancelIfIn:@"response"];
}

- (void)connection:(NSURLConnection*)connection didReceiveData:(NSData*)data {
  const auto* bytes = static_cast<const unsigned char*>([data bytes]);
  for (NSUInteger i = 0; i < [data length]; i++) {
    _checksum = _checksum * 31 + bytes[i];
  }
  _total += [data length];
  _largest = [data length] > _largest ? [data length] : _largest;
  if (!gOptions.summarizes) {
    printf("%d data %.*s\n", _number, static_cast<int>([data length]),
           static_cast<const char*>([data bytes]));
  }
  [self cancelIfIn:@"data"];
}

- (void)connectionDidFinishLoading:(NSURLConnection*)connection {
  printf("%d finish %llu\n", _number, _total);
  if (gOptions.summarizes) {
    printf("%d largest %llu checksum %u\n", _number, _largest, _checksum);
  }
  [self end];
}

- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error {
  PrintFailure(_number, error);
  [self end];
}

@end

namespace {

void LoadSynchronously(const char* text, int number) {
  NSURLResponse* response = nil;
  NSError* error = nil;
  NSData* data = [NSURLConnection sendSynchronousRequest:RequestFor(text)
                                       returningResponse:&response
                                                   error:&error];
  if (response != nil) {
    PrintResponse(number, "response", response);
  }
  if (data == nil) {
    PrintFailure(number, error);
  } else {
    printf("%d finish %llu\n", number, static_cast<unsigned long long>([data length]));
  }
}

void LoadAll(char** urls, int count) {
  NSMutableArray* recorders = [NSMutableArray array];
  for (int i = 0; i < count; i++) {
    Recorder* recorder = [[Recorder alloc] initWithURLText:urls[i] number:i];
    if (!gOptions.releases) {
      [recorders addObject:recorder];
    }
    [recorder release];
  }
  NSRunLoop* loop = [NSRunLoop currentRunLoop];
  unsigned turns = 0;
  while (gLoading > 0) {
    // A timer that fires, such as the one that cancels, does not end a turn.
    NSDate* limit = gOptions.cancelDelay > 0 ? [NSDate dateWithTimeIntervalSinceNow:kLinger]
                                             : [NSDate distantFuture];
    [loop runMode:NSDefaultRunLoopMode beforeDate:limit];
    turns++;
  }
  [loop runUntilDate:[NSDate dateWithTimeIntervalSinceNow:kLinger]];
  if (gOptions.summarizes) {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    printf("turns %u memory %ld\n", turns, usage.ru_maxrss);
  }
}

/// What an option without a value sets; nullptr when it is not one.
BOOL* FlagOf(NSString* option) {
  const struct {
    NSString* name;
    BOOL* flag;
  } kFlags[] = {
      {@"sync", &gOptions.isSynchronous}, {@"refuse-redirect", &gOptions.refusesRedirects},
      {@"release", &gOptions.releases},   {@"reason", &gOptions.tellsReasons},
      {@"summary", &gOptions.summarizes},
  };
  for (const auto& each : kFlags) {
    if ([option isEqualToString:each.name]) {
      return each.flag;
    }
  }
  return nullptr;
}

/// Takes the options off the front of `arguments`. nullptr when one is wrong.
char** ParseOptions(char** arguments) {
  gOptions.timeout = 60;
  gOptions.headers = [NSMutableDictionary dictionary];
  for (; *arguments != nullptr && strncmp(*arguments, "--", 2) == 0; arguments++) {
    NSString* option = [NSString stringWithUTF8String:*arguments + 2];
    BOOL* flag = FlagOf(option);
    if (flag != nullptr) {
      *flag = YES;
      continue;
    }
    NSString* value = *++arguments == nullptr ? nil : [NSString stringWithUTF8String:*arguments];
    if (value == nil) {
      return nullptr;
    }
    if ([option isEqualToString:@"timeout"]) {
      gOptions.timeout = [value doubleValue];
    } else if ([option isEqualToString:@"cancel-after"]) {
      gOptions.cancelDelay = [value doubleValue];
    } else if ([option isEqualToString:@"cancel-in"]) {
      gOptions.cancelIn = value;
    } else if ([option isEqualToString:@"field"]) {
      gOptions.field = value;
    } else if ([option isEqualToString:@"method"]) {
      gOptions.method = value;
    } else if ([option isEqualToString:@"body"]) {
      gOptions.body = value;
    } else if ([option isEqualToString:@"header"]) {
      const NSRange equals = [value rangeOfString:@"="];
      [gOptions.headers setObject:[value substringFromIndex:NSMaxRange(equals)]
                           forKey:[value substringToIndex:equals.location]];
    } else {
      return nullptr;
    }
  }
  return arguments;
}

}  // namespace

int main(int argc, char** argv) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  setvbuf(stdout, nullptr, _IOLBF, 0);
  char** urls = ParseOptions(argv + 1);
  if (urls == nullptr || *urls == nullptr) {
    fputs("usage: url_client [option...] URL...\n", stderr);
    return 2;
  }
  const int count = static_cast<int>(argv + argc - urls);
  if (gOptions.isSynchronous) {
    for (int i = 0; i < count; i++) {
      LoadSynchronously(urls[i], i);
    }
  } else {
    LoadAll(urls, count);
  }
  [pool release];
  return 0;
}
