// The response object for a reply that libcurl has received.
#pragma once

#import <Foundation/Foundation.h>

#include <curl/curl.h>

/// The response to the request of `transfer`, whose headers are complete, from `url`. Its
/// expectedContentLength is -1 when the server did not send one, and correct beyond 2 GiB, where
/// GNUstep's own is cut to an int. Autoreleased.
NSHTTPURLResponse* ResponseOf(CURL* transfer, NSURL* url);
