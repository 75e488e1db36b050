// Verifying a server against the caller's own authorities, on systems that ask the connection's
// delegate.
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMDownload.h"

#import <Security/Security.h>

namespace {

// Returns the certificates in the PEM file at `path`, autoreleased; nil when there are none.
NSArray* CertificatesInFile(NSString* path) {
  NSData* data = [NSData dataWithContentsOfFile:path];
  if (data == nil) {
    return nil;
  }
  SecExternalFormat format = kSecFormatPEMSequence;
  SecExternalItemType type = kSecItemTypeAggregate;
  CFArrayRef items = nullptr;
  if (SecKeychainItemImport(static_cast<CFDataRef>(static_cast<void*>(data)), nullptr, &format,
                            &type, 0, nullptr, nullptr, &items) != errSecSuccess) {
    return nil;
  }
  return [static_cast<NSArray*>(const_cast<void*>(static_cast<const void*>(items))) autorelease];
}

// Returns whether `trust` leads to one of the certificates in the file at `path`.
bool IsTrusted(SecTrustRef trust, NSString* path) {
  NSArray* authorities = CertificatesInFile(path);
  SecTrustResultType result = kSecTrustResultInvalid;
  return authorities != nil &&
         SecTrustSetAnchorCertificates(
             trust, static_cast<CFArrayRef>(static_cast<void*>(authorities))) == errSecSuccess &&
         SecTrustEvaluate(trust, &result) == errSecSuccess &&
         (result == kSecTrustResultUnspecified || result == kSecTrustResultProceed);
}

}  // namespace

@implementation KPIMDownload (ServerTrust)

- (BOOL)connection:(NSURLConnection*)connection
    canAuthenticateAgainstProtectionSpace:(NSURLProtectionSpace*)protectionSpace {
  (void)connection;
  return m_authoritiesFile != nil && [[protectionSpace authenticationMethod]
                                         isEqualToString:NSURLAuthenticationMethodServerTrust];
}

- (void)connection:(NSURLConnection*)connection
    didReceiveAuthenticationChallenge:(NSURLAuthenticationChallenge*)challenge {
  (void)connection;
  SecTrustRef trust = [[challenge protectionSpace] serverTrust];
  if (IsTrusted(trust, m_authoritiesFile)) {
    [[challenge sender] useCredential:[NSURLCredential credentialForTrust:trust]
           forAuthenticationChallenge:challenge];
  } else {
    [[challenge sender] cancelAuthenticationChallenge:challenge];
  }
}

@end
