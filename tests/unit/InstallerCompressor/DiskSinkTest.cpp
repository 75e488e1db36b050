#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/InstallerCompressor/BlobTestSupport.h"
#include "tests/unit/support/Files.h"

namespace {

class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : previous_(umask(mask)) {}
  ~ScopedUmask() { umask(previous_); }

 private:
  mode_t previous_;
};

std::string Appended(std::string path, size_t capacity, const char* leaf) {
  // An array of exactly the capacity, so that the sanitizer sees a byte too many.
  const std::unique_ptr<char[]> buffer(new char[capacity]);
  memcpy(buffer.get(), path.c_str(), path.size() + 1);
  PlatformAppendPathLeaf(buffer.get(), static_cast<unsigned int>(capacity), leaf);
  return buffer.get();
}

// The file `name` below `root`, reached folder by folder.
std::string ReadFileBelow(const std::string& root, const std::vector<std::string>& folders,
                          const std::string& name) {
  const std::string before = fs::current_path();
  fs::current_path(root);
  for (const std::string& folder : folders) {
    fs::current_path(folder);
  }
  const std::string contents = ReadFile(name);
  fs::current_path(before);
  return contents;
}

TEST(AppendPathLeaf, JoinsWithOneSlash) {
  struct {
    const char *path, *leaf, *expected;
  } const cases[] = {
      {"/a", "b", "/a/b"},    {"/a/", "/b", "/a/b"}, {"/a", "/b", "/a/b"}, {"/a/", "b", "/a/b"},
      {"/a", "", "/a"},       {"/a/", "", "/a/"},    {"", "b", "b"},       {"", "/b", "/b"},
      {"", "", ""},           {"/", "b", "/b"},      {"/", "/b", "/b"},    {"/a/", "//b", "/a//b"},
      {"/a//", "b", "/a//b"}, {"/a", "b/", "/a/b/"}, {"/a", "/", "/a/"},   {"/a/", "/", "/a/"},
      {"a", "b", "a/b"},
  };
  for (const auto& [path, leaf, expected] : cases) {
    EXPECT_EQ(expected, Appended(path, 256, leaf)) << path << " and " << leaf;
  }
}

TEST(AppendPathLeaf, LeavesOutWhatDoesNotFit) {
  struct {
    const char *path, *leaf;
    size_t capacity;
    const char* expected;
  } const cases[] = {
      {"/abc", "d", 5, "/abc"},    // neither fits
      {"/abc", "d", 6, "/abc/"},   // the separator does
      {"/abc", "d", 7, "/abc/d"},  // both do
      {"/ab", "d", 5, "/ab/"},      {"/abc", "/d", 6, "/abc"},
      {"/abc", "/d", 7, "/abc/d"},  {"/abc/", "d", 6, "/abc/"},
      {"/abc/", "d", 7, "/abc/d"},  {"/abc/", "/d", 7, "/abc/d"},
      {"/abc", "defg", 8, "/abc/"}, {"", "abc", 3, ""},
      {"", "abc", 4, "abc"},        {"", "", 1, ""},
  };
  for (const auto& [path, leaf, capacity, expected] : cases) {
    EXPECT_EQ(expected, Appended(path, capacity, leaf)) << path << ", " << leaf << ", " << capacity;
  }
}

TEST(AppendPathLeaf, LeavesAPathBeyondTheCapacityAsItIs) {
  char path[16] = "/abcdef";
  PlatformAppendPathLeaf(path, 4, "g");
  EXPECT_STREQ("/abcdef", path);
  PlatformAppendPathLeaf(path, 0, "g");
  EXPECT_STREQ("/abcdef", path);
}

TEST(AppendPathLeaf, IgnoresAbsentArguments) {
  PlatformAppendPathLeaf(nullptr, 256, "a");
  EXPECT_EQ("/a", Appended("/a", 256, nullptr));
}

TEST(CreateDirectory, ForcesTheMode) {
  const TemporaryFolder folder;
  const ScopedUmask mask(077);
  EXPECT_TRUE(PlatformCreateDirectory((folder / "d").c_str()));
  EXPECT_EQ(0775U, Mode(folder / "d"));
}

// Some systems give a new folder the special bits of the folder that it is made in.
TEST(CreateDirectory, ClearsTheBitThatTheFolderAroundItHandsDown) {
  const TemporaryFolder folder;
  fs::permissions(folder.Path(), 02775);
  EXPECT_TRUE(PlatformCreateDirectory((folder / "d").c_str()));
  EXPECT_EQ(0775U, Mode(folder / "d"));
}

TEST(CreateDirectory, FailsWithoutTouchingAnything) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "d");
  fs::permissions(folder / "d", 0700);
  WriteFile(folder / "f", "x");
  EXPECT_FALSE(PlatformCreateDirectory((folder / "d").c_str()));
  EXPECT_EQ(0700U, Mode(folder / "d"));
  EXPECT_FALSE(PlatformCreateDirectory((folder / "f").c_str()));
  EXPECT_FALSE(PlatformCreateDirectory((folder / "absent/d").c_str()));
  EXPECT_FALSE(fs::exists(folder / "absent"));
  EXPECT_FALSE(PlatformCreateDirectory(""));
  EXPECT_FALSE(PlatformCreateDirectory(nullptr));
}

bool Write(const std::string& path, std::string contents) {
  return PlatformWriteFile(path.c_str(), reinterpret_cast<unsigned char*>(contents.data()),
                           static_cast<unsigned int>(contents.size()));
}

TEST(WriteFile, ForcesTheMode) {
  const TemporaryFolder folder;
  const ScopedUmask mask(077);
  EXPECT_TRUE(Write(folder / "f", "contents"));
  EXPECT_EQ("contents", ReadFile(folder / "f"));
  EXPECT_EQ(0664U, Mode(folder / "f"));
}

TEST(WriteFile, ReplacesWhatAFileHolds) {
  const TemporaryFolder folder;
  ::WriteFile(folder / "f", "much longer than before");
  fs::permissions(folder / "f", 0755);
  EXPECT_TRUE(Write(folder / "f", "short"));
  EXPECT_EQ("short", ReadFile(folder / "f"));
  EXPECT_EQ(0664U, Mode(folder / "f"));
}

TEST(WriteFile, WritesNothingAsAnEmptyFile) {
  const TemporaryFolder folder;
  EXPECT_TRUE(PlatformWriteFile((folder / "f").c_str(), nullptr, 0));
  EXPECT_EQ("", ReadFile(folder / "f"));
}

TEST(WriteFile, FailsWhenItCannotBeOpened) {
  const ScopedAlarm alarm;
  const TemporaryFolder folder;
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  EXPECT_FALSE(Write(folder.Path(), "x"));
  EXPECT_FALSE(Write(folder / "absent/f", "x"));
  EXPECT_FALSE(Write(folder / "fifo", "x"));
  EXPECT_FALSE(Write("", "x"));
  EXPECT_FALSE(PlatformWriteFile(nullptr, nullptr, 0));
}

TEST(WriteFile, RefusesAFIFOThatIsBeingRead) {
  const ScopedAlarm alarm;
  const TemporaryFolder folder;
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  const int reader = open((folder / "fifo").c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_LE(0, reader);
  EXPECT_FALSE(Write(folder / "fifo", "x"));
  char byte = 0;
  EXPECT_EQ(0, read(reader, &byte, 1)) << "nothing was written";
  EXPECT_EQ(0600U, Mode(folder / "fifo"));
  close(reader);
}

TEST(WriteFile, LeavesNoDescriptorOpen) {
  const TemporaryFolder folder;
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  const int reader = open((folder / "fifo").c_str(), O_RDONLY | O_NONBLOCK);
  const int before = LowestFreeDescriptor();
  EXPECT_TRUE(Write(folder / "f", "x"));
  EXPECT_EQ(before, LowestFreeDescriptor());
  EXPECT_FALSE(Write(folder / "fifo", "x"));
  EXPECT_FALSE(Write(folder / "absent/f", "x"));
  EXPECT_EQ(before, LowestFreeDescriptor());
  close(reader);
}

TEST(WriteFileFromChunk, WritesATree) {
  const TemporaryFolder folder;
  const ScopedUmask mask(077);
  const ChunkList tree = List({NewDirectory("", {SampleTree().release()})});
  const std::string bundle = folder / "bundle";
  EXPECT_TRUE(PlatformWriteFileFromChunk(bundle.c_str(), tree.get()));

  EXPECT_EQ("<plist/>\n", ReadFile(bundle + "/Contents/Info.plist"));
  EXPECT_EQ(RandomBytes(3000), ReadFile(bundle + "/Contents/MacOS/Player"));
  EXPECT_EQ("BRPL????", ReadFile(bundle + "/Contents/PkgInfo"));
  EXPECT_TRUE(fs::is_empty(bundle + "/Contents/Resources"));
  EXPECT_EQ("", ReadFile(bundle + "/empty"));
  EXPECT_EQ(std::string(5000, '\0'), ReadFile(bundle + "/zeros"));
  EXPECT_EQ(0775U, Mode(bundle));
  int entries = 0;
  for (const std::string& name : fs::list_recursively(bundle)) {
    const std::string path = bundle + '/' + name;
    ++entries;
    EXPECT_EQ(fs::is_directory(path) ? 0775U : 0664U, Mode(path)) << path;
  }
  EXPECT_EQ(8, entries);
}

TEST(WriteFileFromChunk, IsAlwaysTrue) {
  const TemporaryFolder folder;
  const ChunkList file = List({NewFile("f", "x")});
  EXPECT_TRUE(PlatformWriteFileFromChunk(folder.Path().c_str(), nullptr));
  EXPECT_TRUE(PlatformWriteFileFromChunk((folder / "absent").c_str(), file.get()));
  EXPECT_TRUE(PlatformWriteFileFromChunk(nullptr, file.get()));
  EXPECT_TRUE(fs::is_empty(folder.Path()));
}

TEST(WriteFileFromChunk, MapsANamelessEntryOntoItsParent) {
  const TemporaryFolder folder;
  const ChunkList list =
      List({NewDirectory(nullptr, {NewDirectory("", {NewFile("f", "x")}), NewFile("", "lost")}),
            NewFile("g", "y")});
  PlatformWriteFileFromChunk(folder.Path().c_str(), list.get());
  EXPECT_EQ("x", ReadFile(folder / "f"));
  EXPECT_EQ("y", ReadFile(folder / "g"));
  const ChunkList file = List({NewFile("", "a file as the root")});
  PlatformWriteFileFromChunk((folder / "root").c_str(), file.get());
  EXPECT_EQ("a file as the root", ReadFile(folder / "root"));
}

TEST(WriteFileFromChunk, ClearsTheBitThatAFolderHandsDownToNewOnes) {
  const TemporaryFolder folder;
  fs::permissions(folder.Path(), 02775);
  const ChunkList list = List({NewDirectory("", {NewDirectory("d", {NewDirectory("e")})})});
  PlatformWriteFileFromChunk((folder / "bundle").c_str(), list.get());
  for (const char* name : {"bundle", "bundle/d", "bundle/d/e"}) {
    EXPECT_EQ(0775U, Mode(folder / name)) << name;
  }
}

TEST(WriteFileFromChunk, UsesADirectoryThatExistsAsItIs) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "d");
  fs::permissions(folder / "d", 0700);
  ::WriteFile(folder / "d/old", "old");
  const ChunkList list = List({NewDirectory("d", {NewFile("new", "new")})});
  PlatformWriteFileFromChunk(folder.Path().c_str(), list.get());
  EXPECT_EQ(0700U, Mode(folder / "d"));
  EXPECT_EQ("old", ReadFile(folder / "d/old"));
  EXPECT_EQ("new", ReadFile(folder / "d/new"));
}

TEST(WriteFileFromChunk, GoesOnBehindWhatItCannotWrite) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "file");
  ::WriteFile(folder / "directory", "in the way");
  const ChunkList list =
      List({NewFile("file", "x"), NewDirectory("directory", {NewFile("inside", "y")}),
            NewFile("absent/f", "z"), NewFile("last", "written")});
  EXPECT_TRUE(PlatformWriteFileFromChunk(folder.Path().c_str(), list.get()));
  EXPECT_TRUE(fs::is_directory(folder / "file"));
  EXPECT_EQ("in the way", ReadFile(folder / "directory"));
  EXPECT_EQ("written", ReadFile(folder / "last"));
}

TEST(WriteFileFromChunk, TakesPathsOfAnyLength) {
  const TemporaryFolder folder;
  std::string root = folder.Path();
  while (root.size() < 300) {
    root += "/" + std::string(60, 'r');
  }
  fs::create_directories(root);
  // Longer than a path in one system call may be, and back again for the sibling.
  const std::string name(250, 'n');
  fileChunk* tree = NewFile("leaf", "deep");
  for (int level = 0; level < 20; ++level) {
    tree = NewDirectory(name.c_str(), {tree});
  }
  const ChunkList list = List({tree, NewFile("sibling", "shallow")});
  PlatformWriteFileFromChunk(root.c_str(), list.get());
  EXPECT_EQ("deep", ReadFileBelow(root, std::vector<std::string>(20, name), "leaf"));
  EXPECT_EQ("shallow", ReadFile(root + "/sibling"));
}

// Links that are left of an older bundle may lead anywhere.
TEST(WriteFileFromChunk, WritesNothingThroughLinksBelowItsFolder) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "bundle");
  fs::create_directories(folder / "elsewhere");
  fs::create_symlink(folder / "elsewhere", folder / "bundle/d");
  fs::create_symlink(folder / "elsewhere/made", folder / "bundle/f");
  WriteFile(folder / "kept", "kept");
  fs::create_symlink(folder / "kept", folder / "bundle/g");
  const ChunkList list = List({NewDirectory("d", {NewFile("inner", "x")}), NewFile("f", "x"),
                               NewFile("g", "x"), NewFile("last", "x")});
  EXPECT_TRUE(PlatformWriteFileFromChunk((folder / "bundle").c_str(), list.get()));
  EXPECT_TRUE(fs::is_empty(folder / "elsewhere"));
  EXPECT_EQ("kept", ReadFile(folder / "kept"));
  EXPECT_EQ("x", ReadFile(folder / "bundle/last"));
}

TEST(WriteFileFromChunk, WritesNothingThroughALinkWhoseNameEndsInASlash) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "bundle");
  fs::create_directories(folder / "elsewhere");
  fs::create_symlink(folder / "elsewhere", folder / "bundle/d");
  const ChunkList list = List({NewDirectory("d/", {NewFile("inner", "x")}), NewFile("d/", "x")});
  PlatformWriteFileFromChunk((folder / "bundle").c_str(), list.get());
  EXPECT_TRUE(fs::is_empty(folder / "elsewhere"));
}

TEST(WriteFileFromChunk, WritesIntoNoFileThatHasASecondName) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "bundle");
  WriteFile(folder / "kept", "kept");
  fs::create_hard_link(folder / "kept", folder / "bundle/f");
  const ChunkList list = List({NewFile("f", "x")});
  PlatformWriteFileFromChunk((folder / "bundle").c_str(), list.get());
  EXPECT_EQ("kept", ReadFile(folder / "kept"));
}

TEST(WriteFileFromChunk, TheLaterOfTwoEntriesWithOneNameCounts) {
  const TemporaryFolder folder;
  const ChunkList list = List({NewFile("f", "the first"), NewFile("f", "2nd"),
                               NewDirectory("d", {NewFile("a", "a"), NewFile("both", "first")}),
                               NewDirectory("d/", {NewFile("b", "b"), NewFile("both", "2")})});
  PlatformWriteFileFromChunk(folder.Path().c_str(), list.get());
  EXPECT_EQ("2nd", ReadFile(folder / "f"));
  EXPECT_EQ("a", ReadFile(folder / "d/a"));
  EXPECT_EQ("b", ReadFile(folder / "d/b"));
  EXPECT_EQ("2", ReadFile(folder / "d/both"));
}

TEST(WriteFileFromChunk, RefusesNamesThatAreNotOneComponent) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "inner/sub");
  const ChunkList list = List(
      {NewDirectory("..", {NewFile("a", "x")}), NewDirectory("../", {NewFile("b", "x")}),
       NewDirectory("./", {NewFile("c", "x")}), NewDirectory("sub/..", {NewFile("d", "x")}),
       NewFile("../e", "x"), NewFile("sub/f", "x"), NewFile((folder / "g").c_str(), "x"),
       NewDirectory(std::string(256, 'n').c_str(), {NewFile("h", "x")}), NewFile("last", "x")});
  PlatformWriteFileFromChunk((folder / "inner").c_str(), list.get());
  EXPECT_EQ((std::vector<std::string>{"inner", "inner/last", "inner/sub"}),
            fs::list_recursively(folder.Path()));
}

TEST(WriteFileFromChunk, ReturnsToTheWorkingDirectoryAndTheUmask) {
  const TemporaryFolder folder;
  const ScopedUmask mask(027);
  const std::string before = fs::current_path();
  const ChunkList tree = List({NewDirectory("", {SampleTree().release()})});
  PlatformWriteFileFromChunk((folder / "bundle").c_str(), tree.get());
  EXPECT_EQ(before, fs::current_path());
  EXPECT_EQ(027U, umask(027));
}

TEST(WriteFileFromChunk, TakesRelativeFolders) {
  const TemporaryFolder folder;
  const std::string before = fs::current_path();
  fs::current_path(folder.Path());
  const ChunkList list =
      List({NewDirectory("", {NewDirectory("d", {NewFile("f", "x")})}), NewFile("g", "x")});
  PlatformWriteFileFromChunk("bundle", list.get());
  PlatformWriteFileFromChunk("", list->next);
  fs::current_path(before);
  EXPECT_EQ("x", ReadFile(folder / "bundle/d/f"));
  EXPECT_EQ("x", ReadFile(folder / "bundle/g"));
  EXPECT_EQ("x", ReadFile(folder / "g"));
}

TEST(WriteFileFromChunk, TakesALinkForItsFolder) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "elsewhere");
  fs::create_symlink(folder / "elsewhere", folder / "link");
  const ChunkList list = List({NewDirectory("", {NewFile("f", "x")})});
  PlatformWriteFileFromChunk((folder / "link").c_str(), list.get());
  EXPECT_EQ("x", ReadFile(folder / "elsewhere/f"));
}

TEST(WriteFileFromChunk, LeavesNoDescriptorOpen) {
  const TemporaryFolder folder;
  const ChunkList tree = List({NewDirectory("bundle", {SampleTree().release()})});
  const int before = LowestFreeDescriptor();
  PlatformWriteFileFromChunk(folder.Path().c_str(), tree.get());
  EXPECT_EQ(before, LowestFreeDescriptor());
}

TEST(WriteFileFromChunk, TakesRootsThatAreNotASCII) {
  const TemporaryFolder folder;
  const std::string root = folder / "Größe 東京 \xF0\x9F\x8D\x8E";
  fs::create_directory(root);
  const ChunkList list = List({NewDirectory("Ünïcode", {NewFile("名前", "x")})});
  PlatformWriteFileFromChunk((root + "/").c_str(), list.get());
  EXPECT_EQ("x", ReadFile(root + "/Ünïcode/名前"));
}

TEST(WriteFileFromChunk, TakesNamesThatEndInASlash) {
  const TemporaryFolder folder;
  const ChunkList list = List({NewDirectory("d/", {NewFile("f", "x")}), NewFile("g/", "lost")});
  PlatformWriteFileFromChunk(folder.Path().c_str(), list.get());
  EXPECT_EQ("x", ReadFile(folder / "d/f"));
  EXPECT_FALSE(fs::exists(folder / "g"));
}

TEST(WriteFileFromChunk, WritesTheLow32BitsOfASize) {
  const TemporaryFolder folder;
  const ChunkList list = List({NewFile("f", "abc")});
  list->size += 1UL << 32;
  PlatformWriteFileFromChunk(folder.Path().c_str(), list.get());
  EXPECT_EQ("abc", ReadFile(folder / "f"));
}

TEST(WriteFileFromChunk, WritesBackWhatTheSourceAndTheWriterMade) {
  const TemporaryFolder folder;
  const ChunkList sample = List({NewDirectory("bundle", {SampleTree().release()})});
  PlatformWriteFileFromChunk(folder.Path().c_str(), sample.get());

  const ChunkList source(PlatformCreateSourceFromPath((folder / "bundle").c_str()));
  ASSERT_NE(nullptr, source);
  const ChunkList blob = List({NewFile("blob", SolidBlob(source->children))});
  const ChunkList decoded(DismantleInstallerBlob(blob.get()));
  PlatformWriteFileFromChunk((folder / "copy").c_str(), decoded.get());

  const ChunkList copy(PlatformCreateSourceFromPath((folder / "copy").c_str()));
  ASSERT_NE(nullptr, copy);
  const std::vector<std::string> entries = fs::list_recursively(folder / "bundle");
  EXPECT_EQ(8U, entries.size());
  for (const std::string& name : entries) {
    const std::string original = folder / "bundle/" + name;
    const std::string twin = folder / "copy/" + name;
    EXPECT_EQ(fs::is_directory(original), fs::is_directory(twin)) << twin;
    if (!fs::is_directory(original)) {
      EXPECT_EQ(ReadFile(original), ReadFile(twin));
    }
  }
}

// ---- What could not be written

class SinkReportTest : public testing::Test {
 protected:
  SinkReportTest() { fs::create_directories(folder_ / "root/a/b"); }

  // Writes to root/a/b/bundle.
  void Write(fileChunk* list, const char* path = "/a/b/bundle") {
    EXPECT_TRUE(PlatformWriteFileFromChunk(root_.c_str(), path, list, report_));
  }
  void Expect(unsigned long failed, unsigned long entries, const char* path, int error) const {
    EXPECT_EQ(failed, report_.failed);
    EXPECT_EQ(entries, report_.entries);
    EXPECT_STREQ(path == nullptr ? nullptr : (root_ + path).c_str(), report_.path);
    EXPECT_EQ(error, report_.error) << strerror(report_.error);
  }

  const TemporaryFolder folder_;
  const std::string root_ = folder_ / "root";
  SinkReport report_;
};

TEST_F(SinkReportTest, IsEmptyWhenAllIsWritten) {
  const ChunkList tree = List({NewDirectory("", {SampleTree().release()})});
  Write(tree.get());
  Expect(0, 9, nullptr, 0);
  EXPECT_EQ("<plist/>\n", ReadFile(root_ + "/a/b/bundle/Contents/Info.plist"));
}

TEST_F(SinkReportTest, TakesTheRootItself) {
  const ChunkList tree = List({NewDirectory("", {NewFile("f", "x"), NewFile("g/", "y")})});
  Write(tree.get(), "");
  Expect(1, 3, "/g/", EISDIR);
  EXPECT_EQ("x", ReadFile(root_ + "/f"));
}

TEST_F(SinkReportTest, TakesASlashForTheFolderAroundIt) {
  const ChunkList tree = List({NewDirectory("/", {NewDirectory("/", {NewFile("f", "x")})})});
  Write(tree.get());
  Expect(0, 3, nullptr, 0);
  EXPECT_EQ("x", ReadFile(root_ + "/a/b/bundle/f"));
}

TEST_F(SinkReportTest, TakesNamesAsLongAsTheSystemDoes) {
  const std::string folder(255, 'd'), file(255, 'f');
  const ChunkList tree = List(
      {NewDirectory("", {NewDirectory((folder + "/").c_str(), {NewFile(file.c_str(), "x")})})});
  Write(tree.get());
  Expect(0, 3, nullptr, 0);
  EXPECT_EQ("x", ReadFile(root_ + "/a/b/bundle/" + folder + "/" + file));
}

TEST_F(SinkReportTest, RefusesDots) {
  for (const char* name : {".", "..", "./", "../"}) {
    const ChunkList tree = List({NewDirectory("", {NewDirectory(name, {NewFile("f", "x")})})});
    SinkReport report;
    PlatformWriteFileFromChunk(root_.c_str(), "a/b/bundle", tree.get(), report);
    EXPECT_EQ(2UL, report.failed) << name;
    EXPECT_EQ(EINVAL, report.error) << name;
  }
  for (const char* name : {".", ".."}) {
    const ChunkList tree = List({NewDirectory("", {NewFile(name, "x")})});
    SinkReport report;
    PlatformWriteFileFromChunk(root_.c_str(), "a/b/bundle", tree.get(), report);
    EXPECT_EQ(1UL, report.failed) << name;
    EXPECT_EQ(EINVAL, report.error) << name;
  }
  EXPECT_TRUE(fs::is_empty(root_ + "/a/b/bundle"));
}

TEST_F(SinkReportTest, CountsWhatIsBelowAFolderThatCannotBeEntered) {
  fs::create_directories(root_ + "/a/b/bundle");
  WriteFile(root_ + "/a/b/bundle/d", "in the way");
  fs::create_directories(root_ + "/a/b/bundle/f");
  const ChunkList tree = List({NewDirectory(
      "", {NewDirectory("d", {NewFile("1", "x"), NewDirectory("2", {NewFile("3", "x")})}),
           NewFile("f", "x"), NewFile("", "x"), NewFile("last", "x")})});
  Write(tree.get());
  Expect(6, 8, "/a/b/bundle/d", ENOTDIR);
  EXPECT_EQ("x", ReadFile(root_ + "/a/b/bundle/last"));
}

TEST_F(SinkReportTest, NamesWhatTheEntryMeets) {
  struct {
    const char* name;
    int error;
  } const cases[] = {
      {"link", ELOOP}, {"fifo", ENOTSUP}, {"second-name", EMLINK}, {"folder", EISDIR}};
  fs::create_directories(root_ + "/a/b/bundle/folder");
  WriteFile(root_ + "/kept", "kept");
  fs::create_symlink("../../../kept", root_ + "/a/b/bundle/link");
  fs::create_hard_link(root_ + "/kept", root_ + "/a/b/bundle/second-name");
  ASSERT_EQ(0, mkfifo((root_ + "/a/b/bundle/fifo").c_str(), 0600));
  for (const auto& [name, error] : cases) {
    const ChunkList tree = List({NewDirectory("", {NewFile(name, "x")})});
    SinkReport report;
    PlatformWriteFileFromChunk(root_.c_str(), "a/b/bundle", tree.get(), report);
    EXPECT_EQ(1UL, report.failed) << name;
    // A FIFO without a reader is refused before it is known to be one.
    EXPECT_EQ(name == std::string("fifo") ? ENXIO : error, report.error) << name;
  }
  EXPECT_EQ("kept", ReadFile(root_ + "/kept"));
}

TEST_F(SinkReportTest, NothingIsWrittenThroughALinkInTheTopsPlaceOrAboveIt) {
  fs::create_directories(folder_ / "elsewhere/b/bundle");
  fs::create_symlink(folder_ / "elsewhere/b/bundle", root_ + "/a/b/bundle");
  fs::create_symlink("../elsewhere", root_ + "/above");
  const ChunkList tree = List({NewDirectory("", {NewFile("f", "x")}), NewFile("g", "y")});
  Write(tree.get());
  Expect(3, 3, "/a/b/bundle", ELOOP);
  SinkReport report;
  PlatformWriteFileFromChunk(root_.c_str(), "/above/b/bundle", tree.get(), report);
  EXPECT_EQ(3UL, report.failed);
  EXPECT_EQ(ELOOP, report.error);
  EXPECT_TRUE(fs::is_empty(folder_ / "elsewhere/b/bundle"));
}

TEST_F(SinkReportTest, AMissingRootOrFolderFailsAll) {
  const ChunkList tree = List({NewDirectory("", {NewFile("f", "x")}), NewFile("g", "y")});
  Write(tree.get(), "/a/missing/bundle");
  Expect(3, 3, "/a/missing/bundle", ENOENT);
  SinkReport report;
  PlatformWriteFileFromChunk((folder_ / "missing").c_str(), "bundle", tree.get(), report);
  EXPECT_EQ(3UL, report.failed);
  EXPECT_EQ(ENOENT, report.error);
}

TEST_F(SinkReportTest, ATopThatNoEntryMakesFailsTheOthers) {
  const ChunkList list = List({NewFile("f", "x"), NewDirectory("d", {NewFile("g", "y")})});
  // Without a slash or an empty name, the path fits its array to the byte.
  Write(list.get(), "a/b/bundle");
  Expect(3, 3, "/a/b/bundle/f", ENOENT);
}

TEST_F(SinkReportTest, ATopThatALaterEntryMakesTakesWhatFollows) {
  const ChunkList list =
      List({NewFile("f", "x"), NewDirectory("", {NewFile("g", "y")}), NewFile("f", "z")});
  Write(list.get());
  Expect(1, 4, "/a/b/bundle/f", ENOENT);
  EXPECT_EQ("y", ReadFile(root_ + "/a/b/bundle/g"));
  EXPECT_EQ("z", ReadFile(root_ + "/a/b/bundle/f"));
}

TEST_F(SinkReportTest, AFileInTheTopsPlaceKeepsItFromTheEntriesAfterIt) {
  const ChunkList list = List({NewFile("", "x"), NewDirectory("", {NewFile("g", "y")})});
  Write(list.get());
  Expect(2, 3, "/a/b/bundle", ENOTDIR);
  EXPECT_EQ("x", ReadFile(root_ + "/a/b/bundle"));
}

TEST(PlatformHooks, DoNothing) {
  const TemporaryFolder folder;
  const ChunkList chunk = List({NewFile("f", "x")});
  EXPECT_EQ(0UL, PlatformGetArbitraryTimeInMS());
  EXPECT_FALSE(PlatformWriteChunkToResources((folder / "f").c_str(), chunk.get(), "name"));
  EXPECT_FALSE(PlatformWriteChunkToResources(nullptr, nullptr, nullptr));
  EXPECT_TRUE(fs::is_empty(folder.Path()));
}

}  // namespace
