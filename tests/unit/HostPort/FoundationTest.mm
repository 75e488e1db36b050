// What the product relies on in Foundation: the port's corrections of GNUstep Base, and facts of
// GNUstep Base that are as on macOS.
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <vector>

#import "shared/platform/linux/MethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

// ---- The system calls behind `synchronizeFile`; the executable's come before the C library's

static int s_syncs;
static std::vector<int> s_synced;
static int s_fsyncError;

extern "C" void sync() noexcept { ++s_syncs; }

extern "C" int fsync(int descriptor) {
  s_synced.push_back(descriptor);
  errno = s_fsyncError;
  return s_fsyncError == 0 ? 0 : -1;
}

namespace {

using testing::ElementsAre;

class FoundationTest : public testing::Test {
 protected:
  FoundationTest() {
    s_syncs = 0;
    s_synced.clear();
    s_fsyncError = 0;
  }
  ~FoundationTest() override { [pool_ release]; }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
};

// ---- NSFileHandle

TEST_F(FoundationTest, SynchronizeFileIsFsyncOfItsDescriptor) {
  WriteWholeFile(folder_ / "file", "");
  NSFileHandle* handle = [NSFileHandle fileHandleForWritingAtPath:String(folder_ / "file")];
  [handle writeData:[@"x" dataUsingEncoding:NSUTF8StringEncoding]];
  [handle synchronizeFile];
  EXPECT_THAT(s_synced, ElementsAre([handle fileDescriptor]));
  EXPECT_EQ(0, s_syncs) << "other file systems are not flushed";
}

TEST_F(FoundationTest, SynchronizeFileRaisesWhenTheDiskFails) {
  WriteWholeFile(folder_ / "file", "");
  NSFileHandle* handle = [NSFileHandle fileHandleForWritingAtPath:String(folder_ / "file")];
  s_fsyncError = EIO;
  NSString* raised = nil;
  @try {
    [handle synchronizeFile];
  } @catch (NSException* exception) {
    raised = [exception name];
  }
  EXPECT_EQ(Text(NSFileHandleOperationException), Text(raised));
}

TEST_F(FoundationTest, SynchronizeFileOfWhatHasNoDiskDoesNothing) {
  s_fsyncError = EINVAL;
  [[[NSPipe pipe] fileHandleForWriting] synchronizeFile];
  EXPECT_EQ(1u, s_synced.size());
  EXPECT_EQ(0, s_syncs);
}

TEST_F(FoundationTest, FileHandlesForWriting) {
  EXPECT_EQ(nil, [NSFileHandle fileHandleForWritingAtPath:String(folder_.Path().string())]);
  EXPECT_EQ(nil, [NSFileHandle fileHandleForWritingAtPath:String(folder_ / "missing")]);
  EXPECT_EQ(nil, [NSFileHandle fileHandleForWritingAtPath:nil]);
}

// ---- NSFileManager

NSURL* Folder(NSSearchPathDirectory directory, NSSearchPathDomainMask domain) {
  return [[NSFileManager defaultManager] URLForDirectory:directory
                                                inDomain:domain
                                       appropriateForURL:nil
                                                  create:NO
                                                   error:nullptr];
}

/// What GNUstep answers without the port.
NSString* OwnFolder(NSSearchPathDirectory directory, NSSearchPathDomainMask domain) {
  NSArray* folders = NSSearchPathForDirectoriesInDomains(directory, domain, YES);
  return [folders count] != 0 ? [folders objectAtIndex:0] : nil;
}

TEST_F(FoundationTest, CoreServicesOfTheSystemAreWhereMacOSHasThem) {
  const bool existed = std::filesystem::exists("/System");
  NSURL* folder = Folder(NSCoreServiceDirectory, NSSystemDomainMask);
  EXPECT_TRUE([folder isFileURL]);
  EXPECT_EQ("/System/Library/CoreServices", Text([folder path]));
  EXPECT_EQ("/System/Library/CoreServices/SystemVersion.plist",
            Text([[folder URLByAppendingPathComponent:@"SystemVersion.plist"] path]));
  EXPECT_EQ(existed, std::filesystem::exists("/System")) << "nothing is created";
}

TEST_F(FoundationTest, OtherFoldersAreAsBefore) {
  const NSSearchPathDomainMask domains[] = {NSUserDomainMask, NSLocalDomainMask,
                                            NSSystemDomainMask};
  const NSSearchPathDirectory directories[] = {NSLibraryDirectory, NSApplicationDirectory,
                                               NSDocumentationDirectory};
  int folders = 0;
  for (NSSearchPathDirectory directory : directories) {
    for (NSSearchPathDomainMask domain : domains) {
      NSString* expected = OwnFolder(directory, domain);
      if (expected != nil) {
        ++folders;
        EXPECT_EQ(Text(expected), Text([Folder(directory, domain) path]));
      }
    }
  }
  EXPECT_GE(folders, 3);
}

TEST_F(FoundationTest, FileManagerTakesAbsentPaths) {
  EXPECT_FALSE([[NSFileManager defaultManager] fileExistsAtPath:nil]);
  NSString* absent = nil;
  EXPECT_EQ(nil, [absent stringByAppendingPathComponent:@"x"]);
}

TEST_F(FoundationTest, RemovingALinkLeavesItsTarget) {
  NSFileManager* fileManager = [NSFileManager defaultManager];
  WriteWholeFile(folder_ / "file", "kept");
  std::filesystem::create_symlink(folder_ / "file", folder_ / "link");
  std::filesystem::create_symlink(folder_ / "nowhere", folder_ / "dangling");
  EXPECT_TRUE([fileManager removeItemAtPath:String(folder_ / "link") error:nullptr]);
  EXPECT_EQ("kept", ReadWholeFile(folder_ / "file"));
  EXPECT_FALSE([fileManager fileExistsAtPath:String(folder_ / "dangling")]);
  EXPECT_TRUE([fileManager removeItemAtPath:String(folder_ / "dangling") error:nullptr]);
  EXPECT_FALSE([fileManager removeItemAtPath:String(folder_ / "missing") error:nullptr]);
}

// ---- NSDictionary

/// The value of "key" in a property list file, by path and by URL, which must agree.
NSString* ValueInFile(const std::string& file) {
  NSDictionary* byPath = [NSDictionary dictionaryWithContentsOfFile:String(file)];
  NSDictionary* byURL =
      [NSDictionary dictionaryWithContentsOfURL:[NSURL fileURLWithPath:String(file)]];
  EXPECT_EQ(byPath == nil, byURL == nil);
  EXPECT_TRUE(byPath == nil || [byPath isEqual:byURL]);
  return [byPath objectForKey:@"key"];
}

TEST_F(FoundationTest, PropertyListsOfEveryFormat) {
  const std::string file = folder_ / "file.plist";
  NSDictionary* properties = [NSDictionary dictionaryWithObject:@"välue" forKey:@"key"];
  for (NSPropertyListFormat format :
       {NSPropertyListBinaryFormat_v1_0, NSPropertyListXMLFormat_v1_0}) {
    NSData* data = [NSPropertyListSerialization dataWithPropertyList:properties
                                                              format:format
                                                             options:0
                                                               error:nullptr];
    ASSERT_TRUE([data writeToFile:String(file) atomically:NO]);
    EXPECT_EQ("välue", Text(ValueInFile(file)));
  }
  WriteWholeFile(file, "{ key = value; }");
  EXPECT_EQ("value", Text(ValueInFile(file)));
}

TEST_F(FoundationTest, FilesThatAreNoPropertyLists) {
  const std::string file = folder_ / "file.plist";
  EXPECT_EQ(nil, ValueInFile(file));
  for (const std::string& contents :
       {std::string(), std::string("("), std::string("{ key = \"val"), std::string("( a, b )"),
        std::string("bplist00"), "bplist00" + std::string(38, '\xFF'),
        std::string("\x00\xFF\xFE", 3), std::string("<?xml version=\"1.0\"?><plist><di")}) {
    WriteWholeFile(file, contents);
    EXPECT_EQ(nil, [NSDictionary dictionaryWithContentsOfFile:String(file)]) << contents;
    EXPECT_EQ(nil, ValueInFile(file)) << contents;
  }
  EXPECT_EQ(nil, ValueInFile(folder_.Path().string()));
}

TEST_F(FoundationTest, MutableDictionariesOfFiles) {
  WriteWholeFile(folder_ / "file.plist", "{ key = value; }");
  NSMutableDictionary* properties =
      [NSMutableDictionary dictionaryWithContentsOfFile:String(folder_ / "file.plist")];
  [properties setObject:@"other" forKey:@"key"];
  EXPECT_EQ("other", Text([properties objectForKey:@"key"]));
}

// ---- NSString

TEST_F(FoundationTest, PathsAreJoinedWithOneSlash) {
  EXPECT_EQ("/Library/x", Text([@"/" stringByAppendingPathComponent:@"/Library/x"]));
  EXPECT_EQ("/Library/x", Text([@"" stringByAppendingPathComponent:@"/Library/x"]));
  EXPECT_EQ("/Volumes/T/Library/x",
            Text([@"/Volumes/T" stringByAppendingPathComponent:@"/Library/x"]));
  EXPECT_EQ("/Volumes/T/Library/x",
            Text([@"/Volumes/T/" stringByAppendingPathComponent:@"/Library/x"]));
  EXPECT_EQ("/a/b.plugin.lzma", Text([@"/a/b.plugin" stringByAppendingPathExtension:@"lzma"]));
}

TEST_F(FoundationTest, OnlyASlashSeparatesTheComponentsOfAPath) {
  for (NSString *volume in [NSArray arrayWithObjects:@"a\\b", @"a\\", @"\\\\a", @"C:", nil]) {
    NSString* root = [@"/Volumes/" stringByAppendingString:volume];
    EXPECT_EQ(Text(root) + "/Library/x", Text([root stringByAppendingPathComponent:@"/Library/x"]));
    EXPECT_EQ(Text(root) + ".lzma", Text([root stringByAppendingPathExtension:@"lzma"]));
    EXPECT_EQ(Text(volume), Text([root lastPathComponent]));
    EXPECT_EQ(3u, [[root pathComponents] count]);
    EXPECT_EQ(Text(volume) + "/x", Text([volume stringByAppendingPathComponent:@"x"]));
  }
}

TEST_F(FoundationTest, ADoubleSlashAtTheStartStays) {
  // macOS keeps one of the two. To Linux the two paths are the same.
  EXPECT_EQ("//Volumes/T/Library/x",
            Text([@"//Volumes/T" stringByAppendingPathComponent:@"/Library/x"]));
}

TEST_F(FoundationTest, RemovesWhatHasABackslashInItsName) {
  NSFileManager* fileManager = [NSFileManager defaultManager];
  std::filesystem::create_directories(folder_ / "a/b");
  WriteWholeFile(folder_ / "a/b/kept", "kept");
  std::filesystem::create_directories(folder_ / "top/a\\b");
  WriteWholeFile(folder_ / "top/a\\b/c\\", "x");
  EXPECT_TRUE([fileManager fileExistsAtPath:String(folder_ / "top/a\\b/c\\")]);
  EXPECT_FALSE([fileManager fileExistsAtPath:String(folder_ / "top/a/b")]);
  EXPECT_TRUE([fileManager removeItemAtPath:String(folder_ / "top") error:nullptr]);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "top"));
  EXPECT_EQ("kept", ReadWholeFile(folder_ / "a/b/kept"));
}

TEST_F(FoundationTest, BytesThatAreNotUTF8GiveNoString) {
  for (const char* bytes : {"\xFF", "a\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF8\x88\x80\x80\x80"}) {
    EXPECT_EQ(nil, [NSString stringWithUTF8String:bytes]);
  }
}

TEST_F(FoundationTest, AbsentObjectsAreFormattedAsNull) {
  NSString* absent = nil;
  EXPECT_EQ("/Users/(null)/x", Text([NSString stringWithFormat:@"/Users/%@/%@", absent, @"x"]));
}

TEST_F(FoundationTest, Splitting) {
  EXPECT_EQ(1u, [[@"" componentsSeparatedByString:@"."] count]);
  EXPECT_EQ(2u, [[@"." componentsSeparatedByString:@"."] count]);
}

TEST_F(FoundationTest, IntegersInStrings) {
  EXPECT_EQ(12, [@"12b3" intValue]);
  EXPECT_EQ(0, [@"x" intValue]);
  EXPECT_EQ(0, [@"" intValue]);
}

TEST_F(FoundationTest, ReadingText) {
  const auto read = [this](const std::string& contents) {
    WriteWholeFile(folder_ / "file", contents);
    NSURL* url = [NSURL fileURLWithPath:String(folder_ / "file")];
    return Text([NSString stringWithContentsOfURL:url encoding:NSUTF8StringEncoding error:nullptr]);
  };
  EXPECT_EQ("é\r\n", read("é\r\n"));
  EXPECT_EQ("", read(""));
  EXPECT_EQ("(absent)", read("\xFF\xFE\xFF"));
}

// ---- NSTask, NSProcessInfo, NSBundle

TEST_F(FoundationTest, TaskWithoutAProgramRaises) {
  bool raised = false;
  @try {
    [NSTask launchedTaskWithLaunchPath:String(folder_ / "missing") arguments:[NSArray array]];
  } @catch (NSException*) {
    raised = true;
  }
  EXPECT_TRUE(raised);
}

TEST_F(FoundationTest, SystemVersionIsToldByThePropertyListAlone) {
  EXPECT_FALSE([[NSProcessInfo processInfo]
      respondsToSelector:NSSelectorFromString(@"operatingSystemVersion")]);
}

TEST_F(FoundationTest, BareToolHasNoBundleVersion) {
  EXPECT_EQ(nil, [[[NSBundle mainBundle] infoDictionary] objectForKey:@"CFBundleVersion"]);
}

// ---- NSUserDefaults

TEST_F(FoundationTest, UserDefaultsAreReadWithoutALock) {
  const std::string file = folder_ / ".GNUstepDefaults.lck";
  EXPECT_EQ(nil, [[NSDistributedLock alloc] initWithPath:String(file)]);
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(FoundationTest, OtherLocksAreAsBefore) {
  const std::string file = folder_ / "other.lck";
  NSDistributedLock* lock = [NSDistributedLock lockWithPath:String(file)];
  EXPECT_TRUE([lock tryLock]);
  EXPECT_TRUE(std::filesystem::exists(file));
  [lock unlock];
  EXPECT_FALSE(std::filesystem::exists(file));
}

// ---- NSTimeZone

class TimeZoneTest : public FoundationTest {
 protected:
  TimeZoneTest() {
    const char* zone = getenv("TZ");
    hadZone_ = zone != nullptr;
    savedZone_ = hadZone_ ? zone : "";
  }
  ~TimeZoneTest() override {
    hadZone_ ? setenv("TZ", savedZone_.c_str(), 1) : unsetenv("TZ");
    tzset();
  }

  NSTimeZone* Zone(const char* zone) {
    setenv("TZ", zone, 1);
    return [NSTimeZone systemTimeZone];
  }

  /// The offset that a date ends in when it is formatted in the local time zone.
  std::string FormattedOffset() {
    NSDateFormatter* formatter = [[[NSDateFormatter alloc] init] autorelease];
    [formatter setDateFormat:@"Z"];
    return Text([formatter stringFromDate:[NSDate date]]);
  }

 private:
  bool hadZone_;
  std::string savedZone_;
};

TEST_F(TimeZoneTest, NamedByTheEnvironment) {
  EXPECT_EQ("Asia/Kolkata", Text([Zone("Asia/Kolkata") name]));
  EXPECT_EQ("+0530", FormattedOffset());
  EXPECT_EQ("Asia/Kolkata", Text([Zone(":Asia/Kolkata") name]));
  EXPECT_EQ("Asia/Kolkata", Text([Zone(":/usr/share/zoneinfo/Asia/Kolkata") name]));
  EXPECT_EQ(0, [Zone("UTC") secondsFromGMT]);
  EXPECT_EQ("+0000", FormattedOffset());
}

TEST_F(TimeZoneTest, RuleInTheEnvironment) {
  EXPECT_EQ(3 * 3600, [Zone("XST-3") secondsFromGMT]);
  EXPECT_EQ("+0300", FormattedOffset());
  EXPECT_EQ(-(3 * 3600 + 1800), [Zone("<-0330>3:30") secondsFromGMT]);
  EXPECT_EQ("-0330", FormattedOffset());
}

TEST_F(TimeZoneTest, NonsenseInTheEnvironmentIsUTC) {
  for (const char* zone : {"", ":", "/", "Nope/Nope", "../../etc/passwd", "\xFF"}) {
    EXPECT_EQ(0, [Zone(zone) secondsFromGMT]) << zone;
    EXPECT_EQ("+0000", FormattedOffset()) << zone;
  }
}

TEST_F(TimeZoneTest, IsTheMachinesWithoutOne) {
  unsetenv("TZ");
  tzset();
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  EXPECT_EQ(local.tm_gmtoff, [[NSTimeZone systemTimeZone] secondsFromGMT]);
}

TEST_F(TimeZoneTest, SummerTimeOfADate) {
  NSTimeZone* zone = Zone("Europe/Berlin");
  EXPECT_EQ(3600, [zone secondsFromGMTForDate:[NSDate dateWithTimeIntervalSince1970:1768478400]]);
  EXPECT_EQ(7200, [zone secondsFromGMTForDate:[NSDate dateWithTimeIntervalSince1970:1784116800]]);
}

// ---- MethodReplacement

TEST(MethodReplacementDeathTest, MissingMethodEndsTheProcessWithAMessage) {
  EXPECT_DEATH(ReplaceMethod("NSObject", NSSelectorFromString(@"noSuchMethod:"), nullptr),
               "host port: this GNUstep Base has no -\\[NSObject noSuchMethod:\\]");
  EXPECT_DEATH(ReplaceMethod("NoSuchClass", @selector(description), nullptr, true),
               "host port: this GNUstep Base has no \\+\\[NoSuchClass description\\]");
}

}  // namespace
