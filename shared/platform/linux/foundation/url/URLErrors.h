// Failures of a transfer as errors of NSURLErrorDomain.
#pragma once

#import <Foundation/Foundation.h>

#include <curl/curl.h>

/// The NSURLError code that macOS has for the failure `result`; NSURLErrorUnknown when it has none.
/// `transfer` must still exist: what was wrong with a certificate is read from it.
NSInteger URLErrorCodeOfTransfer(CURLcode result, CURL* transfer);

/// An error of NSURLErrorDomain with the code `code`, macOS's description of it, `reason` as its
/// failure reason and `url`, which may be nil, as the failing URL. Autoreleased.
NSError* URLError(NSInteger code, const char* reason, NSURL* url);
