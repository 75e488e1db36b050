// The head of an HTTP reply, from its lines to the response object.
#pragma once

#import <Foundation/Foundation.h>

#include <string_view>

/// Collects the header lines of a reply, with those of interim replies before it and the trailers
/// after its body. Of them all, at most 1 MiB is taken: libcurl bounds each line, and not in every
/// release their sum.
@interface ReplyHead : NSObject {
  NSMutableDictionary* _fields;
  size_t _size;
  BOOL _isComplete;
}

/// Takes the next line; `status` is the reply's so far. Returns NO when the lines are too long or
/// memory is exhausted. Never raises.
- (BOOL)addLine:(std::string_view)line status:(long)status;

/// YES once the empty line after the final reply's headers has been added.
- (BOOL)isComplete;

- (BOOL)isTooLong;

/// The field `name`, in any letter case; nil when the reply has none.
- (NSString*)field:(NSString*)name;

/// The response with these headers. `length` is that of the body in bytes, -1 when it is unknown.
/// Autoreleased.
- (NSHTTPURLResponse*)responseForURL:(NSURL*)url status:(long)status length:(long long)length;

@end
