#import "shared/platform/linux/foundation/url/ReplyHead.h"

namespace {

constexpr size_t kMostBytes = size_t{1024} * 1024;

constexpr long kFirstFinalStatus = 200;  // Smaller ones announce the reply proper.

/// Text of an HTTP header, which is UTF-8 or, by its history, Latin-1.
NSString* HeaderText(std::string_view bytes) {
  for (const NSStringEncoding encoding : {NSUTF8StringEncoding, NSISOLatin1StringEncoding}) {
    NSString* text = [[[NSString alloc] initWithBytes:bytes.data()
                                               length:bytes.size()
                                             encoding:encoding] autorelease];
    if (text != nil) {
      return text;
    }
  }
  return @"";
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t start = text.find_first_not_of(kBlanks);
  return start == std::string_view::npos
             ? std::string_view()
             : text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

}  // namespace

/// A response that knows lengths beyond 2 GiB, which GNUstep reads from the header as an int.
@interface LongHTTPURLResponse : NSHTTPURLResponse {
 @public
  long long _length;
}
@end

@implementation LongHTTPURLResponse

- (long long)expectedContentLength {
  return _length;
}

@end

@implementation ReplyHead

- (void)dealloc {
  [_fields release];
  [super dealloc];
}

- (BOOL)isComplete {
  return _isComplete;
}

- (BOOL)isTooLong {
  return _size > kMostBytes;
}

- (NSString*)field:(NSString*)name {
  return [_fields objectForKey:name];
}

- (BOOL)addLine:(std::string_view)line status:(long)status {
  _size += line.size();
  if ([self isTooLong]) {
    return NO;
  }
  const std::string_view text = Trimmed(line);
  if (_isComplete) {
    return YES;  // A trailer, after the body.
  }
  if (text.empty()) {
    _isComplete = status >= kFirstFinalStatus;
    return YES;
  }
  @try {
    [self addField:text];
  } @catch (NSException*) {  // Memory is exhausted.
    return NO;
  }
  return YES;
}

/// Adds a field. A status line, or what is not a field, begins a new head.
- (void)addField:(std::string_view)text {
  const size_t colon = text.find(':');
  if (text.substr(0, 5) == "HTTP/" || colon == std::string_view::npos) {
    // GNUstep looks names up in lower case; its own dictionary for them ignores the case.
    [_fields release];
    _fields = [[NSClassFromString(@"_GSMutableInsensitiveDictionary") ?: [NSMutableDictionary class]
        alloc] init];
    return;
  }
  NSString* name = HeaderText(Trimmed(text.substr(0, colon)));
  NSString* value = HeaderText(Trimmed(text.substr(colon + 1)));
  NSString* earlier = [_fields objectForKey:name];
  [_fields setObject:earlier == nil ? value : [NSString stringWithFormat:@"%@, %@", earlier, value]
              forKey:name];
}

- (NSHTTPURLResponse*)responseForURL:(NSURL*)url status:(long)status length:(long long)length {
  LongHTTPURLResponse* response = [[[LongHTTPURLResponse alloc] initWithURL:url
                                                                 statusCode:status
                                                                HTTPVersion:@"HTTP/1.1"
                                                               headerFields:_fields] autorelease];
  if (response != nil) {
    response->_length = length;
  }
  return response;
}

@end
