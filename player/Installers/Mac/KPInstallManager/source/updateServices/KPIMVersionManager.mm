// The version description: request, answer, accessors.
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionManager.h"

#include "KPVendorConfig.h"
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionXML.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/URLFromText.h"

NSString* const kKPIMVersionXMLReceivedNotification = @"kKPIMVersionXMLReceivedNotification";

namespace {

NSString* const kMachineRoot = @"/";
NSString* const kLogPrefix = @" VM: ";

NSString* const kURLFormat = @"%@%@%@";
NSString* const kBaseURL =
    @"https://" KP_DOWNLOAD_HOST "/get/korvelplayer/update/current/xml/version_";
NSString* const kPepperSuffix = @"_mac_pep.xml";
NSString* const kPluginSuffix = @"_mac_pl.xml";
NSString* const kLocaleKey = @"AutoUpdateXmlLocale";

// A description has a few hundred bytes. This is the only limit on what a server may send.
constexpr unsigned long long kMostBytes = 8ULL * 1024 * 1024;

constexpr float kDefaultDialogWidth = 320;
constexpr float kDefaultDialogHeight = 450;

NSString* const kNoVersion = @"ERROR: Parsing error in version XML. Could not find version string.";
NSString* const kNoMessage =
    @"ERROR: Parsing error in version XML. Could not find HTML display string.";
NSString* const kNoAnswer = @"ERROR: Failed to download version XML.";

KPIMLogger* sLogger = nil;

// Replaces `field` by `value`, which may be nil.
void Assign(NSString*& field, NSString* value) {
  NSString* old = field;
  field = [value copy];
  [old release];
}

NSString* UserLocale() {
  // Without a translation the result is the key itself: an empty default value counts as none.
  return [[NSBundle mainBundle] localizedStringForKey:kLocaleKey value:@"" table:nil];
}

NSURL* VersionXMLURL(int kind, NSString* locale) {
  NSString* suffix = kind == kKPIMPlayerKindPepper ? kPepperSuffix : kPluginSuffix;
  return URLFromText([NSString stringWithFormat:kURLFormat, kBaseURL, locale, suffix]);
}

void PostReceived() {
  [[NSNotificationCenter defaultCenter] postNotificationName:kKPIMVersionXMLReceivedNotification
                                                      object:nil];
}

}  // namespace

@interface KPIMVersionManager (Internal)
- (void)_logError:(NSString*)message;
@end

@implementation KPIMVersionManager

+ (KPIMLogger*)_logger {
  if (sLogger != nil) {
    return sLogger;
  }
  NSString* directory = [KPIMCommonUtil isUserLoggedIn] ? NSHomeDirectory() : kMachineRoot;
  NSString* path = [directory stringByAppendingPathComponent:kInstallLogFile];
  sLogger = [[KPIMLogger alloc] initWithPath:path];
  [sLogger setLoggingLevel:kLogLevelDetail];
  [sLogger setPrefix:kLogPrefix];
  return sLogger;
}

- (id)init {
  self = [super init];
  if (self == nil) {
    // Untested: NSObject's init never returns nil.
    return nil;
  }
  mXMLDownloadState = kDownloadStateNotStarted;
  return self;
}

- (void)dealloc {
  [mDownload release];
  [mXMLVersionString release];
  [mHTMLDisplayString release];
  [mAutoUpdateModeString release];
  [super dealloc];
}

- (void)sendVersionXMLRequestFor:(int)kind {
  [self sendVersionXMLRequestFor:kind locale:nil authoritiesFile:nil];
}

- (void)sendVersionXMLRequestFor:(int)kind
                          locale:(NSString*)locale
                 authoritiesFile:(NSString*)authoritiesFile {
  NSURL* url = VersionXMLURL(kind, locale != nil ? locale : UserLocale());
  mDownload = [[KPIMDownload alloc] initWithURL:url
                                   downloadPath:nil
                                       filename:nil
                                         logger:[[self class] _logger]
                                       delegate:self
                                    asyncModeOn:true];
  [mDownload setMostBytes:kMostBytes];
  [mDownload setAuthoritiesFile:authoritiesFile];
  [mDownload startDownload];
  mXMLDownloadState = kDownloadStateStarted;
}

- (void)downloadDidComplete {
  NSString* text = [[NSString alloc] initWithData:[mDownload downloadedData]
                                         encoding:NSUTF8StringEncoding];
  // A field that cannot be read, such as a version that ends before it starts, affects only itself:
  // the version then keeps its old value, the size becomes the default.
  const KPIMVersionXML description = ScanVersionXML(text);
  if (description.version != nil) {
    Assign(mXMLVersionString, description.version);
  } else {
    [self _logError:kNoVersion];
  }
  mXMLDownloadState = kDownloadStateCompleted;
  Assign(mAutoUpdateModeString, description.autoUpdateMode);
  mDialogWidth = description.hasDialogSize ? description.dialogWidth : kDefaultDialogWidth;
  mDialogHeight = description.hasDialogSize ? description.dialogHeight : kDefaultDialogHeight;
  if (description.message != nil) {
    Assign(mHTMLDisplayString, description.message);
    PostReceived();
  } else {
    // No notification is posted: there is nothing to show.
    [self _logError:kNoMessage];
  }
  [text release];
}

- (void)downloadDidFail {
  [self _logError:kNoAnswer];
  mXMLDownloadState = kDownloadStateFailed;
  PostReceived();
}

- (NSURL*)address {
  return [mDownload url];
}

- (int)statusCode {
  return [mDownload statusCode];
}

- (NSString*)failure {
  return [mDownload failure];
}

- (int)downloadState {
  return mXMLDownloadState;
}

- (NSString*)XMLVersionString {
  return [[mXMLVersionString retain] autorelease];
}

- (NSString*)HTMLDisplayString {
  return [[mHTMLDisplayString retain] autorelease];
}

- (NSString*)AutoUpdateModeString {
  return [[mAutoUpdateModeString retain] autorelease];
}

- (float)dialogWidth {
  return mDialogWidth;
}

- (float)dialogHeight {
  return mDialogHeight;
}

@end

@implementation KPIMVersionManager (Internal)

- (void)_logError:(NSString*)message {
  [[[self class] _logger] logTimeStampedString:message withLoggingLevel:kLogLevelError];
}

@end
