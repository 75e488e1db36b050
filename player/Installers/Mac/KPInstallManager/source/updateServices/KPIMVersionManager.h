// The newest version: fetching the vendor's version description.
#pragma once

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMDownload.h"

/// The plug-in's flavours. Every other number means `kKPIMPlayerKindPlugin`.
enum : int {
  kKPIMPlayerKindPlugin = 0,
  kKPIMPlayerKindPepper = 1,
};

/// Posted on the default notification center, without object and user information, when a version
/// description with a message has arrived, or when the description could not be fetched.
extern NSString* const kKPIMVersionXMLReceivedNotification;

/// An instance fetches the vendor's current version description for one locale, once:
///
///     KPIMVersionManager* manager = [[KPIMVersionManager alloc] init];
///     [manager sendVersionXMLRequestFor:kKPIMPlayerKindPepper];
///     // ... run this thread's run loop until `downloadState` is not kDownloadStateStarted ...
///     NSString* newest = [manager XMLVersionString];
///
/// A description without a message posts no notification.
///
/// From the request on the instance and its download retain each other, and neither is ever freed.
/// The request fails when the server is silent for 60 seconds. The whole time is not limited: the
/// caller decides how long to wait.
///
/// The class methods check whether an installation may proceed: see KPIMInstallChecks.h.
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

/// Returns the logger of the update services, which is made on first use and never released. It
/// writes to the install log in the process's home folder, or to the machine's log when no user is
/// logged in at the console. A subclass may override this for the messages of its instances.
+ (KPIMLogger*)_logger;

- (id)init;

/// Requests the version description of the player `kind`. Call it once per instance, on a thread
/// whose run loop then runs in the default mode. A description of more than 8 MiB counts as one
/// that could not be fetched.
- (void)sendVersionXMLRequestFor:(int)kind;

/// The same for the locale `locale`; nil means the text of the key "AutoUpdateXmlLocale" in the
/// main bundle's strings table, or the key itself without a translation. `authoritiesFile` is the
/// path of a PEM file with the authorities to trust instead of the system's, or nil.
- (void)sendVersionXMLRequestFor:(int)kind
                          locale:(NSString*)locale
                 authoritiesFile:(NSString*)authoritiesFile;

/// Returns the address of the description; nil before the request, and when the locale contains
/// characters that a URL cannot have.
- (NSURL*)address;

/// Returns the HTTP status of the server's answer, or 0 without an answer.
- (int)statusCode;

/// Returns why the description could not be fetched, as text for people; nil unless the state is
/// `kDownloadStateFailed`.
- (NSString*)failure;

/// Returns the state: `kDownloadStateNotStarted` (0) before the request, `kDownloadStateStarted`
/// (1) after it, `kDownloadStateCompleted` (2) once an answer has been read, whatever it contains,
/// or `kDownloadStateFailed` (4).
- (int)downloadState;

/// Returns the newest version; nil when the description has none.
- (NSString*)XMLVersionString;

/// Returns the text to show to the user, in HTML; nil when the description has none.
- (NSString*)HTMLDisplayString;

/// Returns how updates are to be installed; nil when the description does not contain it.
- (NSString*)AutoUpdateModeString;

/// Returns the size of the dialog that shows the message, in points: 0 by 0 until an answer has
/// arrived, then the size in the description, or 320 by 450 if it has none.
- (float)dialogWidth;
- (float)dialogHeight;

@end
