#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMDownload.h"

#import "player/Installers/Mac/KPInstallManager/source/updateServices/NSFileManager+RemoveItem.h"

NSString* const kKPIMAuthoritiesProperty = @"KPIMAuthorities";

namespace {

constexpr NSTimeInterval kTimeOut = 60;

NSString* const kMissingDirectory =
    @"ERROR: The file path passed into the downloader does not exist: %@";
NSString* const kNotPlainName =
    @"ERROR: The file name passed into the downloader is not a plain name: %@";
NSString* const kKeepingInMemory = @"Keeping data in memory instead.";
NSString* const kStartedTwice =
    @"ERROR: Attempted to start a new download on the same KPIMDownload instance.";
NSString* const kReadTooEarly =
    @"ERROR: attempt to access downloaded data before download was completed.";
NSString* const kFileNotCreated = @"ERROR: Could not create file at path: %@";
NSString* const kFileNotWritten = @"ERROR: Could not write file at path: %@";
NSString* const kDownloadFailed = @"ERROR: URL download failed: %@";
NSString* const kTooLarge = @"The reply is longer than %llu bytes.";

NSString* const kNotStarted = @"Download state should be kDownloadStateStarted";
NSString* const kKeptNowhere =
    @"Downloaded data is not kept in memory and also is not saved to disk";
NSString* const kHandleLeft = @"File handle should have been nil.";

// Replaces `field` by a copy of `value`, which may be nil.
void Assign(NSString*& field, NSString* value) {
  NSString* old = field;
  field = [value copy];
  [old release];
}

// Returns the text of `error` for people, followed by the loader's reason.
NSString* FullDescription(NSError* error) {
  NSString* description = [error localizedDescription];
  NSString* reason = [error localizedFailureReason];
  return [reason length] == 0 ? description
                              : [NSString stringWithFormat:@"%@ (%@)", description, reason];
}

// Returns whether `name` is the name of an item in a folder. `startDownload` removes that item, so
// a name that leads out of the folder, or to the folder itself, is refused.
bool IsPlainName(NSString* name) {
  for (NSUInteger i = 0; i < [name length]; ++i) {
    const unichar character = [name characterAtIndex:i];
    if (character == '/' || character == '\0') {
      return false;
    }
  }
  return [name length] > 0 && ![name isEqualToString:@"."] && ![name isEqualToString:@".."];
}

}  // namespace

@interface KPIMDownload (Internal)

- (void)_logError:(NSString*)message;
- (void)_keepInMemoryBecause:(NSString*)reason;
- (void)_failWithReason:(NSString*)reason;
- (void)_dropConnection;
- (NSURLRequest*)_request;
- (bool)_giveUpBeyond:(unsigned long long)bytes;
- (void)_writeChunk:(NSData*)chunk;
- (void)_createFile;
- (void)_closeFile;

@end

@implementation KPIMDownload

- (id)initWithURL:(NSURL*)url
     downloadPath:(NSString*)directory
         filename:(NSString*)filename
           logger:(KPIMLogger*)logger
         delegate:(id<KPIMDownloadProgressReceiver>)delegate
      asyncModeOn:(bool)asyncModeOn {
  self = [super init];
  if (self == nil) {
    // Untested: NSObject's init never returns nil.
    return nil;
  }
  m_asyncModeOn = asyncModeOn;
  m_logger = [logger retain];
  m_url = [url retain];
  m_downloadDataReceiverDelegate = [delegate retain];
  // The path is not set yet, so this is always true: the data is kept in memory even when it is
  // written to a file.
  m_keepDownloadedDataInMemory = m_downloadPath == nil;
  if (directory == nil) {
    return self;
  }
  if (![[NSFileManager defaultManager] fileExistsAtPath:directory]) {
    [self _keepInMemoryBecause:[NSString stringWithFormat:kMissingDirectory, directory]];
  } else if (IsPlainName(filename)) {
    m_downloadPath = [[directory stringByAppendingPathComponent:filename] retain];
  } else if (filename != nil) {
    [self _keepInMemoryBecause:[NSString stringWithFormat:kNotPlainName, filename]];
  }
  return self;
}

- (void)dealloc {
  [m_logger release];
  [m_url release];
  [m_downloadDataReceiverDelegate release];
  [m_downloadPath release];
  [m_downloadFileHandle release];
  [m_data release];
  [m_urlConnection release];
  [m_authoritiesFile release];
  [m_failure release];
  [super dealloc];
}

- (void)setMostBytes:(unsigned long long)mostBytes {
  m_mostBytes = mostBytes;
}

- (void)setAuthoritiesFile:(NSString*)path {
  Assign(m_authoritiesFile, path);
}

- (NSURL*)url {
  return m_url;
}

- (int)statusCode {
  return m_statusCode;
}

- (NSString*)failure {
  return [[m_failure retain] autorelease];
}

- (bool)startDownload {
  if (m_downloadState != kDownloadStateNotStarted) {
    [self _logError:kStartedTwice];
    return false;
  }
  if (m_downloadPath != nil) {
    [[NSFileManager defaultManager] removeItemAtPathIfItExists:m_downloadPath error:nullptr];
  } else if (!m_keepDownloadedDataInMemory) {
    // Untested: every initializer keeps the data in memory.
    return false;
  }

  [self _dropConnection];
  NSURLRequest* request = [self _request];
  [m_data release];
  m_data = nil;
  if (m_asyncModeOn) {
    m_data = [[NSMutableData alloc] init];
    m_urlConnection = [[NSURLConnection alloc] initWithRequest:request delegate:self];
  } else {
    NSData* body = [NSURLConnection sendSynchronousRequest:request
                                         returningResponse:nullptr
                                                     error:nullptr];
    m_data = [[NSMutableData alloc] initWithData:body];
  }
  return true;
}

- (bool)cancelDownload {
  if (m_downloadState != kDownloadStateStarted) {
    return false;
  }
  // The connection releases this object, and may be the last to retain it.
  [[self retain] autorelease];
  [m_urlConnection cancel];
  [self _closeFile];
  m_downloadState = kDownloadStateCancelled;
  return true;
}

- (NSData*)downloadedData {
  if (m_asyncModeOn && m_downloadState != kDownloadStateCompleted) {
    [self _logError:kReadTooEarly];
    return nil;
  }
  return m_data;
}

- (NSString*)getDownloadPath {
  return [[m_downloadPath retain] autorelease];
}

// ---- Delegate of the connection
//
// The delegate may release the download within any of its methods, hence the retains.

- (void)connection:(NSURLConnection*)connection didReceiveResponse:(NSURLResponse*)response {
  (void)connection;
  [[self retain] autorelease];
  // After a redirect a second response replaces the data so far. `m_bytesDownloaded` is not reset.
  [m_data setLength:0];
  const long long length = [response expectedContentLength];
  m_bytesTotal = static_cast<unsigned long long>(length);
  if ([response isKindOfClass:[NSHTTPURLResponse class]]) {
    m_statusCode = static_cast<int>([static_cast<NSHTTPURLResponse*>(response) statusCode]);
  }
  m_downloadState = kDownloadStateStarted;
  if (length > 0) {
    [self _giveUpBeyond:m_bytesTotal];
  }
}

- (void)connection:(NSURLConnection*)connection didReceiveData:(NSData*)chunk {
  (void)connection;
  [[self retain] autorelease];
  if ([self _giveUpBeyond:[m_data length] + [chunk length]]) {
    return;
  }
  [m_logger assert:m_downloadState == kDownloadStateStarted message:kNotStarted];
  // Untested: the second operand, because the data is always kept in memory.
  [m_logger assert:m_keepDownloadedDataInMemory || m_downloadPath != nil message:kKeptNowhere];
  if (m_keepDownloadedDataInMemory) {
    [m_data appendData:chunk];
  }
  if (m_downloadPath != nil) {
    [self _writeChunk:chunk];
  }
  m_bytesDownloaded += [chunk length];
  if ([m_downloadDataReceiverDelegate respondsToSelector:@selector(downloadDidProgress:)]) {
    [m_downloadDataReceiverDelegate downloadDidProgress:static_cast<float>(m_bytesDownloaded) /
                                                        static_cast<float>(m_bytesTotal)];
  }
}

- (void)connectionDidFinishLoading:(NSURLConnection*)connection {
  (void)connection;
  [[self retain] autorelease];
  [m_logger
      logTimeStampedString:[NSString stringWithFormat:@"%d", static_cast<int>([m_data length])]
          withLoggingLevel:kLogLevelInformation];
  [self _closeFile];
  m_downloadState = kDownloadStateCompleted;
  [m_downloadDataReceiverDelegate downloadDidComplete];
}

- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error {
  (void)connection;
  [[self retain] autorelease];
  [self _failWithReason:[error localizedDescription]];
  Assign(m_failure, FullDescription(error));
  [self _closeFile];
  m_downloadState = kDownloadStateFailed;
  [m_downloadDataReceiverDelegate downloadDidFail];
}

@end

@implementation KPIMDownload (Internal)

- (void)_logError:(NSString*)message {
  [m_logger logTimeStampedString:message withLoggingLevel:kLogLevelError];
}

- (void)_keepInMemoryBecause:(NSString*)reason {
  m_keepDownloadedDataInMemory = true;
  [self _logError:reason];
  [self _logError:kKeepingInMemory];
}

- (void)_failWithReason:(NSString*)reason {
  Assign(m_failure, reason);
  [self _logError:[NSString stringWithFormat:kDownloadFailed, reason]];
}

// Ends an earlier request that is still unanswered. Otherwise its answer would be appended to that
// of the next one.
- (void)_dropConnection {
  if (m_urlConnection == nil) {
    return;
  }
  // The connection may be the last object that retains this one.
  [[self retain] autorelease];
  [m_urlConnection cancel];
  [m_urlConnection release];
  m_urlConnection = nil;
}

- (NSURLRequest*)_request {
  NSMutableURLRequest* request =
      [NSMutableURLRequest requestWithURL:m_url
                              cachePolicy:NSURLRequestReloadIgnoringLocalCacheData
                          timeoutInterval:kTimeOut];
  if (m_authoritiesFile != nil) {
    [NSURLProtocol setProperty:m_authoritiesFile forKey:kKPIMAuthoritiesProperty inRequest:request];
  }
  return request;
}

// Cancels the download if a body of `bytes` bytes is too long. Returns whether it is.
- (bool)_giveUpBeyond:(unsigned long long)bytes {
  if (m_mostBytes == 0 || bytes <= m_mostBytes) {
    return false;
  }
  if ([self cancelDownload]) {
    [self _failWithReason:[NSString stringWithFormat:kTooLarge, m_mostBytes]];
    [m_downloadDataReceiverDelegate downloadDidFail];
  }
  return true;
}

// Appends `chunk` to the file, which the first chunk creates. Writes nothing to a file that another
// process has created there since the start, nor to any file after a failed write.
- (void)_writeChunk:(NSData*)chunk {
  if (m_fileIsCutShort) {
    return;
  }
  if (![[NSFileManager defaultManager] fileExistsAtPath:m_downloadPath]) {
    [self _createFile];
  }
  @try {
    [m_downloadFileHandle seekToEndOfFile];
    [m_downloadFileHandle writeData:chunk];
  } @catch (NSException*) {
    // A handle raises an exception when the disk is full. The rest of the body is kept in memory
    // only: a file with a hole in it would be worse than a short one.
    m_fileIsCutShort = true;
    [self _logError:[NSString stringWithFormat:kFileNotWritten, m_downloadPath]];
    [self _closeFile];
  }
}

// Creates the file and opens it. After a failure the rest of the chunk is still processed.
- (void)_createFile {
  NSFileManager* fileManager = [NSFileManager defaultManager];
  if (![fileManager createFileAtPath:m_downloadPath contents:nil attributes:nil]) {
    [self _logError:[NSString stringWithFormat:kFileNotCreated, m_downloadPath]];
    [self cancelDownload];
    [m_downloadDataReceiverDelegate downloadDidFail];
  }
  [m_logger assert:m_downloadFileHandle == nil message:kHandleLeft];
  [m_downloadFileHandle release];
  m_downloadFileHandle = [[NSFileHandle fileHandleForWritingAtPath:m_downloadPath] retain];
}

// Closes the file, if it is open, and releases the handle: a closed handle raises an exception when
// it is used or closed again.
- (void)_closeFile {
  [m_downloadFileHandle closeFile];
  [m_downloadFileHandle release];
  m_downloadFileHandle = nil;
}

@end
