#import "shared/platform/linux/foundation/url/URLErrors.h"

#include <openssl/x509_vfy.h>

#include <cerrno>

#include "shared/platform/linux/foundation/url/CurlLibrary.h"

namespace {

struct Description {
  NSInteger code;
  NSString* text;
};

/// macOS's descriptions of failures.
const Description kDescriptions[] = {
    {NSURLErrorUnknown, @"unknown error"},
    {NSURLErrorBadURL, @"bad URL"},
    {NSURLErrorTimedOut, @"The request timed out."},
    {NSURLErrorUnsupportedURL, @"unsupported URL"},
    {NSURLErrorCannotFindHost, @"A server with the specified hostname could not be found."},
    {NSURLErrorCannotConnectToHost, @"Could not connect to the server."},
    {NSURLErrorNetworkConnectionLost, @"The network connection was lost."},
    {NSURLErrorHTTPTooManyRedirects, @"too many HTTP redirects"},
    {NSURLErrorNotConnectedToInternet, @"The Internet connection appears to be offline."},
    {NSURLErrorRedirectToNonExistentLocation, @"redirected to nowhere"},
    {NSURLErrorCannotParseResponse, @"cannot parse response"},
    {NSURLErrorDataLengthExceedsMaximum, @"resource exceeds maximum size"},
    {NSURLErrorSecureConnectionFailed,
     @"An SSL error has occurred and a secure connection to the server cannot be made."},
    {NSURLErrorServerCertificateHasBadDate, @"The certificate for this server has expired."},
    {NSURLErrorServerCertificateUntrusted, @"The certificate for this server is invalid."},
    {NSURLErrorServerCertificateHasUnknownRoot,
     @"The certificate for this server was signed by an unknown certifying authority."},
    {NSURLErrorServerCertificateNotYetValid, @"The certificate for this server is not yet valid."},
};

struct TransferFailure {
  CURLcode result;
  NSInteger code;
};

const TransferFailure kTransferFailures[] = {
    {CURLE_URL_MALFORMAT, NSURLErrorBadURL},
    {CURLE_OPERATION_TIMEDOUT, NSURLErrorTimedOut},
    {CURLE_COULDNT_RESOLVE_HOST, NSURLErrorCannotFindHost},
    {CURLE_GOT_NOTHING, NSURLErrorNetworkConnectionLost},
    {CURLE_PARTIAL_FILE, NSURLErrorNetworkConnectionLost},
    {CURLE_SEND_ERROR, NSURLErrorNetworkConnectionLost},
    {CURLE_RECV_ERROR, NSURLErrorNetworkConnectionLost},
    {CURLE_WEIRD_SERVER_REPLY, NSURLErrorCannotParseResponse},
    {CURLE_UNSUPPORTED_PROTOCOL, NSURLErrorCannotParseResponse},  // No status line of HTTP.
    {CURLE_SSL_CONNECT_ERROR, NSURLErrorSecureConnectionFailed},
    {CURLE_SSL_CIPHER, NSURLErrorSecureConnectionFailed},
    {CURLE_SSL_CACERT_BADFILE, NSURLErrorSecureConnectionFailed},
    {CURLE_SSL_ISSUER_ERROR, NSURLErrorSecureConnectionFailed},
};

NSString* DescriptionOfCode(NSInteger code) {
  for (const Description& each : kDescriptions) {
    if (each.code == code) {
      return each.text;
    }
  }
  return DescriptionOfCode(NSURLErrorUnknown);
}

/// The NSURLError code for a certificate that OpenSSL rejected with the X509_V_ERR_ number
/// `verdict`; X509_V_OK means that it belongs to another host.
NSInteger ErrorCodeOfCertificate(long verdict) {
  switch (verdict) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return NSURLErrorServerCertificateHasBadDate;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return NSURLErrorServerCertificateNotYetValid;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return NSURLErrorServerCertificateHasUnknownRoot;
    default:
      return NSURLErrorServerCertificateUntrusted;
  }
}

}  // namespace

NSInteger URLErrorCodeOfTransfer(CURLcode result, CURL* transfer) {
  long detail = 0;
  if (result == CURLE_COULDNT_CONNECT) {
    Curl().easy_getinfo(transfer, CURLINFO_OS_ERRNO, &detail);
    return detail == ENETUNREACH ? NSURLErrorNotConnectedToInternet : NSURLErrorCannotConnectToHost;
  }
  if (result == CURLE_PEER_FAILED_VERIFICATION) {
    Curl().easy_getinfo(transfer, CURLINFO_SSL_VERIFYRESULT, &detail);
    return ErrorCodeOfCertificate(detail);
  }
  for (const TransferFailure& each : kTransferFailures) {
    if (each.result == result) {
      return each.code;
    }
  }
  return NSURLErrorUnknown;
}

NSError* URLError(NSInteger code, const char* reason, NSURL* url) {
  NSMutableDictionary* details = [NSMutableDictionary
      dictionaryWithObjectsAndKeys:DescriptionOfCode(code), NSLocalizedDescriptionKey,
                                   [NSString stringWithUTF8String:reason] ?: @"",
                                   NSLocalizedFailureReasonErrorKey, nil];
  if (url != nil) {
    [details setObject:[url absoluteString] forKey:NSErrorFailingURLStringKey];
  }
  return [NSError errorWithDomain:NSURLErrorDomain code:code userInfo:details];
}
