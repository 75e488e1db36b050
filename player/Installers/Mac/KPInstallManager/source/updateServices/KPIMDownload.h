// One download of one URL, into memory and, when asked, into a file.
#pragma once

#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

/// How far a download in asynchronous mode has come. The last three are final.
enum : int {
  /// Also after `startDownload`, until the server answers or the connection fails.
  kDownloadStateNotStarted = 0,
  kDownloadStateStarted = 1,
  kDownloadStateCompleted = 2,
  kDownloadStateCancelled = 3,
  kDownloadStateFailed = 4,
};

/// Name of the request's property (NSURLProtocol) that holds the path of the file with the
/// authorities, for loaders that verify certificates themselves.
extern NSString* const kKPIMAuthoritiesProperty;

/// Hears how a download in asynchronous mode goes, on the thread that started it.
@protocol KPIMDownloadProgressReceiver <NSObject>

/// The body has arrived whole.
- (void)downloadDidComplete;

/// The connection failed, the download's file could not be created, or the body exceeds its bound;
/// in the latter two cases the download is cancelled.
- (void)downloadDidFail;

@optional

/// After each chunk: the fraction of the body that has arrived. It is infinite when the server
/// announced an empty body, next to 0 when it announced no length, and may exceed 1 after a
/// redirect.
- (void)downloadDidProgress:(float)fraction;

@end

/// Fetches one URL once. The body is always kept in memory.
///
/// In synchronous mode `startDownload` blocks until the body is there; the delegate hears nothing,
/// no file is written and the state stays 0. In asynchronous mode the body arrives on the run loop
/// of the thread that calls `startDownload`, in the default mode, and goes into the file too.
///
/// The delegate is retained: it and the download may keep each other alive until the delegate
/// releases the download, which it may do from within any of its methods.
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
}

/// A download of `url` that has not started. `directory` and `filename` name the file to write;
/// there is none when either is missing, or when the name is not that of an item of the directory:
/// empty, ".", ".." or with a slash or NUL in it. A directory that does not exist is logged and
/// gives no file either. Retains `logger` and `delegate`, either of which may be nil.
- (id)initWithURL:(NSURL*)url
     downloadPath:(NSString*)directory
         filename:(NSString*)filename
           logger:(KPIMLogger*)logger
         delegate:(id<KPIMDownloadProgressReceiver>)delegate
      asyncModeOn:(bool)asyncModeOn;

/// Bounds the body, in bytes, in asynchronous mode; 0, as at first, for no bound. As soon as the
/// server announces or sends more, the download is cancelled, with a line in the log, and the
/// delegate's `downloadDidFail` is called.
- (void)setMostBytes:(unsigned long long)mostBytes;

/// Has the server's certificate verified against the certificates of the PEM file at `path` instead
/// of the system's authorities; nil, as at first, for these. Before `startDownload`. A file that
/// cannot be read, or has no certificate in it, verifies no server.
- (void)setAuthoritiesFile:(NSString*)path;

/// What is fetched, as it was given to the initializer.
- (NSURL*)url;

/// In asynchronous mode: the HTTP status of the last response; 0 before the first one.
- (int)statusCode;

/// In asynchronous mode: why the download failed, as text for people; nil unless it did.
- (NSString*)failure;

/// Sends the request, past all caches, and removes the file of an earlier download. In asynchronous
/// mode the server may be silent for 60 seconds at a time. In synchronous mode the call returns
/// after 60 seconds at the latest on Linux, where it also fails for a body of more than 256 MiB; on
/// macOS the server may be silent for 60 seconds at a time, and neither the time in all nor the
/// body has a bound. Returns true when a request was sent, whatever comes of it; false, with a line
/// in the log, when the server has answered an earlier one or that one has failed, even without an
/// answer. An earlier one that is still unanswered is dropped for the new one.
- (bool)startDownload;

/// Ends a download that the server has begun to answer; the delegate hears nothing more. Returns
/// false, and changes nothing, in any state but `kDownloadStateStarted`.
- (bool)cancelDownload;

/// The body. In asynchronous mode nil, with a line in the log, unless the download is completed.
- (NSData*)downloadedData;

/// The path of the file that is written, or nil. Retained and autoreleased: it outlives the
/// download.
- (NSString*)getDownloadPath;

@end
