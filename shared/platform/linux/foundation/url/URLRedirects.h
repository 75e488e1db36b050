// What follows an HTTP redirect.
#pragma once

#import <Foundation/Foundation.h>

/// The path of the PEM file with the authorities to trust for `request` instead of the system's;
/// nil when it has none.
NSString* AuthoritiesOf(NSURLRequest* request);

/// YES for "http" and "https" in any letter case; NO for nil.
BOOL IsWebScheme(NSString* scheme);

/// YES for the HTTP statuses that send the client elsewhere: 301, 302, 303, 307 and 308.
BOOL IsRedirect(NSInteger status);

/// The request that follows `request` after an answer with `status` and the Location header
/// `location`. The method becomes GET where browsers do so (RFC 9110, section 15.4), and
/// credentials stay with the origin that they were meant for; the authorities stay the same.
/// Autoreleased.
/// nil when there can be none, with the NSURLError code that says why in `*errorCode`: more than 16
/// redirects in a row, a target that is neither http nor https, or one that is no URL.
NSURLRequest* RequestAfterRedirect(NSURLRequest* request, NSInteger status, NSString* location,
                                   NSInteger* errorCode);
