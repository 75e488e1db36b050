// The newest version, as the vendor describes it.
#pragma once

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMDownload.h"

/// The plug-in's flavours, as the methods here take them. Every number but
/// `kKPIMPlayerKindPepper` stands for the other one.
enum : int {
  kKPIMPlayerKindPlugin = 0,
  kKPIMPlayerKindPepper = 1,
};

/// Posted on the default notification center, without object and user information, when the
/// version description has come with a message in it, or could not be fetched.
extern NSString* const kKPIMVersionXMLReceivedNotification;

/// An instance fetches the vendor's current version description for the user's locale, once:
///
///     KPIMVersionManager* manager = [[KPIMVersionManager alloc] init];
///     [manager sendVersionXMLRequestFor:kKPIMPlayerKindPepper];
///     // ... the run loop of this thread runs until kKPIMVersionXMLReceivedNotification ...
///     NSString* newest = [manager XMLVersionString];
///
/// The instance and its download retain each other from the request on. A server that is silent for
/// 60 seconds fails the request. One that keeps sending little may take as long as it likes: the
/// caller decides how long it waits in all.
///
/// The class tells whether an installation may proceed, see the category InstallChecks.
@interface KPIMVersionManager : NSObject <KPIMDownloadProgressReceiver> {
 @private
  KPIMDownload* mDownload;
  int mXMLDownloadState;
  NSString* mXMLVersionString;
  NSString* mHTMLDisplayString;
  NSString* mAutoUpdateModeString;
  float mDialogWidth;
  float mDialogHeight;
}

/// The logger of the update services, made on first use and kept for the process. It writes to
/// the install log of the running user, or to the machine's when nobody is logged in. A subclass
/// may have its instances log elsewhere.
+ (KPIMLogger*)_logger;

- (id)init;

/// Asks for the version description of the player `kind`. To be called once per instance, on a
/// thread whose run loop then runs in the default mode. A description of more than 8 MiB is given
/// up as it arrives and counts as one that could not be fetched.
- (void)sendVersionXMLRequestFor:(int)kind;

/// The same for the locale `locale`, for that of the user when it is nil. `authoritiesFile` is a
/// PEM file with the authorities to trust instead of the system's, or nil.
- (void)sendVersionXMLRequestFor:(int)kind
                          locale:(NSString*)locale
                 authoritiesFile:(NSString*)authoritiesFile;

/// Where the description comes from; nil before the request, and when a locale spoils the address.
- (NSURL*)address;

/// The HTTP status of the server's answer; 0 when there is none.
- (int)statusCode;

/// Why the answer could not be fetched, as text for people; nil unless the state is 4.
- (NSString*)failure;

/// 0 before the request, 1 after it, 2 when the answer has been read, whatever was in it, and 4
/// when there was none (the numbers of `kDownloadState...`).
- (int)downloadState;

/// The newest version; nil when the description has none.
- (NSString*)XMLVersionString;

/// The text to show to the user, in HTML; nil when the description has none.
- (NSString*)HTMLDisplayString;

/// How updates are to be installed; nil when the description does not tell.
- (NSString*)AutoUpdateModeString;

/// Size of the dialog that shows the message, in points: 0 by 0 until an answer has come, then
/// 320 by 450 unless the description tells.
- (float)dialogWidth;
- (float)dialogHeight;

@end
