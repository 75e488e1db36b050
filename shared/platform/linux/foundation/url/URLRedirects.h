// HTTP redirects: the request that follows one, and what it inherits.
#pragma once

#import <Foundation/Foundation.h>

/// The path of the PEM file with the authorities to trust for `request` instead of the system's;
/// nil when it has none.
NSString* AuthoritiesOf(NSURLRequest* request);

/// YES for "http" and "https" in any letter case; NO for nil.
BOOL IsWebScheme(NSString* scheme);

/// YES for the HTTP statuses that send the client elsewhere: 301, 302, 303, 307 and 308.
BOOL IsRedirect(NSInteger status);

/// The request that follows `request` after a redirect with the Location header `location`: with
/// the same time-out and the same authorities. Autoreleased. nil, with a code of NSURLErrorDomain
/// in `*errorCode`, after more than 16 redirects in a row, or when the target is not a URL of http
/// or https.
NSURLRequest* RequestAfterRedirect(NSURLRequest* request, NSString* location, NSInteger* errorCode);
