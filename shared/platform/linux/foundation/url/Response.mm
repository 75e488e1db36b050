#import "shared/platform/linux/foundation/url/Response.h"

#include "shared/platform/linux/foundation/url/CurlLibrary.h"

@interface CurlHTTPURLResponse : NSHTTPURLResponse {
 @public
  curl_off_t _length;
}
@end

@implementation CurlHTTPURLResponse

- (long long)expectedContentLength {
  return _length;
}

@end

namespace {

/// Text of a header, which is UTF-8 or else Latin-1.
NSString* HeaderText(const char* bytes) {
  return [NSString stringWithUTF8String:bytes]
             ?: [NSString stringWithCString:bytes encoding:NSISOLatin1StringEncoding];
}

/// The header fields of the last reply; fields of one name are joined.
NSDictionary* FieldsOf(CURL* transfer) {
  // GNUstep looks names up in lower case; its own dictionary for them ignores the case.
  NSMutableDictionary* fields = [[[NSClassFromString(@"_GSMutableInsensitiveDictionary")
                                       ?: [NSMutableDictionary class] alloc] init] autorelease];
  curl_header* field = nullptr;
  while ((field = Curl().easy_nextheader(transfer, CURLH_HEADER, -1, field)) != nullptr) {
    NSString* name = HeaderText(field->name);
    NSString* value = HeaderText(field->value);
    NSString* earlier = [fields objectForKey:name];
    [fields setObject:earlier == nil ? value : [NSString stringWithFormat:@"%@, %@", earlier, value]
               forKey:name];
  }
  return fields;
}

}  // namespace

NSHTTPURLResponse* ResponseOf(CURL* transfer, NSURL* url) {
  long status = 0;
  curl_off_t length = -1;
  Curl().easy_getinfo(transfer, CURLINFO_RESPONSE_CODE, &status);
  Curl().easy_getinfo(transfer, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  CurlHTTPURLResponse* response = [CurlHTTPURLResponse alloc];
  response->_length = length;
  return [[response initWithURL:url
                     statusCode:status
                    HTTPVersion:@"HTTP/1.1"
                   headerFields:FieldsOf(transfer)] autorelease];
}
