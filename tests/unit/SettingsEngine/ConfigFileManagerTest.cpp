#include "player/ControlPanel/Common/SMConfigFileManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/unit/SettingsEngine/SettingsText.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

using SASM::ConfigFileManager;
using SASM::SimpleString;

static_assert(!std::is_copy_constructible<ConfigFileManager>::value, "owns its settings");
static_assert(!std::is_copy_assignable<ConfigFileManager>::value, "owns its settings");

class ConfigFileManagerTest : public testing::Test {
 protected:
  /// A manager that has read a file with this content.
  ConfigFileManager& Read(std::string const& content) {
    WriteWholeFile(mPath, content);
    return Open(mPath);
  }
  ConfigFileManager& Open(std::string const& path) {
    mManager.reset(new ConfigFileManager(SimpleString(path.c_str())));
    return *mManager;
  }
  Settings SettingsIn(std::string const& content) { return SettingsOf(Read(content)); }

  std::string Rewritten(std::string const& content) {
    EXPECT_TRUE(Read(content).UpdateSettingsFile());
    return ReadWholeFile(mPath);
  }

  TemporaryFolder mFolder;
  std::string mPath = mFolder / "rks.cfg";
  std::unique_ptr<ConfigFileManager> mManager;
};

void Update(ConfigFileManager& manager, char const* key, char const* value) {
  manager.UpdateSetting(SimpleString(key), SimpleString(value));
}

std::string ValueOf(ConfigFileManager& manager, char const* key) {
  return manager.ValueForKey(SimpleString(key)).mString;
}

TEST(ConfigFileManager, FieldsStandInOrder) {
  EXPECT_EQ(offsetof(ConfigFileManager, mEncoding), 0U);
  EXPECT_EQ(offsetof(ConfigFileManager, mSettings), 8U);
  EXPECT_EQ(offsetof(ConfigFileManager, mPath), 32U);
}

// ---- What is read at all

TEST_F(ConfigFileManagerTest, EmptyPathReadsAndWritesNothing) {
  ConfigFileManager& manager = Open("");
  EXPECT_EQ(manager.mEncoding, -1);
  EXPECT_FALSE(manager.ReadSettingsFile());
  Update(manager, "a", "1");
  EXPECT_FALSE(manager.UpdateSettingsFile());
  EXPECT_EQ(ValueOf(manager, "a"), "1");
}

TEST_F(ConfigFileManagerTest, MissingFileHasNoSettings) {
  ConfigFileManager& manager = Open(mPath);
  EXPECT_EQ(manager.mEncoding, -1);
  EXPECT_EQ(SettingsOf(manager), Settings{});
  EXPECT_FALSE(manager.ReadSettingsFile());
}

TEST_F(ConfigFileManagerTest, DirectoryIsNeitherReadNorWritten) {
  ConfigFileManager& manager = Open(mFolder.Path());
  EXPECT_EQ(manager.mEncoding, -1);
  EXPECT_FALSE(manager.ReadSettingsFile());
  Update(manager, "a", "1");
  EXPECT_FALSE(manager.UpdateSettingsFile());
}

TEST_F(ConfigFileManagerTest, FileOfLessThanFourBytesIsNotRead) {
  for (char const* content : {"", "a", "a=", "a=1", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
    ConfigFileManager& manager = Read(content);
    EXPECT_EQ(manager.mEncoding, -1) << content;
    EXPECT_EQ(SettingsOf(manager), Settings{}) << content;
    EXPECT_FALSE(manager.ReadSettingsFile()) << content;
  }
}

TEST_F(ConfigFileManagerTest, FileOfFourBytesIsRead) {
  ConfigFileManager& manager = Read("a=1\n");
  EXPECT_EQ(manager.mEncoding, 0);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "1"}}));
  EXPECT_TRUE(manager.ReadSettingsFile());
  EXPECT_EQ(SettingsIn("a=12"), (Settings{{"a", "12"}}));
}

TEST_F(ConfigFileManagerTest, Utf8MarkIsSkippedAndNotWritten) {
  ConfigFileManager& manager = Read(
      "\xEF\xBB\xBF"
      "a=1");
  EXPECT_EQ(manager.mEncoding, 1);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "1"}}));
  EXPECT_TRUE(manager.ReadSettingsFile());
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\n");
}

TEST_F(ConfigFileManagerTest, PartOfAUtf8MarkIsText) {
  ConfigFileManager& manager = Read(
      "\xEF\xBB"
      "a=1\n");
  EXPECT_EQ(manager.mEncoding, 0);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "1"}})) << "trimmed as blanks";
}

TEST_F(ConfigFileManagerTest, Utf16FileIsNotReadAndReplacedByAWrite) {
  const std::string littleEndian(
      "\xFF\xFE"
      "a\0=\0"
      "1\0\n\0",
      10);
  const std::string bigEndian(
      "\xFE\xFF\0a\0=\0"
      "1\0\n",
      10);
  for (std::string const& content : {littleEndian, bigEndian}) {
    ConfigFileManager& manager = Read(content);
    EXPECT_EQ(manager.mEncoding, 2);
    EXPECT_EQ(SettingsOf(manager), Settings{});
    EXPECT_FALSE(manager.ReadSettingsFile());
    Update(manager, "b", "2");
    EXPECT_TRUE(manager.UpdateSettingsFile());
    EXPECT_EQ(ReadWholeFile(mPath), "b=2\n");
  }
}

TEST_F(ConfigFileManagerTest, OnlyTheWholeUtf16MarksCount) {
  EXPECT_EQ(Read("\xFF\xFFx=1").mEncoding, 0);
  EXPECT_EQ(Read("\xFE\xFEx=1").mEncoding, 0);
  EXPECT_EQ(Read("\xFFx=1").mEncoding, 0);
  EXPECT_EQ(Read("x\xFF\xFE=1").mEncoding, 0);
}

/// One item of each kind that is not a regular file, by its path. Opening must not wait for any of
/// them.
std::vector<std::string> NotRegularFiles(const TemporaryFolder& folder) {
  const std::string pipe = folder / "pipe";
  const std::string link = folder / "link to the pipe";
  EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  fs::create_symlink(pipe, link);
  return {pipe, link, folder.Path(), "/dev/zero", "/dev/null", "/dev/tty"};
}

TEST_F(ConfigFileManagerTest, WhatIsNoRegularFileIsNotRead) {
  for (const std::string& path : NotRegularFiles(mFolder)) {
    ConfigFileManager& manager = Open(path);
    EXPECT_EQ(manager.mEncoding, -1) << path;
    EXPECT_EQ(SettingsOf(manager), Settings{}) << path;
    EXPECT_FALSE(manager.ReadSettingsFile()) << path;
  }
}

TEST_F(ConfigFileManagerTest, PipeWithAWriterIsNotRead) {
  ASSERT_EQ(mkfifo(mPath.c_str(), 0600), 0);
  const int both = open(mPath.c_str(), O_RDWR);
  ASSERT_GE(both, 0);
  EXPECT_EQ(write(both, "long=1\nb=2\n", 11), 11);
  EXPECT_EQ(SettingsOf(Open(mPath)), Settings{});
  Update(*mManager, "a", "1");
  EXPECT_FALSE(mManager->UpdateSettingsFile());
  char found[32];
  EXPECT_EQ(read(both, found, sizeof found), 11) << "as it was";
  close(both);
}

TEST_F(ConfigFileManagerTest, WhatIsNoRegularFileIsNotWritten) {
  for (const std::string& path : NotRegularFiles(mFolder)) {
    ConfigFileManager& manager = Open(path);
    Update(manager, "a", "1");
    EXPECT_FALSE(manager.UpdateSettingsFile()) << path;
  }
}

TEST_F(ConfigFileManagerTest, LinkToARegularFileIsReadAndWritten) {
  const std::string link = mFolder / "link";
  fs::create_symlink("rks.cfg", link);
  WriteWholeFile(mPath, "a = 1\n");
  EXPECT_EQ(SettingsOf(Open(link)), (Settings{{"a", "1"}}));
  EXPECT_TRUE(mManager->UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\n");
}

// ---- What is too large

constexpr size_t kTail = 8'000'000;

/// A line of `length` bytes, then `count` lines whose blank value takes its tail.
std::string FileWithTails(size_t length, int count) {
  std::string file = "#" + std::string(length, 'x') + "\n";
  for (int number = 0; number < count; ++number) {
    file += std::to_string(number) + "=\n";
  }
  return file;
}

TEST_F(ConfigFileManagerTest, TailsThatAskForMoreThanThereMayBeAreRefused) {
  const std::string file = FileWithTails(kTail, 40);
  ConfigFileManager& manager = Read(file);
  EXPECT_FALSE(manager.ReadSettingsFile());
  Update(manager, "a", "1");
  EXPECT_FALSE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(mPath), file) << "nothing is lost";
}

TEST_F(ConfigFileManagerTest, TailsThatThereIsRoomForAreReadAndWritten) {
  const std::string file = FileWithTails(kTail, 24);
  ConfigFileManager& manager = Read(file);
  EXPECT_TRUE(manager.ReadSettingsFile());
  EXPECT_EQ(ValueOf(manager, "0").size(), kTail - 2);
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_GT(fs::file_size(mPath), 23 * kTail);
}

TEST_F(ConfigFileManagerTest, KeysAndValuesMayHaveAByteLessThan256Megabytes) {
  // With the key of one byte, each tail has a 256th.
  constexpr size_t kPart = 1UL << 20;
  std::string file = "#" + std::string(kPart + 1, 'x') + "\n";
  for (int line = 1; line < 256; ++line) {
    file += "k=\n";
  }
  file += "k=" + std::string(kPart - 2, 'x');
  EXPECT_TRUE(Read(file).UpdateSettingsFile());
  EXPECT_FALSE(Read(file + "x").UpdateSettingsFile());
}

class FileOf256Megabytes : public ConfigFileManagerTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(FileOf256Megabytes, IsRefused) {
  // Sparse: the rest of it is one line of zeros.
  const std::string start = GetParam();
  WriteWholeFile(mPath, start);
  constexpr uintmax_t kSize = (1UL << 28) - 1;  // and the end of the file
  fs::resize_file(mPath, kSize);
  ConfigFileManager& manager = Open(mPath);
  Update(manager, "b", "2");
  EXPECT_FALSE(manager.UpdateSettingsFile());
  EXPECT_EQ(fs::file_size(mPath), kSize);
}

INSTANTIATE_TEST_SUITE_P(InLines, FileOf256Megabytes, testing::Values("", "a=1\n", "a=1\nlong="));

TEST_F(ConfigFileManagerTest, SmallerFileThatTakesThePlaceOfOneTooLargeIsWritten) {
  ConfigFileManager& manager = Read(FileWithTails(kTail, 40));
  WriteWholeFile(mPath, "a=1\n");
  EXPECT_TRUE(manager.ReloadSettingsFile());
  EXPECT_TRUE(manager.UpdateSettingsFile());
}

/// How many files this process has open.
size_t OpenFileCount() { return fs::list("/dev/fd").size(); }

TEST_F(ConfigFileManagerTest, FileIsClosedAfterEachKindOfRead) {
  const size_t before = OpenFileCount();
  for (char const* content : {"a=1\n", "\xEF\xBB\xBF=1\n", "a=1", "\xFF\xFEx=", "\xFE\xFFx="}) {
    Read(content);
    EXPECT_EQ(OpenFileCount(), before) << testing::PrintToString(content);
  }
  for (const std::string& path : NotRegularFiles(mFolder)) {
    Update(Open(path), "a", "1");
    EXPECT_FALSE(mManager->UpdateSettingsFile());
    EXPECT_EQ(OpenFileCount(), before) << path;
  }
}

TEST_F(ConfigFileManagerTest, FileIsClosedAfterAWrite) {
  ConfigFileManager& manager = Read("a=1\n");
  const size_t before = OpenFileCount();
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(OpenFileCount(), before);
}

// ---- Lines

TEST_F(ConfigFileManagerTest, LinesEndAtLfAtCrLfAndAtTheEnd) {
  EXPECT_EQ(SettingsIn("a=1\nb=2\r\nc=3"), (Settings{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST_F(ConfigFileManagerTest, LoneCrEatsTheNextByte) {
  EXPECT_EQ(SettingsIn("a=1\rb=2"), (Settings{{"a", "1"}, {"2", "2"}}));
  EXPECT_EQ(SettingsIn("a=1\rxb=2\n"), (Settings{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(SettingsIn("a=1\r\rb=2\n"), (Settings{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(SettingsIn(std::string("a=1\r\0b=2\n", 9)), (Settings{{"a", "1"}, {"b", "2"}}));
}

TEST_F(ConfigFileManagerTest, CrAtTheEndEndsTheFile) {
  EXPECT_EQ(SettingsIn("a=1\nb=2\r"), (Settings{{"a", "1"}, {"b", "2"}}));
}

TEST_F(ConfigFileManagerTest, LinesWithoutSeparatorAreIgnored) {
  EXPECT_EQ(SettingsIn("\n\n# comment\n; comment\n  \njunk\na=1\n\n"), (Settings{{"a", "1"}}));
}

TEST_F(ConfigFileManagerTest, CommentWithASeparatorIsASetting) {
  EXPECT_EQ(SettingsIn("# note = x\n"), (Settings{{"# note", "x"}}));
  EXPECT_EQ(Rewritten("# note = x\n;=y"), "# note=x\n;=y\n");
}

TEST_F(ConfigFileManagerTest, FirstSeparatorSplits) {
  EXPECT_EQ(SettingsIn("a=b=c\n"), (Settings{{"a", "b=c"}}));
  EXPECT_EQ(SettingsIn("a==\n"), (Settings{{"a", "="}}));
}

TEST_F(ConfigFileManagerTest, BothSidesAreTrimmed) {
  EXPECT_EQ(SettingsIn(" Key = some value \r\n"), (Settings{{"Key", "some value"}}));
  EXPECT_EQ(SettingsIn("\t\x01 a b\x1F\x7F\v=\f c  d \x08\n"), (Settings{{"a b\x1F\x7F", "c  d"}}))
      << "0x7F is not a blank";
}

TEST_F(ConfigFileManagerTest, BytesFrom0x80AreBlanksForTrimming) {
  EXPECT_EQ(SettingsIn("caf\xC3\xA9=\xC3\x9C"
                       "ber na\xC3\xAFve\xFF\n"),
            (Settings{{"caf", "ber na\xC3\xAFve"}}));
}

TEST_F(ConfigFileManagerTest, NulEndsALinesText) {
  EXPECT_EQ(SettingsIn(std::string("a=1\0 2\nb\0=2\nc=3\n", 16)),
            (Settings{{"a", "1"}, {"c", "3"}}));
}

TEST_F(ConfigFileManagerTest, KeysAreCaseSensitive) {
  EXPECT_EQ(SettingsIn("Key=1\nkey=2\nKEY=3\n"),
            (Settings{{"Key", "1"}, {"key", "2"}, {"KEY", "3"}}));
}

TEST_F(ConfigFileManagerTest, LastDuplicateWinsAndMovesToTheEnd) {
  EXPECT_EQ(SettingsIn("x=1\ny=2\nx=3\n"), (Settings{{"y", "2"}, {"x", "3"}}));
  EXPECT_EQ(SettingsIn("x=1\ny=2\n x = 1\n"), (Settings{{"y", "2"}, {"x", "1"}}))
      << "the same value moves too";
  EXPECT_EQ(Rewritten("x=1\ny=2\nx=3"), "y=2\nx=3\n");
}

// ---- Blank sides, and what is left in the line buffer

TEST_F(ConfigFileManagerTest, BlankKeyTakesTheValuesText) {
  EXPECT_EQ(SettingsIn("=abc\n"), (Settings{{"abc", "abc"}}));
  EXPECT_EQ(SettingsIn("   =abc\n"), (Settings{{"abc", "abc"}}));
  EXPECT_EQ(SettingsIn(" = abc \n"), (Settings{{" abc", "abc"}}));
  EXPECT_EQ(SettingsIn("\xC3\xA9=abc\n"), (Settings{{"abc", "abc"}}));
  EXPECT_EQ(SettingsIn("===\n\n"), (Settings{{"==", "=="}}));
}

TEST_F(ConfigFileManagerTest, BlankValueOfTheFirstLineIsEmpty) {
  EXPECT_EQ(SettingsIn("key=\n"), (Settings{{"key", ""}}));
  EXPECT_EQ(SettingsIn("key= \t\n"), (Settings{{"key", ""}}));
}

TEST_F(ConfigFileManagerTest, BlankKeyAndValueTakeWhatFollowsThem) {
  EXPECT_EQ(SettingsIn("=\n\n\n"), (Settings{{"", ""}}));
  EXPECT_EQ(SettingsIn(" =  \n"), (Settings{{"  ", ""}}));
}

TEST_F(ConfigFileManagerTest, BlankValueTakesTheTailOfALongerLine) {
  // After "key=" and its NUL is the comment from its sixth byte on.
  EXPECT_EQ(SettingsIn("# a comment\nkey=\n"), (Settings{{"key", "omment"}}));
}

TEST_F(ConfigFileManagerTest, LinesOfFallingLength) {
  // The NULs that end a line's sides stay in the buffer as well.
  EXPECT_EQ(SettingsIn("0123456789\nabc=\nd=\n"), (Settings{{"abc", "56789"}, {"d", ""}}));
  EXPECT_EQ(SettingsIn("0123456789\nabcde=\nf=\n"), (Settings{{"abcde", "789"}, {"f", "de"}}));
  EXPECT_EQ(SettingsIn("alpha=0123456789\nb=\nc= \n"),
            (Settings{{"alpha", "0123456789"}, {"b", "ha"}, {"c", "a"}}));
}

TEST_F(ConfigFileManagerTest, NulInsideALineEndsTheTail) {
  EXPECT_EQ(SettingsIn(std::string("0123456\0"
                                   "89\nabc=\n",
                                   16)),
            (Settings{{"abc", "56"}}));
  EXPECT_EQ(SettingsIn(std::string("01234567\nab=\0x\n", 15)), (Settings{{"ab", "x"}}))
      << "text behind a NUL of the line itself";
}

TEST_F(ConfigFileManagerTest, EveryReadStartsWithAClearBuffer) {
  ConfigFileManager& manager = Read("# a long comment before\nkey=\n");
  EXPECT_NE(ValueOf(manager, "key"), "");
  WriteWholeFile(mPath, "key=\n");
  EXPECT_TRUE(manager.ReloadSettingsFile());
  EXPECT_EQ(ValueOf(manager, "key"), "");
}

/// `length` bytes in which neighbouring positions differ.
std::string Pattern(size_t length) {
  std::string text;
  for (size_t index = 0; index < length; ++index) {
    text += static_cast<char>('!' + index % 23);
  }
  return text;  // none of the bytes is a "="
}

class LineLength : public ConfigFileManagerTest, public testing::WithParamInterface<size_t> {};

TEST_P(LineLength, IsReadWhole) {
  const std::string value = Pattern(GetParam() - 2);
  EXPECT_EQ(SettingsIn("k=" + value + "\nl=2\n"), (Settings{{"k", value}, {"l", "2"}}));
  EXPECT_EQ(SettingsIn("k=" + value), (Settings{{"k", value}}));
}

TEST_P(LineLength, MayEndInTheSeparator) {
  const std::string key = Pattern(GetParam() - 1);
  EXPECT_EQ(SettingsIn(key + "="), (Settings{{key, ""}}));
  EXPECT_EQ(SettingsIn(key + "=\n"), (Settings{{key, ""}}));
}

TEST_P(LineLength, MayBeNothingButBlanksAroundTheSeparator) {
  std::string line(GetParam(), ' ');
  line[line.size() / 2] = '=';
  const std::string valueSide = line.substr(line.size() / 2 + 1);
  EXPECT_EQ(SettingsIn(line + "\n"), (Settings{{valueSide, ""}}));
}

TEST_P(LineLength, TailStaysForShorterLines) {
  const std::string line = Pattern(GetParam());
  const std::string shorter = Pattern(GetParam() / 2);
  // Each tail begins after the shorter text, "=" and the NUL.
  const Settings expected{{shorter, line.substr(shorter.size() + 2)}, {"k", shorter.substr(3)}};
  EXPECT_EQ(SettingsIn(line + "\n" + shorter + "=\nk=\n"), expected);
}

INSTANTIATE_TEST_SUITE_P(AcrossGrowth, LineLength,
                         testing::Values(16, 1021, 1022, 1023, 1024, 1025, 2046, 2047, 2048, 2049,
                                         5000));

// ---- StripString and ProcessLine by themselves

std::string Stripped(std::string text, ptrdiff_t expectedOffset) {
  text.resize(text.size() + 2);
  char* result = ConfigFileManager::StripString(text.data());
  EXPECT_EQ(result - text.data(), expectedOffset);
  return result;
}

TEST(StripString, TrimsBothEnds) {
  EXPECT_EQ(Stripped("text", 0), "text");
  EXPECT_EQ(Stripped(" a b ", 1), "a b");
  EXPECT_EQ(Stripped("\t\n\x80\xFFx", 4), "x");
  EXPECT_EQ(Stripped("x\xC3\xA9 ", 0), "x");
  EXPECT_EQ(Stripped("\x7F", 0), "\x7F");
  EXPECT_EQ(Stripped("!", 0), "!");
}

TEST(StripString, StopsBehindTheTerminatorOfBlankText) {
  EXPECT_EQ(Stripped("", 1), "");
  EXPECT_EQ(Stripped(" ", 2), "");
  EXPECT_EQ(Stripped(" \xE9 ", 4), "");
}

TEST(StripString, AnswersWithTheTextBehindBlankText) {
  char text[] = "  \0 next ";
  EXPECT_STREQ(ConfigFileManager::StripString(text), " next ");
  EXPECT_EQ(std::string(text, 2), "  ") << "blank text stays as it is";
}

TEST(StripString, NullGivesNull) { EXPECT_EQ(ConfigFileManager::StripString(nullptr), nullptr); }

TEST_F(ConfigFileManagerTest, ProcessLineStoresOneSetting) {
  ConfigFileManager& manager = Open("");
  char line[32] = " a = 1 ";
  manager.ProcessLine(line);
  char again[32] = "a=2";
  manager.ProcessLine(again);
  char nothing[32] = "no separator";
  manager.ProcessLine(nothing);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "2"}}));
}

TEST_F(ConfigFileManagerTest, ProcessLineErasesEveryPairOfTheKey) {
  ConfigFileManager& manager = Open("");
  manager.mSettings.insert(SimpleString("a"), SimpleString("1"));
  manager.mSettings.insert(SimpleString("a"), SimpleString("2"));
  char line[8] = "a=3";
  manager.ProcessLine(line);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "3"}}));
}

TEST_F(ConfigFileManagerTest, ProcessFileStartsAtTheCurrentPosition) {
  WriteWholeFile(mPath, "a=1\nb=2\nc=3");
  ConfigFileManager& manager = Open("");
  FILE* file = fopen(mPath.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(fseek(file, 4, SEEK_SET), 0);
  manager.ProcessFile(file);
  EXPECT_EQ(fgetc(file), EOF);
  EXPECT_EQ(fclose(file), 0);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"b", "2"}, {"c", "3"}}));
}

// ---- Look-up, change, reload, write

TEST_F(ConfigFileManagerTest, ValueForKeyRefersToTheFirstPairsValue) {
  ConfigFileManager& manager = Read("a=1\nb=2\n");
  EXPECT_EQ(&manager.ValueForKey(SimpleString("b")), &manager.mSettings.mFirst->next->value);
  manager.mSettings.insert(SimpleString("a"), SimpleString("3"));
  EXPECT_EQ(ValueOf(manager, "a"), "1");
}

TEST_F(ConfigFileManagerTest, ValueForMissingKeyIsTheEndMarkers) {
  ConfigFileManager& manager = Read("a=1\n");
  EXPECT_EQ(&manager.ValueForKey(SimpleString("A")), &manager.mSettings.mSentinel->value);
  EXPECT_EQ(ValueOf(manager, "A"), "");
}

TEST_F(ConfigFileManagerTest, UpdateSettingKeepsThePlace) {
  ConfigFileManager& manager = Read("a=1\nb=2\nc=3\n");
  Update(manager, "b", "new");
  Update(manager, "B", "other");
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "1"}, {"b", "new"}, {"c", "3"}, {"B", "other"}}));
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\nb=2\nc=3\n") << "memory only";
}

TEST_F(ConfigFileManagerTest, UpdateSettingLeavesLaterPairsOfTheKey) {
  ConfigFileManager& manager = Open("");
  manager.mSettings.insert(SimpleString("a"), SimpleString("1"));
  manager.mSettings.insert(SimpleString("a"), SimpleString("2"));
  Update(manager, "a", "3");
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "3"}, {"a", "2"}}));
}

TEST_F(ConfigFileManagerTest, UpdateSettingTakesTextAsItIs) {
  ConfigFileManager& manager = Open(mPath);
  Update(manager, " k ", " v ");
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(mPath), " k = v \n");
}

TEST_F(ConfigFileManagerTest, UpdateSettingWithItsOwnValue) {
  ConfigFileManager& manager = Read("a=1\n");
  manager.UpdateSetting(SimpleString("a"), manager.ValueForKey(SimpleString("a")));
  EXPECT_EQ(ValueOf(manager, "a"), "1");
}

TEST_F(ConfigFileManagerTest, ReloadMerges) {
  ConfigFileManager& manager = Read("a=1\nb=2\n");
  Update(manager, "memory", "kept");
  Update(manager, "a", "changed");
  WriteWholeFile(mPath, "b=3\na=4\nc=5\n");
  EXPECT_TRUE(manager.ReloadSettingsFile());
  EXPECT_EQ(SettingsOf(manager),
            (Settings{{"memory", "kept"}, {"b", "3"}, {"a", "4"}, {"c", "5"}}));
}

TEST_F(ConfigFileManagerTest, ReloadThatCannotOpenChangesNothing) {
  ConfigFileManager& manager = Read(
      "\xEF\xBB\xBF"
      "a=1\n");
  fs::remove(mPath);
  EXPECT_FALSE(manager.ReloadSettingsFile());
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "1"}}));
  EXPECT_EQ(manager.mEncoding, 1) << "what the last file that opened had";
}

TEST_F(ConfigFileManagerTest, ReloadOfAnUnreadableFileChangesTheRecordOnly) {
  ConfigFileManager& manager = Read("a=1\n");
  WriteWholeFile(mPath, "b=2");
  EXPECT_FALSE(manager.ReloadSettingsFile());
  EXPECT_EQ(manager.mEncoding, -1);
  WriteWholeFile(mPath, std::string("\xFE\xFF\0b", 4));
  EXPECT_FALSE(manager.ReloadSettingsFile());
  EXPECT_EQ(manager.mEncoding, 2);
  EXPECT_EQ(SettingsOf(manager), (Settings{{"a", "1"}}));
}

TEST_F(ConfigFileManagerTest, EmptyMapWritesAnEmptyFile) {
  EXPECT_EQ(Rewritten("nothing in here\n"), "");
}

TEST_F(ConfigFileManagerTest, WriteCreatesTheFileButNoFolder) {
  ConfigFileManager& manager = Open(mPath);
  Update(manager, "a", "1");
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\n");

  ConfigFileManager& elsewhere = Open(mFolder / "missing/rks.cfg");
  Update(elsewhere, "a", "1");
  EXPECT_FALSE(elsewhere.UpdateSettingsFile());
  EXPECT_FALSE(fs::exists(mFolder / "missing"));
}

TEST_F(ConfigFileManagerTest, WriteTruncatesInPlace) {
  const std::string link = mFolder / "link";
  fs::create_symlink(mPath, link);
  WriteWholeFile(mPath, "a = a value that is much longer than what comes\n# note\n");
  ConfigFileManager& manager = Open(link);
  Update(manager, "a", "1");
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(mPath), "a=1\n");
  EXPECT_TRUE(fs::is_symlink(link));
}

TEST_F(ConfigFileManagerTest, ErrorsWhileWritingGoUnreported) {
  ConfigFileManager& manager = Read("a=1\n");
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  (void)signal(SIGXFSZ, handler);
  EXPECT_EQ(ReadWholeFile(mPath), "");
}

TEST_F(ConfigFileManagerTest, ProcessSettingsForWriteWritesAtTheCurrentPosition) {
  ConfigFileManager& manager = Read("a=1\nb=%s%n\n");
  FILE* file = fopen(mPath.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  EXPECT_GE(fputs("before\n", file), 0);
  manager.ProcessSettingsForWrite(file);
  EXPECT_EQ(fclose(file), 0);
  EXPECT_EQ(ReadWholeFile(mPath), "before\na=1\nb=%s%n\n");
}

TEST_F(ConfigFileManagerTest, ListOfAllKeysIsInOrderWithDuplicates) {
  ConfigFileManager& manager = Read("x=1\ny=2\nx=3\n");
  manager.mSettings.insert(SimpleString("y"), SimpleString("4"));
  SASM::StringVector* keys = manager.CreateListOfAllKeys();
  ASSERT_NE(keys, nullptr);
  std::vector<std::string> texts;
  for (unsigned int index = 0; index < keys->mCount; ++index) {
    texts.push_back(static_cast<SimpleString*>(keys->mElements[index])->mString);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"y", "x", "y"}));
  delete keys;
}

TEST_F(ConfigFileManagerTest, ListOfNoKeysIsEmptyNotAbsent) {
  SASM::StringVector* keys = Open("").CreateListOfAllKeys();
  ASSERT_NE(keys, nullptr);
  EXPECT_EQ(keys->mCount, 0U);
  delete keys;
}

}  // namespace
