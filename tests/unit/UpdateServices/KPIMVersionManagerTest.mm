#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionManager.h"

#include <gmock/gmock.h>
#include <objc/runtime.h>

#include <cstring>

#include "KPVendorConfig.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/UpdateServices/ConnectionRecorder.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

/// The callbacks of the connection, as the download implements them.
@interface NSObject (ConnectionCallbacks)
- (void)connection:(NSURLConnection*)connection didReceiveResponse:(NSURLResponse*)response;
- (void)connection:(NSURLConnection*)connection didReceiveData:(NSData*)data;
- (void)connectionDidFinishLoading:(NSURLConnection*)connection;
- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error;
@end

/// Records the state of a manager when it posts its notification.
@interface Observer : NSObject {
 @public
  KPIMVersionManager* manager;
}
- (void)received:(NSNotification*)notification;
@end

@implementation Observer

- (void)received:(NSNotification*)notification {
  EXPECT_EQ("kKPIMVersionXMLReceivedNotification", Text([notification name]));
  EXPECT_EQ(nil, [notification object]);
  EXPECT_EQ(nil, [notification userInfo]);
  g_events.push_back(
      "posted in state " + std::to_string([manager downloadState]) + ": " +
      Text([manager HTMLDisplayString]) + ", version " + Text([manager XMLVersionString]) +
      ", mode " + Text([manager AutoUpdateModeString]) + ", " +
      std::to_string([manager dialogWidth]) + " x " + std::to_string([manager dialogHeight]));
}

@end

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kExample[] =
    "<XML><update version=\"32.0.0.270\"><description><meta>message \"A new version is "
    "available.\";size 400 300;autoUpdateMode 1;</meta></description></update></XML>";
constexpr char kNoVersion[] =
    "[1] ERROR: Parsing error in version XML. Could not find version string.";
constexpr char kNoMessage[] =
    "[1] ERROR: Parsing error in version XML. Could not find HTML display string.";
constexpr char kPosted[] =
    "posted in state 2: A new version is available., version 32.0.0.270, mode 1, "
    "400.000000 x 300.000000";

/// Translation of the main bundle's string table; nil for none, which leaves the key.
NSString* s_locale;

NSString* LocalizedString(id /*self*/, SEL /*selector*/, NSString* key, NSString* value,
                          NSString* table) {
  EXPECT_EQ("AutoUpdateXmlLocale", Text(key));
  EXPECT_EQ("", Text(value));
  EXPECT_EQ(nil, table);
  return s_locale != nil ? s_locale : key;
}

class KPIMVersionManagerTest : public testing::Test {
 protected:
  KPIMVersionManagerTest()
      : localized_(object_getClass([NSBundle mainBundle]),
                   @selector(localizedStringForKey:value:table:), (IMP)LocalizedString) {
    s_locale = @"en";
    [KPIMVersionManager _logger];
    g_events.clear();
    observer_->manager = manager_;
    [[NSNotificationCenter defaultCenter] addObserver:observer_
                                             selector:@selector(received:)
                                                 name:kKPIMVersionXMLReceivedNotification
                                               object:nil];
  }
  ~KPIMVersionManagerTest() override {
    [[NSNotificationCenter defaultCenter] removeObserver:observer_];
    [observer_ release];
    [TakeDownload() release];
    // A download lives on until the pool of the callback that it was released in is drained.
    [pool_ release];
    EXPECT_EQ(1u, [manager_ retainCount]) << "nothing but the download retains it";
    [manager_ release];
  }

  /// Takes the download from the manager: they retain each other.
  id TakeDownload() {
    const Ivar field = class_getInstanceVariable([KPIMVersionManager class], "mDownload");
    const id download = object_getIvar(manager_, field);
    object_setIvar(manager_, field, nil);
    return download;
  }

  void Request(int kind = 1) { [manager_ sendVersionXMLRequestFor:kind]; }
  std::string URL() { return Text([[network_.request() URL] absoluteString]); }

  void Respond() { [network_.delegate() connection:noConnection_ didReceiveResponse:noResponse_]; }
  void Receive(const std::string& bytes) {
    [network_.delegate() connection:noConnection_
                     didReceiveData:[NSData dataWithBytes:bytes.data() length:bytes.size()]];
  }
  /// The server's answer from beginning to end.
  void Answer(const std::string& text) {
    Respond();
    Receive(text);
    [network_.delegate() connectionDidFinishLoading:noConnection_];
  }
  void Fail() {
    [network_.delegate() connection:noConnection_
                   didFailWithError:[NSError errorWithDomain:NSURLErrorDomain
                                                        code:-1
                                                    userInfo:nil]];
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  ConnectionRecorder network_;
  KPIMVersionManager* manager_ = [[KPIMVersionManager alloc] init];
  Observer* observer_ = [[Observer alloc] init];
  // The download uses neither.
  NSURLConnection* const noConnection_ = nil;
  NSURLResponse* const noResponse_ = nil;

 private:
  ScopedMethodReplacement localized_;
};

/// What was logged or posted, except the download's own lines.
std::vector<std::string> Events() {
  std::vector<std::string> events;
  for (const std::string& event : g_events) {
    if (event.rfind("assert ", 0) != 0 &&
        event.find_first_not_of("[3] 0123456789") < event.size()) {
      events.push_back(event);
    }
  }
  g_events.clear();
  return events;
}

// ---- The request

TEST_F(KPIMVersionManagerTest, IdleAtFirst) {
  EXPECT_EQ(0, [manager_ downloadState]);
  EXPECT_EQ(nil, [manager_ XMLVersionString]);
  EXPECT_EQ(nil, [manager_ HTMLDisplayString]);
  EXPECT_EQ(nil, [manager_ AutoUpdateModeString]);
  EXPECT_EQ(0.0F, [manager_ dialogWidth]);
  EXPECT_EQ(0.0F, [manager_ dialogHeight]);
}

TEST_F(KPIMVersionManagerTest, DeallocReleasesTheDownload) {
  KPIMVersionManager* manager = [[KPIMVersionManager alloc] init];
  id download = [[NSObject alloc] init];
  object_setIvar(manager, class_getInstanceVariable([KPIMVersionManager class], "mDownload"),
                 [download retain]);
  ASSERT_EQ(2u, [download retainCount]);
  [manager release];
  EXPECT_EQ(1u, [download retainCount]);
  [download release];
}

TEST_F(KPIMVersionManagerTest, AsksForThePepperPlayersDescription) {
  Request(1);
  EXPECT_EQ("https://" KP_DOWNLOAD_HOST
            "/get/korvelplayer/update/current/xml/version_en_mac_pep.xml",
            URL());
  EXPECT_EQ(1, [manager_ downloadState]);
  EXPECT_EQ(1, network_.connections()) << "asynchronous";
}

TEST_F(KPIMVersionManagerTest, AsksForTheOtherPlayersDescription) {
  for (int kind : {0, 2, -1}) {
    Request(kind);
    EXPECT_EQ("https://" KP_DOWNLOAD_HOST
              "/get/korvelplayer/update/current/xml/version_en_mac_pl.xml",
              URL())
        << kind;
    // The next request does not release the download of this one.
    [TakeDownload() release];
  }
}

TEST_F(KPIMVersionManagerTest, AsksForAChosenLocale) {
  EXPECT_EQ(nil, [manager_ address]);
  [manager_ sendVersionXMLRequestFor:1 locale:@"de" authoritiesFile:@"/own.pem"];
  EXPECT_NE(std::string::npos, URL().find("/version_de_mac_pep.xml"));
  EXPECT_EQ(URL(), Text([[manager_ address] absoluteString]));
  EXPECT_EQ("/own.pem", Text([NSURLProtocol propertyForKey:kKPIMAuthoritiesProperty
                                                 inRequest:network_.request()]));
  EXPECT_EQ(0, [manager_ statusCode]);
}

TEST_F(KPIMVersionManagerTest, ReportsWhyItFailed) {
  Request();
  EXPECT_EQ(nil, [manager_ failure]);
  [network_.delegate() connection:noConnection_
               didReceiveResponse:HTTPResponse([manager_ address], 503)];
  EXPECT_EQ(503, [manager_ statusCode]);
  NSDictionary* info = [NSDictionary dictionaryWithObject:@"gone" forKey:NSLocalizedDescriptionKey];
  [network_.delegate() connection:noConnection_
                 didFailWithError:[NSError errorWithDomain:NSURLErrorDomain code:-1 userInfo:info]];
  EXPECT_EQ("gone", Text([manager_ failure]).substr(0, 4));
}

TEST_F(KPIMVersionManagerTest, AsksForTheKeyWithoutATranslation) {
  s_locale = nil;
  Request();
  EXPECT_EQ("https://" KP_DOWNLOAD_HOST "/get/korvelplayer/update/current/xml/"
            "version_AutoUpdateXmlLocale_mac_pep.xml",
            URL());
}

TEST_F(KPIMVersionManagerTest, LocaleThatNoURLCanHoldLeavesNoURL) {
  s_locale = @"e#n#";
  Request();
  EXPECT_EQ("(absent)", URL());
}

TEST_F(KPIMVersionManagerTest, WritesNoFile) {
  Request();
  id download = TakeDownload();
  EXPECT_EQ(nil, [download getDownloadPath]);
  EXPECT_EQ(2u, [manager_ retainCount]) << "the download retains its delegate";
  [download release];
}

TEST_F(KPIMVersionManagerTest, SecondRequestLeavesTheFirstDownload) {
  Request();
  id first = [TakeDownload() retain];
  object_setIvar(manager_, class_getInstanceVariable([KPIMVersionManager class], "mDownload"),
                 first);
  Request();
  EXPECT_EQ(2u, [first retainCount]) << "it is not released";
  [first release];
  [first release];
}

TEST_F(KPIMVersionManagerTest, HearsOfNoProgress) {
  const id<KPIMDownloadProgressReceiver> receiver = manager_;
  EXPECT_FALSE([receiver respondsToSelector:@selector(downloadDidProgress:)]);
}

// ---- A description that is too long

constexpr size_t kMostBytes = 8 * 1024 * 1024;

TEST_F(KPIMVersionManagerTest, LongestDescriptionIsRead) {
  Request();
  Answer(kExample + std::string(kMostBytes - strlen(kExample), ' '));
  EXPECT_EQ(2, [manager_ downloadState]);
  EXPECT_THAT(Events(), ElementsAre(kPosted));
}

TEST_F(KPIMVersionManagerTest, LongerDescriptionIsGivenUpAsItArrives) {
  Request();
  Respond();
  Receive(kExample + std::string(kMostBytes - strlen(kExample), ' '));
  EXPECT_EQ(0, network_.cancelled());
  Receive(" ");
  EXPECT_EQ(1, network_.cancelled());
  EXPECT_EQ(4, [manager_ downloadState]);
  EXPECT_EQ(nil, [manager_ XMLVersionString]);
  EXPECT_THAT(Events(),
              ElementsAre("[1] ERROR: URL download failed: The reply is longer than 8388608 bytes.",
                          "[1] ERROR: Failed to download version XML.",
                          testing::StartsWith("posted in state 4: ")));
}

// ---- The answer

TEST_F(KPIMVersionManagerTest, Example) {
  Request();
  Answer(kExample);
  EXPECT_EQ(2, [manager_ downloadState]);
  EXPECT_EQ("32.0.0.270", Text([manager_ XMLVersionString]));
  EXPECT_EQ("A new version is available.", Text([manager_ HTMLDisplayString]));
  EXPECT_EQ("1", Text([manager_ AutoUpdateModeString]));
  EXPECT_EQ(400.0F, [manager_ dialogWidth]);
  EXPECT_EQ(300.0F, [manager_ dialogHeight]);
  EXPECT_THAT(Events(), ElementsAre(kPosted));
}

TEST_F(KPIMVersionManagerTest, AccessorsKeepTheirStringsAlive) {
  Request();
  Answer(kExample);
  NSString* version = [manager_ XMLVersionString];
  NSString* message = [manager_ HTMLDisplayString];
  NSString* mode = [manager_ AutoUpdateModeString];
  Answer("<XML><update version=\"33\"><description><meta>message \"New\";size;autoUpdateMode 2;");
  EXPECT_EQ("32.0.0.270", Text(version));
  EXPECT_EQ("A new version is available.", Text(message));
  EXPECT_EQ("1", Text(mode));
  EXPECT_EQ("33", Text([manager_ XMLVersionString]));
  EXPECT_EQ("New", Text([manager_ HTMLDisplayString]));
  EXPECT_EQ("2", Text([manager_ AutoUpdateModeString]));
}

TEST_F(KPIMVersionManagerTest, VersionThatIsMissingKeepsTheOldOne) {
  Request();
  Answer(kExample);
  Events();
  for (const char* text : {"<meta>message \"Hello\";size", "\"><description><XML><update version=\""
                                                           "<meta>message \"Hello\";size"}) {
    Answer(text);
    EXPECT_EQ(2, [manager_ downloadState]);
    EXPECT_EQ("32.0.0.270", Text([manager_ XMLVersionString]));
    EXPECT_EQ("Hello", Text([manager_ HTMLDisplayString]));
    EXPECT_THAT(
        Events(),
        ElementsAre(kNoVersion, "posted in state 2: Hello, version 32.0.0.270, mode (absent), "
                                "320.000000 x 450.000000"));
  }
}

TEST_F(KPIMVersionManagerTest, MessageThatIsMissingKeepsTheOldOneAndPostsNothing) {
  Request();
  Answer(kExample);
  Events();
  Answer("<XML><update version=\"33\"><description>");
  EXPECT_EQ(2, [manager_ downloadState]);
  EXPECT_EQ("33", Text([manager_ XMLVersionString]));
  EXPECT_EQ("A new version is available.", Text([manager_ HTMLDisplayString]));
  EXPECT_THAT(Events(), ElementsAre(kNoMessage));
}

TEST_F(KPIMVersionManagerTest, ModeThatIsMissingIsAbsent) {
  Request();
  Answer(kExample);
  Answer("<XML><update version=\"33\"><description>");
  EXPECT_EQ(nil, [manager_ AutoUpdateModeString]);
}

TEST_F(KPIMVersionManagerTest, SizeIsResetByEveryAnswer) {
  Request();
  Answer(kExample);
  Answer("nothing");
  EXPECT_EQ(320.0F, [manager_ dialogWidth]);
  EXPECT_EQ(450.0F, [manager_ dialogHeight]);
  Answer(kExample);
  Answer(";size 400;autoUpdateMode1;");
  EXPECT_EQ(320.0F, [manager_ dialogWidth]) << "one piece is not a size";
  EXPECT_EQ(450.0F, [manager_ dialogHeight]);
  EXPECT_EQ(2, [manager_ downloadState]);
}

TEST_F(KPIMVersionManagerTest, SizeOfOnePieceLeavesTheRest) {
  Request();
  // A tab does not separate.
  Answer("<XML><update version=\"33\"><description><meta>message \"Hello\""
         ";size 400;autoUpdateMode\t1;");
  EXPECT_THAT(Events(), ElementsAre("posted in state 2: Hello, version 33, mode (absent), "
                                    "320.000000 x 450.000000"));
}

TEST_F(KPIMVersionManagerTest, AnswersThatAreNoText) {
  Request();
  for (const std::string& text :
       {std::string("\xFF\xFE") + kExample, std::string(kExample) + "\xC3", std::string()}) {
    Answer(text);
    EXPECT_EQ(2, [manager_ downloadState]);
    EXPECT_EQ(nil, [manager_ XMLVersionString]);
    EXPECT_EQ(nil, [manager_ AutoUpdateModeString]);
    EXPECT_EQ(nil, [manager_ HTMLDisplayString]);
    EXPECT_EQ(320.0F, [manager_ dialogWidth]);
    EXPECT_EQ(450.0F, [manager_ dialogHeight]);
    EXPECT_THAT(Events(), ElementsAre(kNoVersion, kNoMessage));
  }
}

TEST_F(KPIMVersionManagerTest, AnswerInPieces) {
  Request();
  Respond();
  for (const char byte : std::string(kExample)) {
    Receive(std::string(1, byte));
  }
  [network_.delegate() connectionDidFinishLoading:noConnection_];
  EXPECT_EQ("32.0.0.270", Text([manager_ XMLVersionString]));
}

TEST_F(KPIMVersionManagerTest, FailureIsLoggedAndPosted) {
  Request();
  Fail();
  EXPECT_EQ(4, [manager_ downloadState]);
  const std::vector<std::string> events = Events();
  ASSERT_EQ(3u, events.size());
  EXPECT_EQ("[1] ERROR: Failed to download version XML.", events[1]);
  EXPECT_EQ("posted in state 4: (absent), version (absent), mode (absent), 0.000000 x 0.000000",
            events[2]);
  EXPECT_EQ(0.0F, [manager_ dialogWidth]);
  EXPECT_EQ(0.0F, [manager_ dialogHeight]);
}

TEST_F(KPIMVersionManagerTest, FailureKeepsWhatIsKnown) {
  Request();
  Answer(kExample);
  Fail();
  EXPECT_EQ(4, [manager_ downloadState]);
  EXPECT_EQ("32.0.0.270", Text([manager_ XMLVersionString]));
  EXPECT_EQ("1", Text([manager_ AutoUpdateModeString]));
}

}  // namespace
