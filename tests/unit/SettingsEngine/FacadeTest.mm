#import "player/ControlPanel/Mac/Source/ExternalInterface/KSConfigFileManager.h"

#include <gtest/gtest.h>

#include <string>

#import "player/ControlPanel/Mac/Source/ExternalInterface/NSString+SimpleString.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

NSString* const kMissingPath = nil;

/// The current folder for the length of a scope: where a path without a folder would lead.
class ScopedCurrentFolder {
 public:
  explicit ScopedCurrentFolder(const std::string& folder) { fs::current_path(folder); }
  ~ScopedCurrentFolder() { fs::current_path(mPrevious); }
  ScopedCurrentFolder(ScopedCurrentFolder const&) = delete;
  ScopedCurrentFolder& operator=(ScopedCurrentFolder const&) = delete;

 private:
  std::string mPrevious = fs::current_path();
};

class FacadeTest : public testing::Test {
 protected:
  FacadeTest() : mPool([[NSAutoreleasePool alloc] init]) {}
  ~FacadeTest() override { [mPool release]; }

  /// A facade on a file with this content.
  KSConfigFileManager* Open(std::string const& content) {
    WriteWholeFile(mPath, content);
    return Open();
  }
  KSConfigFileManager* Open() {
    NSString* path = [NSString stringWithUTF8String:mPath.c_str()];
    return [[[KSConfigFileManager alloc] initWithConfigFile:path] autorelease];
  }

  NSAutoreleasePool* mPool;
  TemporaryFolder mFolder;
  std::string mPath = mFolder / "rks.cfg";
};

/// A string with half of a surrogate pair: no UTF-8 text says the same.
/// +stringWithCharacters:length: returns nil for it on Linux.
NSString* Unpaired() {
  NSString* text = [NSString stringWithFormat:@"a%Cb", static_cast<unichar>(0xD800)];
  EXPECT_EQ([text length], 3U);
  EXPECT_EQ([text characterAtIndex:1], 0xD800);
  return text;
}

NSString* WithNul(char before, char after) {
  const unichar characters[] = {static_cast<unichar>(before), 0, static_cast<unichar>(after)};
  return [NSString stringWithCharacters:characters length:3];
}

TEST_F(FacadeTest, AnyFileGivesAnObject) {
  EXPECT_NE(Open(), nil) << "missing";
  EXPECT_NE(Open(""), nil) << "empty";
  EXPECT_EQ([[Open("") allKeys] count], 0U);
}

/// The superclass's `init` as it fails: only for this class, because every object has it.
id FailingInit(id self, SEL) {
  if (![self isKindOfClass:[KSConfigFileManager class]]) {
    return self;
  }
  [self release];
  return nil;
}

TEST_F(FacadeTest, IsNilWhenTheSuperclassGivesNil) {
  WriteWholeFile(mPath, "a=1\n");
  NSString* path = [NSString stringWithUTF8String:mPath.c_str()];
  const ScopedMethodReplacement replacement([NSObject class], @selector(init),
                                            reinterpret_cast<IMP>(FailingInit));
  EXPECT_EQ([[KSConfigFileManager alloc] initWithConfigFile:path], nil);
}

TEST_F(FacadeTest, NilPathReadsAndWritesNothing) {
  const ScopedCurrentFolder currentFolder(mFolder.Path());
  KSConfigFileManager* settings =
      [[[KSConfigFileManager alloc] initWithConfigFile:kMissingPath] autorelease];
  ASSERT_NE(settings, nil);
  [settings setValue:@"1" forKey:@"a"];
  [settings synchronizeFile];
  EXPECT_TRUE([[settings valueForKey:@"a"] isEqualToString:@"1"]);
  EXPECT_TRUE(fs::is_empty(mFolder.Path()));
}

TEST_F(FacadeTest, PathWithoutUtf8FormReadsAndWritesNothing) {
  const ScopedCurrentFolder currentFolder(mFolder.Path());
  KSConfigFileManager* settings =
      [[[KSConfigFileManager alloc] initWithConfigFile:Unpaired()] autorelease];
  [settings setValue:@"1" forKey:@"a"];
  [settings synchronizeFile];
  EXPECT_EQ([[settings allKeys] count], 1U);
  EXPECT_TRUE(fs::is_empty(mFolder.Path()));
}

TEST_F(FacadeTest, PathMayHoldAnyCharacters) {
  mPath = mFolder / "Gr\xC3\xBC\xC3\x9F"
                    "e \xE2\x98\x83.cfg";
  EXPECT_TRUE([[Open("a=1\n") valueForKey:@"a"] isEqualToString:@"1"]);
}

TEST_F(FacadeTest, AllKeysInOrder) {
  NSArray* keys = [Open("x=1\ny=2\nx=3\nZ=\n") allKeys];
  NSArray* expected = [NSArray arrayWithObjects:@"y", @"x", @"Z", nil];
  EXPECT_TRUE([keys isEqualToArray:expected]);
  EXPECT_FALSE([keys isKindOfClass:[NSMutableArray class]]);
}

TEST_F(FacadeTest, AllKeysAreThoseOfTheFirstRead) {
  KSConfigFileManager* settings = Open("x=1\ny=2\n");
  [settings setValue:@"3" forKey:@"z"];
  WriteWholeFile(mPath, "other=4\nx=5\n");
  NSArray* expected = [NSArray arrayWithObjects:@"x", @"y", @"z", nil];
  EXPECT_TRUE([[settings allKeys] isEqualToArray:expected]);
  EXPECT_TRUE([[settings valueForKey:@"x"] isEqualToString:@"1"]);
}

TEST_F(FacadeTest, AllKeysBeyondTheFirstSlots) {
  std::string content;
  for (int number = 0; number < 25; ++number) {
    content += std::to_string(number) + "=x\n";
  }
  NSArray* keys = [Open(content) allKeys];
  ASSERT_EQ([keys count], 25U);
  EXPECT_TRUE([[keys objectAtIndex:24] isEqualToString:@"24"]);
}

TEST_F(FacadeTest, ValueForKeyIsTheStoredText) {
  KSConfigFileManager* settings = Open("empty=\n"
                                       "Name = Gr\xC3\xBC\xC3\x9F"
                                       "e x\n");
  NSString* expected = [NSString stringWithUTF8String:"Gr\xC3\xBC\xC3\x9F"
                                                      "e x"];
  EXPECT_TRUE([[settings valueForKey:@"Name"] isEqualToString:expected]);
  EXPECT_TRUE([[settings valueForKey:@"empty"] isEqualToString:@""]);
}

TEST_F(FacadeTest, ValueForMissingKeyIsEmptyNotNil) {
  KSConfigFileManager* settings = Open("a=1\n");
  for (NSString* key : {@"A", @"", @"mConfigFileManager", kMissingPath, Unpaired()}) {
    NSString* value = [settings valueForKey:key];
    ASSERT_NE(value, nil);
    EXPECT_EQ([value length], 0U);
  }
}

TEST_F(FacadeTest, BoolValueJudgesItsArgument) {
  KSConfigFileManager* settings = Open("Yes=no\nno=yes\n");
  EXPECT_TRUE([settings boolValue:@"Yes"]);
  EXPECT_TRUE([settings boolValue:@" 7"]);
  EXPECT_FALSE([settings boolValue:@"no"]);
  EXPECT_FALSE([settings boolValue:@""]);
  EXPECT_FALSE([settings boolValue:kMissingPath]);
  EXPECT_FALSE([settings boolValue:Unpaired()]);
  EXPECT_TRUE([settings boolValue:[settings valueForKey:@"no"]]);
}

TEST_F(FacadeTest, SetValueWritesNothingByItself) {
  KSConfigFileManager* settings = Open("a=1\n");
  [settings setValue:@"2" forKey:@"a"];
  EXPECT_TRUE([[settings valueForKey:@"a"] isEqualToString:@"2"]);
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\n");
}

TEST_F(FacadeTest, SeveralChangesAndOneSynchronize) {
  KSConfigFileManager* settings = Open("a=1\r\nb = 2\r\n");
  [settings setValue:@"3" forKey:@"c"];
  [settings setValue:[NSString stringWithUTF8String:"\xC3\xBC"] forKey:@"a"];
  [settings setValue:@"" forKey:@"b"];
  [settings synchronizeFile];
  EXPECT_EQ(ReadWholeFile(mPath), "a=\xC3\xBC\nb=\nc=3\n");
}

TEST_F(FacadeTest, CreatesTheFileWithTheOneLine) {
  KSConfigFileManager* settings = Open();
  [settings setValue:@"1" forKey:@"a"];
  [settings synchronizeFile];
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\n");
}

TEST_F(FacadeTest, SynchronizeIntoAMissingFolderIsSilent) {
  mPath = mFolder / "missing/rks.cfg";
  KSConfigFileManager* settings = Open();
  [settings setValue:@"1" forKey:@"a"];
  [settings synchronizeFile];
  EXPECT_FALSE(fs::exists(mFolder / "missing"));
}

TEST_F(FacadeTest, NilAndUnpairedTextChangeNothing) {
  KSConfigFileManager* settings = Open("a=1\n");
  [settings setValue:nil forKey:@"a"];
  [settings setValue:@"2" forKey:kMissingPath];
  [settings setValue:Unpaired() forKey:@"a"];
  [settings setValue:@"2" forKey:Unpaired()];
  NSMutableString* mutableText = [NSMutableString string];
  [mutableText appendFormat:@"%C", static_cast<unichar>(0xD800)];
  EXPECT_EQ([mutableText length], 1U);
  [settings setValue:mutableText forKey:@"a"];
  EXPECT_EQ([[settings allKeys] count], 1U);
  EXPECT_TRUE([[settings valueForKey:@"a"] isEqualToString:@"1"]);
}

TEST_F(FacadeTest, TextCountsUpToItsFirstNul) {
  KSConfigFileManager* settings = Open("a=1\n");
  [settings setValue:WithNul('v', 'w') forKey:WithNul('k', 'l')];
  EXPECT_TRUE([[settings valueForKey:@"k"] isEqualToString:@"v"]);
  EXPECT_TRUE([settings boolValue:WithNul('y', 'x')]);
}

TEST_F(FacadeTest, TextThatIsNotUtf8IsReadAsLatin1) {
  KSConfigFileManager* settings = Open("k\xE9y=v\xFF\x80 \xED\xA0\x80 x\nother=1\n");
  NSArray* keys = [settings allKeys];
  ASSERT_EQ([keys count], 2U);
  NSString* expected = [NSString stringWithUTF8String:"k\xC3\xA9y"];
  EXPECT_TRUE([[keys objectAtIndex:0] isEqualToString:expected]);
  [settings synchronizeFile];
  EXPECT_EQ(ReadWholeFile(mPath), "k\xE9y=v\xFF\x80 \xED\xA0\x80 x\nother=1\n") << "bytes are kept";
}

TEST_F(FacadeTest, GoesWithWhatItOwns) {
  // Not autoreleased: whatever dealloc forgets, the leak check reports.
  WriteWholeFile(mPath, "a=1\nb=2\n");
  NSString* path = [NSString stringWithUTF8String:mPath.c_str()];
  KSConfigFileManager* settings = [[KSConfigFileManager alloc] initWithConfigFile:path];
  EXPECT_EQ([settings retainCount], 1U);
  [settings release];
}

TEST_F(FacadeTest, StringWithSimpleString) {
  const SASM::SimpleString ascii("text");
  const SASM::SimpleString empty("");
  const SASM::SimpleString latin("v\xFFx\x80");
  EXPECT_TRUE([[NSString stringWithSimpleString:&ascii] isEqualToString:@"text"]);
  EXPECT_TRUE([[NSString stringWithSimpleString:&empty] isEqualToString:@""]);
  EXPECT_TRUE([[NSString stringWithSimpleString:nullptr] isEqualToString:@""]);
  const unichar characters[] = {'v', 0xFF, 'x', 0x80};
  NSString* expected = [NSString stringWithCharacters:characters length:4];
  EXPECT_TRUE([[NSString stringWithSimpleString:&latin] isEqualToString:expected]);
}

TEST_F(FacadeTest, EveryByteSequenceOfTwoGivesAString) {
  for (int first = 1; first < 256; ++first) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    for (int second = 1; second < 256; ++second) {
      const char bytes[] = {static_cast<char>(first), static_cast<char>(second), '\0'};
      const SASM::SimpleString string(bytes);
      ASSERT_NE([NSString stringWithSimpleString:&string], nil) << first << " " << second;
    }
    [pool release];
  }
}

}  // namespace
