// One download of one URL, into memory and, when asked, into a file.
#pragma once

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

/// State of a download in asynchronous mode. The last three are final.
enum : int {
  /// Also after `startDownload`, until the server answers or the connection fails.
  kDownloadStateNotStarted = 0,
  kDownloadStateStarted = 1,
  kDownloadStateCompleted = 2,
  kDownloadStateCancelled = 3,
  kDownloadStateFailed = 4,
};

/// Name of the request property (NSURLProtocol) with the path that `setAuthoritiesFile:` has set,
/// for loaders that verify certificates themselves.
extern NSString* const kKPIMAuthoritiesProperty;

/// Is informed of the progress of a download in asynchronous mode, on the thread that started it.
@protocol KPIMDownloadProgressReceiver <NSObject>

/// Called when the whole body has arrived.
- (void)downloadDidComplete;

/// Called when the connection has failed, the download's file could not be created, or the body
/// exceeds its limit. In the last two cases the download is cancelled. If the file could not be
/// created, `downloadDidProgress:` is called once more afterwards.
- (void)downloadDidFail;

@optional

/// Called after each chunk. `fraction` is the part of the body that has arrived. It is infinite if
/// the server announced an empty body, close to 0 if it announced no length, and may exceed 1 after
/// a redirect.
- (void)downloadDidProgress:(float)fraction;

@end

/// Fetches one URL once. The body is always kept in memory.
///
/// In synchronous mode `startDownload` blocks until the body has arrived; the delegate is not
/// called, no file is written and the state stays 0. In asynchronous mode the body arrives on the
/// run loop of the thread that calls `startDownload`, in the default mode, and is also written to
/// the file.
///
/// The delegate is retained. If it retains the download in turn, both stay alive until the delegate
/// releases the download, which it may do in any of its methods.
@interface KPIMDownload : NSObject {
 @private
  NSString* m_downloadPath;
  NSFileHandle* m_downloadFileHandle;
  NSMutableData* m_data;
  unsigned long long m_bytesDownloaded;
  unsigned long long m_bytesTotal;
  int m_downloadState;
  id<KPIMDownloadProgressReceiver> m_downloadDataReceiverDelegate;
  NSURL* m_url;
  NSURLConnection* m_urlConnection;
  bool m_keepDownloadedDataInMemory;
  KPIMLogger* m_logger;
  bool m_asyncModeOn;
  unsigned long long m_mostBytes;
  NSString* m_authoritiesFile;
  int m_statusCode;
  NSString* m_failure;
  bool m_fileIsCutShort;
}

/// Makes a download of `url`, which does not start yet. The body is also written to the file
/// `filename` in `directory`, unless one of the two is nil. No file is written either, and errors
/// are logged, if nothing exists at `directory`, or the name is empty, ".", ".." or contains a
/// slash or a NUL. After a failed write an error is logged, the file is closed as it is, and the
/// rest of the body is kept in memory only. Retains `logger` and `delegate`, either of which may be
/// nil.
- (id)initWithURL:(NSURL*)url
     downloadPath:(NSString*)directory
         filename:(NSString*)filename
           logger:(KPIMLogger*)logger
         delegate:(id<KPIMDownloadProgressReceiver>)delegate
      asyncModeOn:(bool)asyncModeOn;

/// Limits the body in asynchronous mode to `mostBytes` bytes; 0, the initial value, means no limit.
/// As soon as the server announces or sends more, the download is cancelled and logged, and the
/// delegate's `downloadDidFail` is called.
- (void)setMostBytes:(unsigned long long)mostBytes;

/// Makes the connection verify the server against the certificates in the PEM file at `path`; nil,
/// the initial value, means the system's authorities. On macOS this has no effect in synchronous
/// mode. Call it before `startDownload`. If the file cannot be read or has no certificate in it,
/// every server is rejected.
- (void)setAuthoritiesFile:(NSString*)path;

/// Returns the URL that was passed to the initializer.
- (NSURL*)url;

/// Returns, in asynchronous mode, the HTTP status of the last response; 0 before the first one.
- (int)statusCode;

/// Returns, in asynchronous mode, why the connection failed, or that the body exceeded its limit,
/// as text for people. Returns nil in all other cases, also when the file could not be created.
- (NSString*)failure;

/// Removes whatever item is at the download path, a folder with everything in it, and sends the
/// request, without using any cache. The request fails after 60 seconds in which the server sends
/// nothing. In synchronous mode on Linux it also fails after 60 seconds in all, and for a body of
/// more than 256 MiB; on macOS neither the whole time nor the size of the body is limited.
///
/// Returns true when a request was sent, whether or not it succeeds. An earlier request that is
/// still unanswered is cancelled. In asynchronous mode, returns false and logs an error when an
/// earlier request has been answered or has failed.
- (bool)startDownload;

/// Ends a download that the server has begun to answer; the delegate is not called any more.
/// Returns false, and changes nothing, in any state other than `kDownloadStateStarted`.
- (bool)cancelDownload;

/// Returns the body, which the download owns: retain it to keep it longer than the download, or
/// past the next start. In synchronous mode it is empty after a failed request. In asynchronous
/// mode, if the download is not completed, returns nil and logs an error.
- (NSData*)downloadedData;

/// Returns the path of the file that is written, or nil. It is retained and autoreleased, so it is
/// valid even after the download is released.
- (NSString*)getDownloadPath;

@end
