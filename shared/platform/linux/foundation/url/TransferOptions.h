// libcurl's options for a request.
#pragma once

#import <Foundation/Foundation.h>

#include <curl/curl.h>

/// Checks whether `request` can be sent: a GET of an http or https URL with a host, without headers
/// or a body of its own. Returns 0, or a code of NSURLErrorDomain with its reason in `*reason`.
NSInteger CheckRequest(NSURLRequest* request, const char** reason);

/// The time-out of `request`, in seconds; 60 when that is not positive.
NSTimeInterval TimeoutOf(NSURLRequest* request);

/// Prepares `transfer` for `request`, which has passed CheckRequest(). libcurl copies the values.
void SetTransferOptions(CURL* transfer, NSURLRequest* request);
