// A bound on what a synchronous URL request keeps in memory.
#import <Foundation/Foundation.h>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#import "shared/platform/linux/foundation/url/URLErrors.h"

// +[NSURLConnection sendSynchronousRequest:returningResponse:error:] makes a connection whose
// delegate collects the body until the request's time-out. Only synchronous requests have a
// delegate of that class. The client of an asynchronous request sees every chunk and can cancel,
// but a caller that waits for the whole body cannot stop a server that never ends it.

/// Foundation's delegate of a synchronous request.
@interface NSObject (DataCollector)
- (NSData*)data;
- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error;
@end

namespace {

constexpr char kCollectorClass[] = "_NSURLConnectionDataCollector";

/// The longest body, in bytes.
constexpr NSUInteger kMostBytes = NSUInteger{256} * 1024 * 1024;

void (*s_receiveData)(id, SEL, NSURLConnection*, NSData*);

/// Fails the request instead of keeping more than `kMostBytes`.
void ReceiveData(id self, SEL selector, NSURLConnection* connection, NSData* chunk) {
  if ([[self data] length] + [chunk length] <= kMostBytes) {
    s_receiveData(self, selector, connection, chunk);
    return;
  }
  [connection cancel];
  [self connection:connection
      didFailWithError:URLError(NSURLErrorDataLengthExceedsMaximum,
                                "The body is longer than 256 MiB", nil)];
}

const MethodReplacement s_replacement('-', kCollectorClass,
                                      "connection:didReceiveData:", ReceiveData, &s_receiveData);

}  // namespace
