// The behaviour of Foundation that the product relies on: the port's corrections of GNUstep Base,
// and GNUstep's own behaviour where it is as on macOS.
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <utility>
#include <vector>

#import "shared/platform/linux/foundation/MethodReplacement.h"
#include "tests/unit/support/ScopedLeakPermit.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

// ---- The system calls of `synchronizeFile`: these replace the C library's

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

/// Name of the exception that `synchronizeFile` raises; nil without one.
NSString* RaisedBySynchronizing(NSFileHandle* handle) {
  @try {
    [handle synchronizeFile];
  } @catch (NSException* exception) {
    return [exception name];
  }
  return nil;
}

TEST_F(FoundationTest, SynchronizeFileRaisesWhenTheDiskFails) {
  WriteWholeFile(folder_ / "file", "");
  NSFileHandle* handle = [NSFileHandle fileHandleForWritingAtPath:String(folder_ / "file")];
  s_fsyncError = EIO;
  EXPECT_EQ(Text(NSFileHandleOperationException), Text(RaisedBySynchronizing(handle)));
  s_fsyncError = EINVAL;
  EXPECT_EQ(Text(NSFileHandleOperationException), Text(RaisedBySynchronizing(handle)))
      << "a file can be flushed";
}

TEST_F(FoundationTest, SynchronizeFileOfWhatHasNoDiskDoesNothing) {
  s_fsyncError = EINVAL;
  [[[NSPipe pipe] fileHandleForWriting] synchronizeFile];
  EXPECT_EQ(1u, s_synced.size());
  EXPECT_EQ(0, s_syncs);
}

TEST_F(FoundationTest, FileHandlesForWriting) {
  EXPECT_EQ(nil, [NSFileHandle fileHandleForWritingAtPath:String(folder_.Path())]);
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

/// GNUstep's own folder, without the port.
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

TEST_F(FoundationTest, PropertyListsThatGNUstepReadsByItself) {
  const std::string file = folder_ / "file.plist";
  const std::string xml =
      "<plist version=\"1.0\"><dict><key>key</key><string>v\xC3\xA4lue</string></dict></plist>";
  WriteWholeFile(file, "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + xml);
  EXPECT_EQ("välue", Text(ValueInFile(file))) << "a byte order mark";
  NSString* text = @"{ key = \"v\u00e4lue\"; }";
  ASSERT_TRUE([[text dataUsingEncoding:NSUnicodeStringEncoding] writeToFile:String(file)
                                                                 atomically:NO]);
  EXPECT_EQ("välue", Text(ValueInFile(file))) << "UTF-16";
}

TEST_F(FoundationTest, StringsFilesArePropertyLists) {
  const std::string file = folder_ / "file.strings";
  WriteWholeFile(file, "key = value;\nother = \"1\";\n");
  // GNUstep first parses it as an old-style property list, and does not release what it had parsed
  // when that fails.
  const ScopedLeakPermit permit;
  EXPECT_EQ("value", Text(ValueInFile(file)));
}

TEST_F(FoundationTest, PropertyListsThatOnlyMacOSReads) {
  const std::string file = folder_ / "file.plist";
  const std::string xml = "<plist version=\"1.0\"><dict><key>key</key><string>value</string>"
                          "</dict></plist>";
  WriteWholeFile(file, "\n<?xml version=\"1.0\"?>" + xml);
  EXPECT_EQ(nil, ValueInFile(file));
  WriteWholeFile(file, "<!DOCTYPE plist>" + xml);
  EXPECT_EQ(nil, ValueInFile(file));
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
  EXPECT_EQ(nil, ValueInFile(folder_.Path()));
}

TEST_F(FoundationTest, GNUstepsOwnSerializationIsNoPropertyList) {
  NSData* data = [NSPropertyListSerialization dataWithPropertyList:[NSArray arrayWithObject:@"a"]
                                                            format:NSPropertyListGNUstepBinaryFormat
                                                           options:0
                                                             error:nullptr];
  ASSERT_GT([data length], 0u);
  ASSERT_EQ(0, *static_cast<const char*>([data bytes]));
  NSError* error = nil;
  EXPECT_EQ(nil, [NSPropertyListSerialization propertyListWithData:data
                                                           options:NSPropertyListImmutable
                                                            format:nullptr
                                                             error:&error]);
  EXPECT_NE(nil, error);
}

TEST_F(FoundationTest, MalformedPropertyListsGiveAnError) {
  for (const std::string& contents :
       {"bplist00" + std::string(38, '\xFF'), std::string("{ key = "),
        std::string("\1\6\t?C\n\0", 7), std::string("\t<?xml1.0\"?>=Q<key>d<"),
        std::string("<?,xml >\"?>Q<array><"), std::string("<?xml(\n<plist version=\"1.0\">de<"),
        std::string("<?xml version=\"1.0\"?><plist><!-- <string>x</string></plist>"),
        std::string("<?xml version=\"1.0\"?><plist><![CDATA[ <string>x</string></plist>")}) {
    NSData* data = [NSData dataWithBytes:contents.data() length:contents.size()];
    NSError* error = nil;
    EXPECT_EQ(nil, [NSPropertyListSerialization propertyListWithData:data
                                                             options:NSPropertyListImmutable
                                                              format:nullptr
                                                               error:&error]);
    EXPECT_NE(nil, error) << contents;
    EXPECT_NE(nil, [error localizedDescription]);
    EXPECT_EQ(nil, [NSPropertyListSerialization propertyListWithData:data
                                                             options:NSPropertyListImmutable
                                                              format:nullptr
                                                               error:nullptr]);
  }
}

// ---- Property lists that would crash GNUstep's parser

/// The dictionary in a file with `contents`, read by path; reading it by URL must agree.
NSDictionary* Dictionary(const std::string& file, const std::string& contents) {
  WriteWholeFile(file, contents);
  NSDictionary* byPath = [NSDictionary dictionaryWithContentsOfFile:String(file)];
  NSDictionary* byURL =
      [NSDictionary dictionaryWithContentsOfURL:[NSURL fileURLWithPath:String(file)]];
  EXPECT_EQ(byPath == nil, byURL == nil);
  return byPath;
}

std::string Repeated(const std::string& text, size_t count) {
  std::string result;
  for (size_t index = 0; index < count; ++index) {
    result += text;
  }
  return result;
}

std::string BigEndian(uint64_t number) {
  std::string bytes;
  for (unsigned int shift = 64; shift != 0; shift -= 8) {
    bytes += static_cast<char>(number >> (shift - 8));
  }
  return bytes;
}

/// A binary list of `objects`, the first of which is the top. Offsets take 4 bytes, references 2.
std::string BinaryList(const std::vector<std::string>& objects) {
  std::string list = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += BigEndian(list.size()).substr(4);
    list += object;
  }
  const uint64_t tableOffset = list.size();
  return list + table + std::string("\0\0\0\0\0\0\x04\x02", 8) + BigEndian(objects.size()) +
         BigEndian(0) + BigEndian(tableOffset);
}

std::string Reference(size_t object) {
  return {static_cast<char>(object >> 8), static_cast<char>(object)};
}

const std::string kKey = "\x53key";
/// { key = (object 2) }
const std::string kTop = "\xD1" + Reference(1) + Reference(2);

/// A list of `depth` nested levels.
std::string NestedList(size_t depth) {
  std::vector<std::string> objects = {kTop, kKey};
  for (size_t level = 1; level < depth; ++level) {
    objects.push_back("\xA1" + Reference(objects.size() + 1));
  }
  objects.emplace_back("\xA0");
  return BinaryList(objects);
}

TEST_F(FoundationTest, BinaryListsWithValuesOfEveryType) {
  const std::vector<std::string> values = {"\x08",
                                           "\x09",
                                           "\x10\x07",
                                           "\x13" + BigEndian(UINT64_MAX),
                                           "\x22" + BigEndian(0x3FC00000).substr(4),
                                           "\x23" + BigEndian(0x4004000000000000),
                                           "\x33" + BigEndian(0x4014000000000000),
                                           "\x43" + std::string("x\0y", 3),
                                           "\x51x",
                                           std::string("\x61\x00\xE4", 3),
                                           "\xA0",
                                           "\xD0"};
  std::string array = "\xAC";
  std::vector<std::string> objects = {kTop, kKey, ""};
  for (const std::string& value : values) {
    array += Reference(objects.size());
    objects.push_back(value);
  }
  objects[2] = array;
  NSArray* expected =
      [NSArray arrayWithObjects:[NSNumber numberWithBool:NO], [NSNumber numberWithBool:YES],
                                [NSNumber numberWithInt:7], [NSNumber numberWithInt:-1],
                                [NSNumber numberWithDouble:1.5], [NSNumber numberWithDouble:2.5],
                                [NSDate dateWithTimeIntervalSinceReferenceDate:5],
                                [NSData dataWithBytes:"x\0y" length:3], @"x", @"\u00e4",
                                [NSArray array], [NSDictionary dictionary], nil];
  ASSERT_EQ(values.size(), [expected count]);
  NSDictionary* dictionary = Dictionary(folder_ / "file.plist", BinaryList(objects));
  EXPECT_TRUE([[dictionary objectForKey:@"key"] isEqual:expected])
      << Text([dictionary description]);
}

/// A list that is read with `count` references to one value, besides those to 757 arrays of 1320.
std::string ListThatExpands(size_t count) {
  const std::string size = "\x11";
  return BinaryList({kTop, kKey,
                     "\xAF" + size + Reference(757 + count) + Repeated(Reference(3), 757) +
                         Repeated(Reference(4), count),
                     "\xAF" + size + Reference(1320) + Repeated(Reference(4), 1320), "\x09"});
}

TEST_F(FoundationTest, BinaryListsHaveAtMostAMillionValues) {
  const std::string file = folder_ / "file.plist";
  // With the dictionary, its key and the outer array: 3 + 757 * 1321.
  EXPECT_NE(nil, Dictionary(file, ListThatExpands(0)));
  EXPECT_EQ(nil, Dictionary(file, ListThatExpands(1)));
}

TEST_F(FoundationTest, BinaryListsWhoseLengthsAreTooLarge) {
  const std::string file = folder_ / "file.plist";
  EXPECT_NE(nil, Dictionary(file, BinaryList({kTop, kKey, "\x55value"})));
  for (uint64_t length :
       {uint64_t{0x7FFFFFFFFFFFFFFF}, UINT64_MAX, uint64_t{1} << 63, uint64_t{1000}}) {
    // Data, strings, arrays, sets and dictionaries.
    for (const char* marker : {"\x4F", "\x5F", "\x6F", "\xAF", "\xCF", "\xDF"}) {
      const std::string object = marker + std::string("\x13") + BigEndian(length);
      EXPECT_EQ(nil, Dictionary(file, BinaryList({kTop, kKey, object}))) << (marker[0] & 0xFF);
      EXPECT_EQ(nil, Dictionary(file, BinaryList({object}))) << (marker[0] & 0xFF);
    }
  }
}

TEST_F(FoundationTest, BinaryListsThatReferToNothing) {
  const std::string file = folder_ / "file.plist";
  EXPECT_EQ(nil, Dictionary(file, BinaryList({kTop, kKey})));
  const std::string good = BinaryList({kTop, kKey, "\x55value"});
  ASSERT_NE(nil, Dictionary(file, good));
  const size_t trailer = good.size() - 32;
  for (size_t field : {8U, 16U, 24U}) {
    for (uint64_t number : {UINT64_MAX, uint64_t{1} << 61, uint64_t{good.size()}}) {
      std::string list = good;
      EXPECT_EQ(nil, Dictionary(file, list.replace(trailer + field, 8, BigEndian(number))))
          << field;
    }
  }
  std::string list = good;
  EXPECT_EQ(nil, Dictionary(file, list.replace(trailer - 4, 4, "\xFF\xFF\xFF\xFF")));
}

TEST_F(FoundationTest, BinaryListsAreAtMost512Deep) {
  const std::string file = folder_ / "file.plist";
  EXPECT_NE(nil, Dictionary(file, NestedList(512)));
  EXPECT_EQ(nil, Dictionary(file, NestedList(513)));
  EXPECT_EQ(nil, Dictionary(file, NestedList(60000)));
  EXPECT_EQ(nil, Dictionary(file, BinaryList({kTop, kKey, "\xA1" + Reference(0)}))) << "a cycle";
}

TEST_F(FoundationTest, BinaryListsThatExpandWithoutEnd) {
  const std::string file = folder_ / "file.plist";
  std::vector<std::string> objects = {kTop, kKey};
  for (int level = 0; level < 40; ++level) {
    objects.push_back("\xA2" + Repeated(Reference(objects.size() + 1), 2));
  }
  objects.emplace_back("\xA0");
  EXPECT_EQ(nil, Dictionary(file, BinaryList(objects))) << "2 to the power of 40 arrays";
  const std::string size = std::string("\x12") + BigEndian(60000).substr(4);
  EXPECT_EQ(nil,
            Dictionary(file, BinaryList({kTop, kKey, "\xAF" + size + Repeated(Reference(3), 60000),
                                         "\x5F" + size + std::string(60000, 'x')})))
      << "3.6 GB of strings";
}

TEST_F(FoundationTest, DamagedBinaryLists) {
  const std::string file = folder_ / "file.plist";
  NSDictionary* properties = [NSDictionary
      dictionaryWithObjectsAndKeys:@"v\u00e4lue", @"text", [NSNumber numberWithInt:1000], @"number",
                                   [NSArray arrayWithObjects:@"a", [NSDate date], nil], @"array",
                                   [NSData dataWithBytes:"12345678901234567890" length:20], @"data",
                                   nil];
  NSData* data = [NSPropertyListSerialization dataWithPropertyList:properties
                                                            format:NSPropertyListBinaryFormat_v1_0
                                                           options:0
                                                             error:nullptr];
  const std::string good(static_cast<const char*>([data bytes]), [data length]);
  EXPECT_EQ(4u, [Dictionary(file, good) count]);
  for (size_t position = 0; position < good.size(); ++position) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    EXPECT_EQ(nil, Dictionary(file, good.substr(0, position)));
    for (unsigned int bit = 0; bit < 8; ++bit) {
      std::string damaged = good;
      damaged[position] =
          static_cast<char>(static_cast<unsigned char>(damaged[position]) ^ (1U << bit));
      // When GNUstep raises, it does not release its reader and the values read so far.
      const ScopedLeakPermit permit;
      Dictionary(file, damaged);  // The result does not matter; it must not crash.
    }
    [pool release];
  }
}

TEST_F(FoundationTest, TextListsHaveAtMost4096Brackets) {
  const std::string file = folder_ / "file.plist";
  const auto nested = [](const std::string& start, const std::string& end, size_t depth) {
    return "{ key = " + Repeated(start, depth - 1) + "x" + Repeated(end, depth - 1) + "; }";
  };
  EXPECT_NE(nil, Dictionary(file, nested("(", ")", 4096)));
  EXPECT_NE(nil, Dictionary(file, nested("{ a = ", "; }", 4096)));
  EXPECT_EQ(nil, Dictionary(file, nested("(", ")", 4097)));
  EXPECT_EQ(nil, Dictionary(file, nested("{ a = ", "; }", 4097)));
  EXPECT_NE(nil, Dictionary(file, "{ key = (" + Repeated("(),", 4000) + "x); }")) << "not nested";
  EXPECT_EQ(nil, Dictionary(file, "{ key = \"" + Repeated("(", 4096) + "\"; }")) << "quoted";
  NSString* text = String(nested("(", ")", 200000));
  ASSERT_TRUE([[text dataUsingEncoding:NSUnicodeStringEncoding] writeToFile:String(file)
                                                                 atomically:NO]);
  EXPECT_EQ(nil, [NSDictionary dictionaryWithContentsOfFile:String(file)]) << "UTF-16";
}

TEST_F(FoundationTest, XMLListsAreAtMost512Deep) {
  const std::string file = folder_ / "file.plist";
  const std::string start = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>key</key>";
  const std::string end = "</dict></plist>";
  const auto nested = [&](const std::string& element, size_t depth) {
    return start + Repeated("<" + element + ">", depth) + Repeated("</" + element + ">", depth) +
           end;
  };
  EXPECT_NE(nil, Dictionary(file, nested("array", 510)));
  EXPECT_EQ(nil, Dictionary(file, nested("array", 511)));
  EXPECT_EQ(nil, Dictionary(file, nested("array", 200000)));
  EXPECT_EQ(nil, Dictionary(file, start + Repeated("<array a=\"/>\">", 200000)));
  EXPECT_EQ(nil, Dictionary(file, start + Repeated("<array><!--</array>-->", 200000)));
  EXPECT_NE(nil,
            Dictionary(file, start + "<string>" + Repeated("it's ((", 1000) + "</string>" + end));
}

TEST_F(FoundationTest, MutableDictionariesOfFiles) {
  WriteWholeFile(folder_ / "file.plist", "{ key = value; }");
  NSMutableDictionary* properties =
      [NSMutableDictionary dictionaryWithContentsOfFile:String(folder_ / "file.plist")];
  [properties setObject:@"other" forKey:@"key"];
  EXPECT_EQ("other", Text([properties objectForKey:@"key"]));
}

TEST_F(FoundationTest, MutableDictionariesOfBinaryFiles) {
  const std::string file = folder_ / "file.plist";
  NSData* data = [NSPropertyListSerialization
      dataWithPropertyList:[NSDictionary dictionaryWithObject:@"value" forKey:@"key"]
                    format:NSPropertyListBinaryFormat_v1_0
                   options:0
                     error:nullptr];
  ASSERT_TRUE([data writeToFile:String(file) atomically:NO]);
  NSURL* url = [NSURL fileURLWithPath:String(file)];
  for (NSMutableDictionary *properties in
       [NSArray arrayWithObjects:[NSMutableDictionary dictionaryWithContentsOfFile:String(file)],
                                 [NSMutableDictionary dictionaryWithContentsOfURL:url], nil]) {
    EXPECT_EQ("value", Text([properties objectForKey:@"key"]));
    [properties setObject:@"other" forKey:@"key"];
    EXPECT_EQ("other", Text([properties objectForKey:@"key"]));
  }
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

/// Strings of each class that Foundation has for `text`.
NSArray* Strings(NSString* text) {
  NSString* wide = [text stringByAppendingString:@"\u6f22"];
  return [NSArray
      arrayWithObjects:text, String(Text(text)), [NSMutableString stringWithString:text], wide,
                       [[wide mutableCopy] autorelease], [wide substringToIndex:[text length]],
                       [[text stringByAppendingString:@"."] substringToIndex:[text length]], nil];
}

TEST_F(FoundationTest, IntegersInStringsAreLimitedToThoseOfAnInt) {
  const std::vector<std::pair<NSString*, int>> kNumbers = {
      {@"2147483647", INT_MAX},
      {@"2147483648", INT_MAX},
      {@"4294967297", INT_MAX},
      {@"18446744073709551617", INT_MAX},
      {@"1000000000000000000000000000000000000000", INT_MAX},
      {@"-2147483648", INT_MIN},
      {@"-2147483649", INT_MIN},
      {@"-99999999999999999999999999999999999999", INT_MIN},
      {@"0000000000000000000000000000000000000012", 12},
      {@"-12", -12},
      {@"+12", 12},
      {@"+-12", 0},
      {@"- 12", 0},
      {@" \t\n12 3", 12},
      {@"12.9", 12},
      {@"-", 0},
      {@"", 0}};
  for (const auto& [text, number] : kNumbers) {
    for (NSString* string in Strings(text)) {
      EXPECT_EQ(number, [string intValue]) << Text(string) << " " << Text([string className]);
    }
  }
  EXPECT_EQ(0, [@"\u0661\u0662" intValue]);
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
  // GNUstep does not release the task object of a launch that raises.
  const ScopedLeakPermit permit;
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

TEST_F(FoundationTest, LockOfTheUserDefaultsIsHadAtOnceAndLeavesNothing) {
  const std::string file = folder_ / ".GNUstepDefaults.lck";
  NSDistributedLock* lock = [NSDistributedLock lockWithPath:String(file)];
  EXPECT_TRUE([lock tryLock]);
  EXPECT_TRUE([[NSDistributedLock lockWithPath:String(file)] tryLock]);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.Path()));
  [lock unlock];

  std::filesystem::create_directory(file);
  lock = [NSDistributedLock lockWithPath:String(file)];
  EXPECT_TRUE([lock tryLock]) << "another process has it";
  [lock unlock];
  EXPECT_TRUE(std::filesystem::exists(file)) << "and keeps it";
}

bool CreateDirectory(const std::string& path) {
  return [[NSFileManager defaultManager] createDirectoryAtPath:String(path)
                                   withIntermediateDirectories:YES
                                                    attributes:nil
                                                         error:nullptr];
}

TEST_F(FoundationTest, FoldersAreCreatedWhateverTheirNames) {
  for (const char* name :
       {"GNUstep/Defaults", "GNUstep/Defaults/.lck", ".lck", ".lck/folder", "folder.lck"}) {
    EXPECT_TRUE(CreateDirectory(folder_ / name)) << name;
    EXPECT_TRUE(std::filesystem::is_directory(folder_ / name)) << name;
  }
  EXPECT_FALSE(CreateDirectory("/dev/null/.lck"));
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

  /// The offset at the end of a date that is formatted in the local time zone.
  std::string FormattedOffset() {
    NSDateFormatter* formatter = [[[NSDateFormatter alloc] init] autorelease];
    [formatter setDateFormat:@"Z"];
    return Text([formatter stringFromDate:[NSDate date]]);
  }

 private:
  bool hadZone_;
  std::string savedZone_;
};

/// The offset that strftime(3), and so date(1), prints.
std::string OffsetOfTheCLibrary() {
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char text[16];
  return strftime(text, sizeof(text), "%z", &local) != 0 ? text : "";
}

TEST_F(TimeZoneTest, OffsetIsTheCLibrarysWhateverTheZone) {
  for (const char* zone :
       {"posix/Asia/Kolkata", "right/America/New_York", "Etc/GMT-14", "GMT-5", "GMT+5", "Zulu",
        "Universal", "EST5EDT", "EST5EDT,M3.2.0,M11.1.0", "localtime", "posixrules", "Factory",
        "PST8PDT", "posix", "right/", "XXX-17:59", "XXX17:59", "America/Caracas"}) {
    setenv("TZ", zone, 1);
    EXPECT_EQ(FormattedOffset(), OffsetOfTheCLibrary()) << zone;
  }
}

TEST_F(TimeZoneTest, OffsetsAreCutToWholeMinutes) {
  EXPECT_EQ(19800, [Zone("XXX-05:30:59") secondsFromGMT]);
  EXPECT_EQ("+0530", FormattedOffset());
  EXPECT_EQ(-19800, [Zone("XXX05:30:59") secondsFromGMT]);
  EXPECT_EQ("-0530", FormattedOffset());
  EXPECT_EQ(64800, [Zone("XXX-18:00:59") secondsFromGMT]);
  EXPECT_EQ("+1800", FormattedOffset());
}

TEST_F(TimeZoneTest, OffsetsBeyondEighteenHoursAreGMT) {
  for (const char* zone : {"XXX-18:01", "XXX18:01", "XXX-24:59:59", "XXX24"}) {
    EXPECT_NE(nil, Zone(zone)) << zone;
    EXPECT_EQ("GMT", Text([[NSTimeZone systemTimeZone] name]).substr(0, 3)) << zone;
    EXPECT_EQ("+0000", FormattedOffset()) << zone;
  }
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

// ---- MethodReplacement

void Nothing(id /*self*/, SEL /*selector*/) {}

TEST(MethodReplacementDeathTest, MissingMethodEndsTheProcessWithAMessage) {
  EXPECT_DEATH(MethodReplacement('-', "NSObject", "noSuchMethod:", Nothing),
               "host port: this GNUstep Base has no -\\[NSObject noSuchMethod:\\]");
  EXPECT_DEATH(MethodReplacement('+', "NoSuchClass", "description", Nothing),
               "host port: this GNUstep Base has no \\+\\[NoSuchClass description\\]");
}

}  // namespace
