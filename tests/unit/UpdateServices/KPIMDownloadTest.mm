#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMDownload.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <vector>

#include "tests/unit/UpdateServices/ConnectionRecorder.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

// ---- Delegates that record

/// Implements what the protocol requires.
@interface PlainReceiver : NSObject <KPIMDownloadProgressReceiver> {
 @public
  std::vector<std::string> events;
}
@end

@implementation PlainReceiver

- (void)downloadDidComplete {
  events.push_back("complete");
}

- (void)downloadDidFail {
  events.push_back("fail");
}

@end

@interface ProgressReceiver : PlainReceiver {
 @public
  std::vector<float> fractions;
}
@end

@implementation ProgressReceiver

- (void)downloadDidProgress:(float)fraction {
  events.push_back("progress");
  fractions.push_back(fraction);
}

@end

/// Counts deallocations.
@interface WatchedDownload : KPIMDownload
@end

namespace {
int s_downloadsGone;
}

@implementation WatchedDownload

- (void)dealloc {
  ++s_downloadsGone;
  [super dealloc];
}

@end

/// Releases its download in one of its methods.
@interface ReleasingReceiver : ProgressReceiver {
 @public
  KPIMDownload* download;
  std::string when;
  int goneWhileTold;
}
@end

@implementation ReleasingReceiver

- (void)releaseIfTold:(const std::string&)event {
  if (event == when) {
    [download release];
    goneWhileTold = s_downloadsGone;
  }
}

- (void)downloadDidComplete {
  [super downloadDidComplete];
  [self releaseIfTold:"complete"];
}

- (void)downloadDidFail {
  [super downloadDidFail];
  [self releaseIfTold:"fail"];
}

- (void)downloadDidProgress:(float)fraction {
  [super downloadDidProgress:fraction];
  [self releaseIfTold:"progress"];
}

@end

/// Tries the download again as soon as it fails.
@interface RetryingReceiver : ProgressReceiver {
 @public
  KPIMDownload* download;
}
@end

@implementation RetryingReceiver

- (void)downloadDidFail {
  events.push_back([download startDownload] ? "started" : "refused");
}

@end

/// A response that announces any length, -1 for none.
@interface LengthResponse : NSObject {
  long long _length;
}
- (id)initWithLength:(long long)length;
- (long long)expectedContentLength;
@end

@implementation LengthResponse

- (id)initWithLength:(long long)length {
  self = [super init];
  _length = length;
  return self;
}

- (long long)expectedContentLength {
  return _length;
}

@end

/// The callbacks of the connection, as the download implements them.
@interface NSObject (ConnectionCallbacks)
- (void)connection:(NSURLConnection*)connection didReceiveResponse:(NSURLResponse*)response;
- (void)connection:(NSURLConnection*)connection didReceiveData:(NSData*)data;
- (void)connectionDidFinishLoading:(NSURLConnection*)connection;
- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error;
@end

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kTooEarly[] =
    "[E] ERROR: attempt to access downloaded data before download was completed.";
const std::string kMissingDirectory =
    "[E] ERROR: The file path passed into the downloader does not exist: ";
const std::string kNotPlainName =
    "[E] ERROR: The file name passed into the downloader is not a plain name: ";
constexpr char kKeepingInMemory[] = "[E] Keeping data in memory instead.";
const std::string kFileNotCreated = "[E] ERROR: Could not create file at path: ";
const std::string kFileNotWritten = "[E] ERROR: Could not write file at path: ";
constexpr char kStartedTwice[] =
    "[E] ERROR: Attempted to start a new download on the same KPIMDownload instance.";
constexpr char kNotStarted[] =
    "[W] ASSERTION FAILED: Download state should be kDownloadStateStarted";
constexpr char kHandleLeft[] = "[W] ASSERTION FAILED: File handle should have been nil.";

std::string Bytes(NSData* data) {
  return data == nil ? "(absent)"
                     : std::string(static_cast<const char*>([data bytes]), [data length]);
}

class KPIMDownloadTest : public testing::Test {
 protected:
  KPIMDownloadTest() {
    [logger_ setLoggingLevel:kLogLevelDetail];
    fs::create_directory(Directory());
  }
  ~KPIMDownloadTest() override {
    [download_ release];
    [receiver_ release];
    [logger_ release];
    [pool_ release];
  }

  std::string Directory() { return folder_ / "downloads"; }
  std::string File() { return folder_ / "downloads/body"; }

  void Make(bool asyncModeOn, NSString* directory = nil, NSString* filename = nil) {
    download_ = [[KPIMDownload alloc] initWithURL:url_
                                     downloadPath:directory
                                         filename:filename
                                           logger:logger_
                                         delegate:receiver_
                                      asyncModeOn:asyncModeOn];
    ASSERT_NE(nil, download_);
  }
  void MakeWithFile() { Make(true, String(Directory()), @"body"); }
  void StartWithFile() {
    MakeWithFile();
    EXPECT_TRUE([download_ startDownload]);
  }

  void Respond(long long length) {
    LengthResponse* response = [[LengthResponse alloc] initWithLength:length];
    [download_ connection:nil didReceiveResponse:(NSURLResponse*)response];
    [response release];
  }
  void Receive(const std::string& bytes) {
    [download_ connection:nil
           didReceiveData:[NSData dataWithBytes:bytes.data() length:bytes.size()]];
  }
  void Finish() { [download_ connectionDidFinishLoading:nil]; }
  void Fail(NSString* description = @"reason") {
    NSDictionary* info = [NSDictionary dictionaryWithObject:description
                                                     forKey:NSLocalizedDescriptionKey];
    [download_ connection:nil
         didFailWithError:[NSError errorWithDomain:NSURLErrorDomain code:-1 userInfo:info]];
  }

  /// What was logged since the last call, without the time stamps.
  std::vector<std::string> Log() {
    std::istringstream text(ReadWholeFile(folder_ / "log").substr(logged_));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      logged_ += line.size() + 1;
      lines.push_back(line.substr(std::string("2026-11-16 07:14:00 +0000 ").size()));
    }
    return lines;
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
  ConnectionRecorder network_;
  KPIMLogger* logger_ = [[KPIMLogger alloc] initWithPath:String(folder_ / "log")];
  ProgressReceiver* receiver_ = [[ProgressReceiver alloc] init];
  NSURL* url_ = [NSURL URLWithString:@"https://download.tarvix.example/file"];
  KPIMDownload* download_ = nil;

 private:
  size_t logged_ = 0;
};

// ---- Status and failure

TEST_F(KPIMDownloadTest, StatusIsThatOfTheLastResponse) {
  Make(true);
  EXPECT_TRUE([[download_ url] isEqual:url_]);
  [download_ startDownload];
  EXPECT_EQ(0, [download_ statusCode]);
  [download_ connection:nil didReceiveResponse:HTTPResponse(url_, 302)];
  EXPECT_EQ(302, [download_ statusCode]);
  [download_ connection:nil didReceiveResponse:HTTPResponse(url_, 404)];
  EXPECT_EQ(404, [download_ statusCode]);
  Respond(5);
  EXPECT_EQ(404, [download_ statusCode]) << "a response of another protocol has none";
  EXPECT_EQ(nil, [download_ failure]);
}

TEST_F(KPIMDownloadTest, FailureHasTheLoadersOwnWordsUnlikeTheLog) {
  Make(true);
  [download_ startDownload];
  NSDictionary* info = [NSDictionary
      dictionaryWithObjectsAndKeys:@"It failed.", NSLocalizedDescriptionKey, @"no route",
                                   NSLocalizedFailureReasonErrorKey, nil];
  [download_ connection:nil
       didFailWithError:[NSError errorWithDomain:NSURLErrorDomain code:-1 userInfo:info]];
  EXPECT_EQ("It failed. (no route)", Text([download_ failure]));
  EXPECT_THAT(Log(), ElementsAre("[E] ERROR: URL download failed: It failed."));
}

TEST_F(KPIMDownloadTest, FailureOfABodyThatIsTooLong) {
  Make(true);
  [download_ setMostBytes:3];
  [download_ startDownload];
  Respond(4);
  EXPECT_EQ("The reply is longer than 3 bytes.", Text([download_ failure]));
}

TEST_F(KPIMDownloadTest, AuthoritiesAreAPropertyOfTheRequest) {
  Make(true);
  [download_ startDownload];
  EXPECT_EQ(nil, [NSURLProtocol propertyForKey:kKPIMAuthoritiesProperty
                                     inRequest:network_.request()]);
  [download_ setAuthoritiesFile:@"/other.pem"];
  [download_ setAuthoritiesFile:@"/own.pem"];
  [download_ startDownload];
  EXPECT_EQ("/own.pem", Text([NSURLProtocol propertyForKey:kKPIMAuthoritiesProperty
                                                 inRequest:network_.request()]));
}

// ---- Making one

TEST_F(KPIMDownloadTest, KeepsWhatItIsGivenUntilItGoes) {
  NSURL* url = [[NSURL alloc] initWithString:@"https://download.tarvix.example/file"];
  url_ = url;
  const NSUInteger counts[] = {[logger_ retainCount], [receiver_ retainCount], [url retainCount]};
  Make(true);
  EXPECT_EQ(counts[0] + 1, [logger_ retainCount]);
  EXPECT_EQ(counts[1] + 1, [receiver_ retainCount]) << "the delegate is retained";
  EXPECT_EQ(counts[2] + 1, [url retainCount]);
  [download_ release];
  download_ = nil;
  EXPECT_EQ(counts[0], [logger_ retainCount]);
  EXPECT_EQ(counts[1], [receiver_ retainCount]);
  EXPECT_EQ(counts[2], [url retainCount]);
  [url release];
}

TEST_F(KPIMDownloadTest, WithoutADirectoryThereIsNoFile) {
  Make(true, nil, @"body");
  EXPECT_EQ(nil, [download_ getDownloadPath]);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(KPIMDownloadTest, WithoutANameThereIsNoFile) {
  Make(true, String(Directory()), nil);
  EXPECT_EQ(nil, [download_ getDownloadPath]);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(KPIMDownloadTest, NameThatNamesNoItemOfTheDirectoryGivesNoFile) {
  WriteWholeFile(File(), "precious");
  fs::create_directory(Directory() + "/sub");
  WriteWholeFile(Directory() + "/sub/body", "precious");
  WriteWholeFile(folder_ / "above", "precious");
  const std::string names[] = {"",
                               ".",
                               "..",
                               "/",
                               "//",
                               "./",
                               "../",
                               "/.",
                               "body/",
                               "/body",
                               "sub/body",
                               "../above",
                               "sub/..",
                               std::string("\0", 1),
                               std::string("body\0", 5)};
  for (const std::string& name : names) {
    Make(true, String(Directory()),
         [[[NSString alloc] initWithBytes:name.data()
                                   length:name.size()
                                 encoding:NSUTF8StringEncoding] autorelease]);
    EXPECT_EQ("(absent)", Text([download_ getDownloadPath])) << name;
    EXPECT_TRUE([download_ startDownload]) << "into memory";
    EXPECT_EQ("precious", ReadWholeFile(File())) << name;
    EXPECT_EQ("precious", ReadWholeFile(Directory() + "/sub/body")) << name;
    EXPECT_EQ("precious", ReadWholeFile(folder_ / "above")) << name;
    EXPECT_THAT(Log(), ElementsAre(kNotPlainName + name, kKeepingInMemory));
    [download_ release];
    download_ = nil;
  }
}

TEST_F(KPIMDownloadTest, MissingDirectoryIsLoggedBeforeTheName) {
  Make(true, String(folder_ / "missing"), @"..");
  EXPECT_THAT(Log(), ElementsAre(kMissingDirectory + (folder_ / "missing"), kKeepingInMemory));
}

TEST_F(KPIMDownloadTest, MissingDirectoryIsLoggedWithoutAName) {
  Make(true, String(folder_ / "missing"), nil);
  EXPECT_THAT(Log(), ElementsAre(kMissingDirectory + (folder_ / "missing"), kKeepingInMemory));
}

TEST_F(KPIMDownloadTest, DirectoryMayBeAnyItemThatExists) {
  WriteWholeFile(folder_ / "item", "precious");
  Make(true, String(folder_ / "item"), @"body");
  EXPECT_EQ((folder_ / "item") + "/body", Text([download_ getDownloadPath]));
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_TRUE([download_ startDownload]);
  Respond(4);
  Receive("body");
  EXPECT_THAT(Log(), ElementsAre(kFileNotCreated + (folder_ / "item") + "/body"));
  EXPECT_EQ("precious", ReadWholeFile(folder_ / "item"));
}

TEST_F(KPIMDownloadTest, OddNameOfAnItemIsAName) {
  for (const std::string& name : {"...", ".body", "a..b", "~", " ", "\\", "body\\", "C:"}) {
    WriteWholeFile(File(), "precious");
    Make(true, String(Directory()), String(name));
    EXPECT_EQ(Directory() + "/" + name, Text([download_ getDownloadPath]));
    EXPECT_TRUE([download_ startDownload]);
    EXPECT_EQ("precious", ReadWholeFile(File())) << name;
    [download_ release];
    download_ = nil;
  }
}

TEST_F(KPIMDownloadTest, AnExistingDirectoryGetsTheFile) {
  MakeWithFile();
  EXPECT_EQ(File(), Text([download_ getDownloadPath]));
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_FALSE(fs::exists(File())) << "not before the first chunk";
}

TEST_F(KPIMDownloadTest, PathOutlivesTheDownload) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  MakeWithFile();
  [pool release];
  NSString* path = [download_ getDownloadPath];
  EXPECT_EQ(2u, [path retainCount]) << "the download's, and the pool's";
  [download_ release];
  download_ = nil;
  EXPECT_EQ(File(), Text(path));
}

TEST_F(KPIMDownloadTest, AMissingDirectoryIsLoggedAndMemoryUsedInstead) {
  Make(true, String(folder_ / "missing"), @"body");
  EXPECT_EQ(nil, [download_ getDownloadPath]);
  EXPECT_THAT(Log(), ElementsAre(kMissingDirectory + (folder_ / "missing"), kKeepingInMemory));
  EXPECT_TRUE([download_ startDownload]);
  Respond(4);
  Receive("body");
  Finish();
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
  EXPECT_FALSE(fs::exists(folder_ / "missing"));
}

TEST_F(KPIMDownloadTest, WorksWithoutLoggerAndDelegate) {
  [logger_ release];
  [receiver_ release];
  logger_ = nil;
  receiver_ = nil;
  StartWithFile();
  Respond(4);
  Receive("body");
  Finish();
  Fail();
  EXPECT_EQ("body", ReadWholeFile(File()));
}

// ---- Synchronous mode

TEST_F(KPIMDownloadTest, SynchronousModeHasTheBodyAtOnce) {
  network_.SetReply([NSData dataWithBytes:"body" length:4]);
  Make(false);
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ("https://download.tarvix.example/file",
            Text([[network_.request() URL] absoluteString]));
  EXPECT_EQ(1u, static_cast<unsigned>([network_.request() cachePolicy]));
  EXPECT_EQ(60, [network_.request() timeoutInterval]);
  EXPECT_FALSE(network_.askedForMore());
  EXPECT_EQ(0, network_.connections());
  EXPECT_EQ("body", Bytes([download_ downloadedData])) << "in state 0";
  EXPECT_FALSE([download_ cancelDownload]) << "the state is still 0";
  EXPECT_THAT(receiver_->events, IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(KPIMDownloadTest, SynchronousModeWritesNoFileButRemovesTheOldOne) {
  WriteWholeFile(File(), "old");
  network_.SetReply([NSData dataWithBytes:"body" length:4]);
  Make(false, String(Directory()), @"body");
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_FALSE(fs::exists(File()));
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
}

TEST_F(KPIMDownloadTest, SynchronousModeHasAnEmptyBodyAfterAFailure) {
  Make(false);
  EXPECT_EQ("(absent)", Bytes([download_ downloadedData])) << "before the start";
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ("", Bytes([download_ downloadedData]));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(KPIMDownloadTest, SynchronousModeMayStartAgain) {
  Make(false);
  EXPECT_TRUE([download_ startDownload]);
  network_.SetReply([NSData dataWithBytes:"two" length:3]);
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ("two", Bytes([download_ downloadedData]));
  EXPECT_EQ(2, network_.requests());
}

// ---- Asynchronous mode

TEST_F(KPIMDownloadTest, AsynchronousModeConnects) {
  Make(true);
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ("https://download.tarvix.example/file",
            Text([[network_.request() URL] absoluteString]));
  EXPECT_EQ(1u, static_cast<unsigned>([network_.request() cachePolicy]));
  EXPECT_EQ(60, [network_.request() timeoutInterval]);
  EXPECT_EQ(download_, network_.delegate());
  EXPECT_EQ(1, network_.connections());
  [download_ release];
  download_ = nil;
  EXPECT_EQ(0, network_.connections());
}

// ---- A bound on the body

constexpr char kTooLong[] = "[E] ERROR: URL download failed: The reply is longer than 4 bytes.";

TEST_F(KPIMDownloadTest, BodyWithinTheBoundArrives) {
  Make(true);
  [download_ setMostBytes:4];
  EXPECT_TRUE([download_ startDownload]);
  Respond(4);
  Receive("bo");
  Receive("dy");
  Finish();
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
}

TEST_F(KPIMDownloadTest, BodyBeyondTheBoundIsGivenUpAsItArrives) {
  MakeWithFile();
  [download_ setMostBytes:4];
  EXPECT_TRUE([download_ startDownload]);
  Respond(-1);
  Receive("bod");
  Receive("ies");
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_THAT(receiver_->events, ElementsAre("progress", "fail"));
  EXPECT_EQ("bod", ReadWholeFile(File()));
  Receive("more");
  EXPECT_THAT(receiver_->events, ElementsAre("progress", "fail")) << "once";
  EXPECT_THAT(Log(), ElementsAre(kTooLong));
  EXPECT_FALSE([download_ startDownload]);
}

TEST_F(KPIMDownloadTest, AnnouncedLengthBeyondTheBoundIsGivenUpAtOnce) {
  Make(true);
  [download_ setMostBytes:4];
  EXPECT_TRUE([download_ startDownload]);
  Respond(5);
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_THAT(receiver_->events, ElementsAre("fail"));
  EXPECT_THAT(Log(), ElementsAre(kTooLong));
}

TEST_F(KPIMDownloadTest, BoundIsOfTheLastResponse) {
  Make(true);
  [download_ setMostBytes:4];
  EXPECT_TRUE([download_ startDownload]);
  Respond(-1);
  Receive("here");
  Respond(-1);
  Receive("body");
  Finish();
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
}

TEST_F(KPIMDownloadTest, ReceiverMayReleaseADownloadThatIsGivenUp) {
  [receiver_ release];
  auto* receiver = [[ReleasingReceiver alloc] init];
  receiver_ = receiver;
  receiver->when = "fail";
  Make(true);
  receiver->download = download_;
  [download_ setMostBytes:4];
  EXPECT_TRUE([download_ startDownload]);
  Respond(5);
  download_ = nil;
  EXPECT_THAT(receiver->events, ElementsAre("fail"));
}

TEST_F(KPIMDownloadTest, BodyGoesIntoMemoryAndIntoTheFile) {
  WriteWholeFile(File(), "old and longer");
  StartWithFile();
  EXPECT_FALSE(fs::exists(File())) << "the start removes it";
  Respond(6);
  Receive("abc");
  Receive("def");
  EXPECT_EQ("abcdef", ReadWholeFile(File()));
  Finish();
  EXPECT_EQ("abcdef", Bytes([download_ downloadedData]));
  EXPECT_EQ("abcdef", ReadWholeFile(File()));
  EXPECT_THAT(receiver_->events, ElementsAre("progress", "progress", "complete"));
  EXPECT_THAT(receiver_->fractions, ElementsAre(0.5F, 1.0F));
  EXPECT_THAT(Log(), ElementsAre("[I] 6"));
}

TEST_F(KPIMDownloadTest, ProgressIsOptional) {
  PlainReceiver* plain = [[PlainReceiver alloc] init];
  [receiver_ release];
  receiver_ = (ProgressReceiver*)plain;
  Make(true);
  [download_ startDownload];
  Respond(4);
  Receive("body");
  Finish();
  EXPECT_THAT(plain->events, ElementsAre("complete"));
}

TEST_F(KPIMDownloadTest, FractionOfAnUnknownLengthIsNearNothing) {
  Make(true);
  [download_ startDownload];
  Respond(-1);
  Receive("abc");
  ASSERT_EQ(1u, receiver_->fractions.size());
  EXPECT_GT(receiver_->fractions[0], 0.0F);
  EXPECT_LT(receiver_->fractions[0], 1e-18F);
}

TEST_F(KPIMDownloadTest, FractionOfAnEmptyLengthIsInfinite) {
  Make(true);
  [download_ startDownload];
  Respond(0);
  Receive("abc");
  EXPECT_THAT(receiver_->fractions, ElementsAre(std::numeric_limits<float>::infinity()));
}

TEST_F(KPIMDownloadTest, FractionIsOfFloats) {
  Make(true);
  [download_ startDownload];
  // One more than a float can represent: the quotient of doubles, narrowed, is another one.
  Respond(16777217);
  Receive("a");
  EXPECT_THAT(receiver_->fractions, ElementsAre(1.0F / 16777216.0F));
}

TEST_F(KPIMDownloadTest, RedirectDropsTheBodyButNotTheCount) {
  Make(true);
  [download_ startDownload];
  Respond(4);
  Receive("gone");
  Respond(4);
  Receive("new!");
  Finish();
  EXPECT_EQ("new!", Bytes([download_ downloadedData]));
  EXPECT_THAT(receiver_->fractions, ElementsAre(1.0F, 2.0F));
  EXPECT_THAT(Log(), ElementsAre("[I] 4"));
}

TEST_F(KPIMDownloadTest, FailureIsLoggedAndTold) {
  StartWithFile();
  Respond(10);
  Receive("half");
  Fail(@"The network connection was lost.");
  EXPECT_THAT(receiver_->events, ElementsAre("progress", "fail"));
  EXPECT_THAT(Log(), ElementsAre("[E] ERROR: URL download failed: The network connection was "
                                 "lost."));
  EXPECT_EQ(nil, [download_ downloadedData]);
  EXPECT_THAT(Log(), ElementsAre(kTooEarly));
  EXPECT_EQ("half", ReadWholeFile(File())) << "the file stays as it is";
}

TEST_F(KPIMDownloadTest, DataIsThereOnlyWhenCompleted) {
  Make(true);
  EXPECT_EQ(nil, [download_ downloadedData]);
  [download_ startDownload];
  EXPECT_EQ(nil, [download_ downloadedData]);
  Respond(4);
  EXPECT_EQ(nil, [download_ downloadedData]);
  Receive("body");
  EXPECT_EQ(nil, [download_ downloadedData]);
  EXPECT_THAT(Log(), ElementsAre(kTooEarly, kTooEarly, kTooEarly, kTooEarly));
  Finish();
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
  EXPECT_THAT(Log(), ElementsAre("[I] 4"));
}

// ---- Starting twice

TEST_F(KPIMDownloadTest, SecondStartBeforeTheResponseStartsAgain) {
  Make(true);
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ(2, network_.requests());
  EXPECT_EQ(1, network_.connections()) << "the first is released";
  EXPECT_EQ(1, network_.cancelled()) << "it feeds the download no longer";
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(KPIMDownloadTest, FirstStartCancelsNothing) {
  Make(true);
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ(0, network_.cancelled());
}

TEST_F(KPIMDownloadTest, SecondStartIsRefusedFromTheResponseOn) {
  Make(true);
  [download_ startDownload];
  Respond(4);
  EXPECT_FALSE([download_ startDownload]);
  Finish();
  EXPECT_FALSE([download_ startDownload]);
  Fail();
  EXPECT_FALSE([download_ startDownload]);
  EXPECT_THAT(Log(), ElementsAre(kStartedTwice, "[I] 0", kStartedTwice,
                                 "[E] ERROR: URL download failed: reason", kStartedTwice));
  EXPECT_EQ(1, network_.requests());
}

TEST_F(KPIMDownloadTest, RefusedStartKeepsTheFile) {
  StartWithFile();
  Respond(4);
  Receive("body");
  EXPECT_FALSE([download_ startDownload]);
  EXPECT_EQ("body", ReadWholeFile(File()));
  Finish();
  EXPECT_FALSE([download_ startDownload]);
  EXPECT_EQ("body", ReadWholeFile(File()));
}

TEST_F(KPIMDownloadTest, CancelledDownloadDoesNotStartAgain) {
  Make(true);
  [download_ startDownload];
  Respond(4);
  EXPECT_TRUE([download_ cancelDownload]);
  EXPECT_FALSE([download_ startDownload]);
  EXPECT_THAT(Log(), ElementsAre(kStartedTwice));
}

// ---- Cancelling

TEST_F(KPIMDownloadTest, CancelsOnlyWhatTheServerHasBegun) {
  StartWithFile();
  EXPECT_FALSE([download_ cancelDownload]) << "state 0";
  EXPECT_EQ(0, network_.cancelled());
  Respond(4);
  Receive("bo");
  EXPECT_TRUE([download_ cancelDownload]);
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_FALSE([download_ cancelDownload]) << "state 3";
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_EQ(nil, [download_ downloadedData]);
  EXPECT_THAT(receiver_->events, ElementsAre("progress")) << "the delegate hears nothing more";
  EXPECT_EQ("bo", ReadWholeFile(File()));
}

TEST_F(KPIMDownloadTest, CancelsNothingThatHasEnded) {
  Make(true);
  [download_ startDownload];
  Respond(0);
  Finish();
  EXPECT_FALSE([download_ cancelDownload]) << "state 2";
  EXPECT_NE(nil, [download_ downloadedData]);
  Fail();
  EXPECT_FALSE([download_ cancelDownload]) << "state 4";
  EXPECT_EQ(0, network_.cancelled());
}

TEST_F(KPIMDownloadTest, LateCallbacksDoNotRaise) {
  StartWithFile();
  Respond(8);
  Receive("body");
  [download_ cancelDownload];
  Receive("late");
  EXPECT_THAT(Log(), ElementsAre(kNotStarted));
  EXPECT_EQ("body", ReadWholeFile(File())) << "nothing is written to a file that is closed";
  Finish();
  Fail();
  EXPECT_THAT(receiver_->events, ElementsAre("progress", "progress", "complete", "fail"));
}

TEST_F(KPIMDownloadTest, LateChunkAfterTheEndStaysOutOfTheFile) {
  for (const bool finishes : {true, false}) {
    StartWithFile();
    Respond(8);
    Receive("body");
    finishes ? Finish() : Fail();
    Receive("late");
    EXPECT_EQ("body", ReadWholeFile(File())) << finishes;
    [download_ release];
    download_ = nil;
  }
}

// ---- Receivers that act while they are notified

TEST_F(KPIMDownloadTest, FailedDownloadCannotBeStartedByWhomItTells) {
  RetryingReceiver* retrying = [[RetryingReceiver alloc] init];
  [receiver_ release];
  receiver_ = retrying;
  StartWithFile();
  retrying->download = download_;
  Fail();
  EXPECT_THAT(retrying->events, ElementsAre("refused"));
  [download_ release];

  StartWithFile();
  retrying->download = download_;
  Respond(4);
  fs::remove(Directory());
  Receive("body");
  EXPECT_THAT(retrying->events, ElementsAre("refused", "refused", "progress"));
  EXPECT_EQ(2, network_.requests());
}

/// A download that only its receiver and its connection retain.
class ReleasedDownloadTest : public KPIMDownloadTest {
 protected:
  ReleasedDownloadTest() { s_downloadsGone = 0; }

  void StartReleasedOn(const std::string& event) {
    network_.MakeConnectionsRetainDelegates();
    ReleasingReceiver* releasing = [[ReleasingReceiver alloc] init];
    [receiver_ release];
    receiver_ = releasing;
    download_ = [[WatchedDownload alloc] initWithURL:url_
                                        downloadPath:String(Directory())
                                            filename:@"body"
                                              logger:logger_
                                            delegate:receiver_
                                         asyncModeOn:true];
    releasing->download = download_;
    releasing->when = event;
    EXPECT_TRUE([download_ startDownload]);
  }
  /// Makes the connection release the download, as it does at its end.
  void DropConnection() { [(NSURLConnection*)network_.connection() cancel]; }
  void ExpectGoneOnlyAfterwards() {
    EXPECT_EQ(0, ((ReleasingReceiver*)receiver_)->goneWhileTold);
    EXPECT_EQ(0, s_downloadsGone);
    download_ = nil;
    [pool_ release];
    pool_ = nil;
    EXPECT_EQ(1, s_downloadsGone);
  }
};

TEST_F(ReleasedDownloadTest, OnAFileThatCannotBeCreated) {
  StartReleasedOn("fail");
  Respond(8);
  fs::remove(Directory());
  Receive("body");
  EXPECT_THAT(receiver_->events, ElementsAre("fail", "progress"));
  ExpectGoneOnlyAfterwards();
}

TEST_F(ReleasedDownloadTest, OnProgress) {
  StartReleasedOn("progress");
  Respond(8);
  DropConnection();
  Receive("body");
  ExpectGoneOnlyAfterwards();
}

TEST_F(ReleasedDownloadTest, OnFailure) {
  StartReleasedOn("fail");
  Respond(8);
  DropConnection();
  Fail();
  ExpectGoneOnlyAfterwards();
}

TEST_F(ReleasedDownloadTest, OnCompletion) {
  StartReleasedOn("complete");
  Respond(8);
  DropConnection();
  Finish();
  ExpectGoneOnlyAfterwards();
}

TEST_F(ReleasedDownloadTest, BeforeItIsCancelled) {
  StartReleasedOn("");
  Respond(8);
  [download_ release];
  EXPECT_TRUE([download_ cancelDownload]);
  ExpectGoneOnlyAfterwards();
}

TEST_F(ReleasedDownloadTest, BeforeItStartsAgain) {
  StartReleasedOn("");
  [download_ release];
  EXPECT_TRUE([download_ startDownload]);
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_EQ(0, s_downloadsGone);
  DropConnection();
  ExpectGoneOnlyAfterwards();
}

// ---- The file

TEST_F(KPIMDownloadTest, ChunkBeforeTheResponseIsLoggedAndKept) {
  StartWithFile();
  Receive("early");
  EXPECT_THAT(Log(), ElementsAre(kNotStarted));
  EXPECT_EQ("early", ReadWholeFile(File()));
}

TEST_F(KPIMDownloadTest, ChunkBeforeTheResponseWhoseFileCannotBeCreatedCancelsNothing) {
  StartWithFile();
  fs::remove(Directory());
  Receive("early");
  EXPECT_THAT(Log(), ElementsAre(kNotStarted, kFileNotCreated + File()));
  EXPECT_THAT(receiver_->events, ElementsAre("fail", "progress"));
  EXPECT_EQ(0, network_.cancelled());
  Respond(4);
  fs::create_directory(Directory());
  Receive("body");
  Finish();
  EXPECT_EQ("body", ReadWholeFile(File()));
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
  EXPECT_THAT(receiver_->events, ElementsAre("fail", "progress", "progress", "complete"));
}

TEST_F(KPIMDownloadTest, ChunkIsAppendedToWhatAnotherHasWrittenMeanwhile) {
  StartWithFile();
  Respond(6);
  Receive("abc");
  {
    std::ofstream file(File(), std::ios::app);
    file << "another's";
  }
  Receive("def");
  EXPECT_EQ("abcanother'sdef", ReadWholeFile(File()));
}

TEST_F(KPIMDownloadTest, FileThatReappearsGetsNothingWritten) {
  StartWithFile();
  WriteWholeFile(File(), "another's");
  Respond(4);
  Receive("body");
  Finish();
  EXPECT_EQ("another's", ReadWholeFile(File()));
  EXPECT_EQ("body", Bytes([download_ downloadedData]));
  EXPECT_THAT(Log(), ElementsAre("[I] 4"));
}

TEST_F(KPIMDownloadTest, FileThatDisappearsIsBegunAnew) {
  StartWithFile();
  Respond(6);
  Receive("abc");
  fs::remove(File());
  Receive("def");
  EXPECT_THAT(Log(), ElementsAre(kHandleLeft));
  EXPECT_EQ("def", ReadWholeFile(File()));
  Finish();
  EXPECT_EQ("abcdef", Bytes([download_ downloadedData]));
}

TEST_F(KPIMDownloadTest, FileThatCannotBeCreatedFailsAndStillCountsTheChunk) {
  StartWithFile();
  Respond(8);
  fs::remove(Directory());
  Receive("body");
  EXPECT_THAT(Log(), ElementsAre(kFileNotCreated + File()));
  EXPECT_THAT(receiver_->events, ElementsAre("fail", "progress"));
  EXPECT_THAT(receiver_->fractions, ElementsAre(0.5F));
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_FALSE([download_ cancelDownload]) << "it is cancelled already";
}

/// Makes writes past `size` bytes of a file fail, as a full disk does.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t size) : before_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &limit_);
    const rlimit small = {size, limit_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
  }
  ~ScopedFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &limit_);
    (void)signal(SIGXFSZ, before_);
  }

 private:
  rlimit limit_ = {};
  void (*before_)(int);
};

/// More than the log has, which must not be cut short.
constexpr size_t kRoom = 1 << 16;

TEST_F(KPIMDownloadTest, FullDiskIsLoggedOnceAndLeavesTheBodyInMemory) {
  const std::string body = std::string(kRoom - 2, '.') + "abcdefghi";
  StartWithFile();
  Respond(static_cast<long long>(body.size()));
  Receive(body.substr(0, kRoom - 2));
  {
    ScopedFileSizeLimit limit(kRoom);
    Receive("abcd");
    Receive("efg");
  }
  Receive("hi");
  Finish();
  EXPECT_TRUE(body == Bytes([download_ downloadedData]));
  const std::string file = ReadWholeFile(File());
  EXPECT_TRUE(file == body.substr(0, file.size())) << "a beginning of the body, no hole in it";
  EXPECT_LE(file.size(), kRoom);
  EXPECT_THAT(receiver_->events,
              ElementsAre("progress", "progress", "progress", "progress", "complete"));
  EXPECT_THAT(Log(), ElementsAre(kFileNotWritten + File(), "[I] " + std::to_string(body.size())));
}

TEST_F(KPIMDownloadTest, FileIsNotBegunAnewAfterAFullDisk) {
  StartWithFile();
  Respond(-1);
  {
    ScopedFileSizeLimit limit(kRoom);
    Receive(std::string(kRoom + 1, '.'));
    EXPECT_THAT(Log(), ElementsAre(kFileNotWritten + File()));
  }
  fs::remove(File());
  Receive("more");
  EXPECT_FALSE(fs::exists(File()));
  EXPECT_THAT(Log(), IsEmpty());
}

// ---- With the platform's own connection

TEST(KPIMDownload, TellsItsReceiverInTheDefaultModeOnly) {
  PlainReceiver* receiver = [[[PlainReceiver alloc] init] autorelease];
  // Fails without a network: the URL has no host.
  KPIMDownload* download = [[[KPIMDownload alloc] initWithURL:[NSURL URLWithString:@"http:///file"]
                                                 downloadPath:nil
                                                     filename:nil
                                                       logger:nil
                                                     delegate:receiver
                                                  asyncModeOn:true] autorelease];
  EXPECT_TRUE([download startDownload]);
  EXPECT_THAT(receiver->events, IsEmpty()) << "not before the run loop runs";
  NSRunLoop* loop = [NSRunLoop currentRunLoop];
  for (NSString *mode in [NSArray arrayWithObjects:@"KPOwnMode", @"NSConnectionReplyMode",
                                                   @"NSModalPanelRunLoopMode", nil]) {
    [loop runMode:mode beforeDate:[NSDate date]];
    EXPECT_THAT(receiver->events, IsEmpty()) << [mode UTF8String];
  }
  // Only a test that fails waits this long.
  NSDate* limit = [NSDate dateWithTimeIntervalSinceNow:60];
  while (receiver->events.empty() && [limit timeIntervalSinceNow] > 0 &&
         [loop runMode:NSDefaultRunLoopMode beforeDate:limit]) {
  }
  EXPECT_THAT(receiver->events, ElementsAre("fail"));
}

}  // namespace
