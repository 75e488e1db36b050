#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/InstallerCompressor/BlobTestSupport.h"
#include "tests/unit/support/Files.h"

namespace {

// A user who owns nothing here.
constexpr uid_t kNobody = 65534;

ChunkList Source(const std::string& path) {
  return ChunkList(PlatformCreateSourceFromPath(path.c_str()));
}

// Each path with its error.
using Faults = std::map<std::string, int>;

void NoteFault(const char* path, int error, void* context) {
  EXPECT_TRUE(static_cast<Faults*>(context)->emplace(path, error).second) << path;
}

// The names of a list, in its order.
std::vector<std::string> Names(const fileChunk* list) {
  std::vector<std::string> names;
  for (; list; list = list->next) {
    names.push_back(list->name);
  }
  return names;
}

TEST(FilenameAllowed, RefusesTheDotNamesAndFinderSettings) {
  struct {
    const char* name;
    bool allowed;
  } const cases[] = {
      {".", false},         {"..", false},        {".DS_Store", false}, {"...", true},
      {".hidden", true},    {"DS_Store", true},   {".DS_Store2", true}, {".ds_store", true},
      {"x.DS_Store", true}, {"Info.plist", true}, {"", true},
  };
  for (const auto& [name, allowed] : cases) {
    EXPECT_EQ(allowed, PlatformFilenameAllowed(name)) << name;
  }
  EXPECT_FALSE(PlatformFilenameAllowed(nullptr));
}

TEST(GetFileSize, AsksForTheSize) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", "12345");
  unsigned long size = 99;
  EXPECT_TRUE(PlatformGetFileSize((folder / "f").c_str(), size));
  EXPECT_EQ(5UL, size);
  ASSERT_EQ(0, truncate((folder / "f").c_str(), (5L << 32) + 7));
  EXPECT_TRUE(PlatformGetFileSize((folder / "f").c_str(), size));
  EXPECT_EQ((5UL << 32) + 7, size);
  EXPECT_FALSE(PlatformGetFileSize((folder / "absent").c_str(), size));
  EXPECT_EQ(0UL, size);
  size = 99;
  EXPECT_FALSE(PlatformGetFileSize(nullptr, size));
  EXPECT_EQ(0UL, size);
}

TEST(GetFileSize, FollowsLinks) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", std::string(1000, 'x'));
  fs::create_symlink("f", folder / "link");
  fs::create_symlink("nowhere", folder / "dangling");
  unsigned long size = 99;
  EXPECT_TRUE(PlatformGetFileSize((folder / "link").c_str(), size));
  EXPECT_EQ(1000UL, size);
  EXPECT_FALSE(PlatformGetFileSize((folder / "dangling").c_str(), size));
  EXPECT_EQ(0UL, size);
}

TEST(SourceFromFile, ReadsTheWholeFileUnderTheNameGiven) {
  const TemporaryFolder folder;
  const std::string contents = RandomBytes(100000);
  WriteFile(folder / "f", contents);
  const ChunkList node(PlatformCreateSourceFromFile((folder / "f").c_str(), "other"));
  EXPECT_STREQ("other", node->name);
  EXPECT_EQ(contents, Contents(*node));
  EXPECT_FALSE(node->isDirectory);
  EXPECT_EQ(nullptr, node->children);
  EXPECT_EQ(nullptr, node->next);
}

TEST(SourceFromFile, ReadsAnEmptyFile) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", "");
  const ChunkList node(PlatformCreateSourceFromFile((folder / "f").c_str(), ""));
  EXPECT_EQ("'' file 0 ''\n", Describe(node.get()));
  EXPECT_NE(nullptr, node->data);
}

TEST(SourceFromFile, KeepsTheLow32BitsOfTheSize) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", "abcdefgh");
  ASSERT_EQ(0, truncate((folder / "f").c_str(), (1L << 32) + 3));  // sparse
  const ChunkList node(PlatformCreateSourceFromFile((folder / "f").c_str(), "f"));
  EXPECT_EQ("'f' file 3 'abc'\n", Describe(node.get()));
}

TEST(SourceFromFile, IsAbsentForWhatIsNoReadableFile) {
  const ScopedAlarm alarm;
  const TemporaryFolder folder;
  fs::create_symlink("nowhere", folder / "dangling");
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  for (const std::string& path : {folder / "absent", folder / "dangling", folder.Path(),
                                  folder / "fifo", std::string("/dev/zero"), std::string()}) {
    EXPECT_EQ(nullptr, PlatformCreateSourceFromFile(path.c_str(), "name")) << path;
  }
  EXPECT_EQ(nullptr, PlatformCreateSourceFromFile(nullptr, "name"));
}

TEST(SourceFromFileIntoArray, ReadsTheWholeFile) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", "contents");
  WriteFile(folder / "empty", "");
  void* data = nullptr;
  unsigned long length = 99;
  EXPECT_EQ(0, PlatformCreateSourceFromFile((folder / "f").c_str(), data, length));
  EXPECT_EQ("contents", std::string(static_cast<char*>(data), length));
  delete[] static_cast<unsigned char*>(data);
  data = nullptr;
  EXPECT_EQ(0, PlatformCreateSourceFromFile((folder / "empty").c_str(), data, length));
  EXPECT_EQ(0UL, length);
  EXPECT_NE(nullptr, data);
  delete[] static_cast<unsigned char*>(data);
}

TEST(SourceFromFileIntoArray, LeavesTheArgumentsWhenThereIsNoFile) {
  const ScopedAlarm alarm;
  const TemporaryFolder folder;
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  for (const std::string& path : {folder / "absent", folder.Path(), folder / "fifo"}) {
    int anything = 0;
    void* data = &anything;
    unsigned long length = 99;
    EXPECT_EQ(0, PlatformCreateSourceFromFile(path.c_str(), data, length));
    EXPECT_EQ(&anything, data);
    EXPECT_EQ(99UL, length);
  }
}

TEST(SourceFromPath, NamesANodeByTheLeaf) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "a/b");
  WriteFile(folder / "a/f", "x");
  struct {
    std::string path;
    const char* leaf;
  } const cases[] = {
      {folder / "a/b", "b"},   {folder / "a/b/", "b/"}, {folder / "a//b", "b"},
      {folder / "a/b//", "/"}, {folder / "a/f", "f"},   {folder / "a/b/.", "."},
  };
  for (const auto& [path, leaf] : cases) {
    const ChunkList node = Source(path);
    ASSERT_NE(nullptr, node) << path;
    EXPECT_STREQ(leaf, node->name) << path;
  }
}

TEST(SourceFromPath, WithoutASlashIsItsOwnLeaf) {
  const ChunkList node = Source(".");
  ASSERT_NE(nullptr, node);
  EXPECT_STREQ(".", node->name);
  EXPECT_EQ(nullptr, PlatformCreateSourceFromPath(""));
  EXPECT_EQ(nullptr, PlatformCreateSourceFromPath(nullptr));
}

TEST(SourceFromPath, ReadsAPlainFile) {
  const TemporaryFolder folder;
  WriteFile(folder / "payload.lzma", "bytes");
  EXPECT_EQ("'payload.lzma' file 5 'bytes'\n", Describe(Source(folder / "payload.lzma").get()));
  EXPECT_EQ(nullptr, Source(folder / "absent"));
}

TEST(SourceFromPath, ReadsAWholeTree) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/a/b/c");
  WriteFile(folder / "tree/a/b/f", "1");
  const ChunkList tree = Source(folder / "tree/");
  EXPECT_TRUE(tree->isDirectory);
  EXPECT_EQ(0UL, tree->size);
  EXPECT_EQ(nullptr, tree->data);
  EXPECT_EQ(nullptr, tree->next);
  EXPECT_EQ(std::vector<std::string>{"a"}, Names(tree->children));
  const fileChunk* const b = tree->children->children;
  EXPECT_STREQ("b", b->name);
  EXPECT_THAT(Names(b->children), testing::UnorderedElementsAre("c", "f"));
  const fileChunk* const f = b->children->isDirectory ? b->children->next : b->children;
  EXPECT_EQ("1", Contents(*f));
}

TEST(SourceFromPath, KeepsTheOrderOfTheFileSystem) {
  const TemporaryFolder folder;
  for (const char* name : {"z", "a", "m", "1", "Q", "b.txt", "zz", "aa", ".hidden"}) {
    WriteFile(folder / name, name);
  }
  std::vector<std::string> expected;
  DIR* const directory = opendir(folder.Path().c_str());
  while (const dirent* entry = readdir(directory)) {
    if (PlatformFilenameAllowed(entry->d_name)) {
      expected.push_back(entry->d_name);
    }
  }
  closedir(directory);
  ASSERT_EQ(9UL, expected.size());
  EXPECT_EQ(expected, Names(Source(folder.Path())->children));
}

TEST(SourceFromPath, LeavesOutFinderSettingsOnly) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "only");
  WriteFile(folder / "only/.DS_Store", "settings");
  EXPECT_EQ("'only' directory 0\n", Describe(Source(folder / "only").get()));
  WriteFile(folder / "only/.hidden", "h");
  EXPECT_EQ("'only' directory 0\n  '.hidden' file 1 'h'\n",
            Describe(Source(folder / "only").get()));
}

TEST(SourceFromPath, FollowsLinks) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "elsewhere/d");
  WriteFile(folder / "elsewhere/f", "target");
  WriteFile(folder / "elsewhere/d/g", "inside");
  fs::create_directory(folder / "files");
  fs::create_symlink("../elsewhere/f", folder / "files/link");
  EXPECT_EQ("'files' directory 0\n  'link' file 6 'target'\n",
            Describe(Source(folder / "files").get()));
  fs::create_directory(folder / "directories");
  fs::create_symlink("../elsewhere/d", folder / "directories/link");
  EXPECT_EQ("'directories' directory 0\n  'link' directory 0\n    'g' file 6 'inside'\n",
            Describe(Source(folder / "directories").get()));
}

TEST(SourceFromPath, TakesADirectoryAsOftenAsItIsLinked) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/d");
  fs::create_symlink("d", folder / "tree/link");
  EXPECT_EQ(2UL, Names(Source(folder / "tree")->children).size());
}

TEST(SourceFromPath, LeavesOutWhatCannotBeOpened) {
  const ScopedAlarm alarm;
  const TemporaryFolder folder;
  const std::string tree = folder / "tree";
  fs::create_directory(tree);
  fs::create_symlink("nowhere", tree + "/dangling");
  fs::create_symlink("self", tree + "/self");
  fs::create_symlink("/dev/zero", tree + "/device");
  ASSERT_EQ(0, mkfifo((tree + "/fifo").c_str(), 0600));
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (tree + "/socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  WriteFile(tree + "/f", "x");
  EXPECT_EQ("'tree' directory 0\n  'f' file 1 'x'\n", Describe(Source(tree).get()));
  close(listener);
}

TEST(SourceFromPath, LeavesOutLinksBackToTheDirectoriesTheyLieIn) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/a/b");
  // Two in each directory: followed until the system refuses, they would make 2^40 paths.
  for (const char* directory : {"tree", "tree/a", "tree/a/b"}) {
    fs::create_symlink(".", folder / (std::string(directory) + "/loop"));
    fs::create_symlink("..", folder / (std::string(directory) + "/up"));
  }
  fs::remove(folder / "tree/up");  // leads out of the tree, and back to none of its folders
  EXPECT_EQ("'tree' directory 0\n  'a' directory 0\n    'b' directory 0\n",
            Describe(Source(folder / "tree").get()));
}

TEST(SourceFromPath, EndsWhereALinkLeadsAroundTheStart) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree");
  fs::create_symlink("..", folder / "tree/up");
  // The folder above is read once, with the tree in it left out as already being read.
  EXPECT_EQ("'tree' directory 0\n  'up' directory 0\n", Describe(Source(folder / "tree").get()));
}

TEST(SourceFromPath, EndsAtPathsLongerThanTheSystemTakes) {
  const TemporaryFolder folder;
  const std::string name(200, 'n');
  fs::create_directory(folder / "tree");
  const std::string before = fs::current_path();
  fs::current_path(folder / "tree");
  constexpr int kLevels = 30;  // 6000 characters
  for (int level = 0; level < kLevels; ++level) {
    fs::create_directory(name);
    fs::current_path(name);
  }
  fs::current_path(before);
  const ChunkList tree = Source(folder / "tree");
  int depth = 0;
  for (const fileChunk* node = tree->children; node; node = node->children) {
    ++depth;
  }
  EXPECT_GT(depth, 15);
  EXPECT_LT(depth, kLevels);
}

TEST(SourceFromPath, TellsWhatItLeavesOutOrCutsShort) {
  const TemporaryFolder folder;
  const std::string tree = folder / "tree";
  fs::create_directories(tree + "/a");
  fs::create_symlink("nowhere", tree + "/dangling");
  fs::create_symlink("self", tree + "/a/self");
  fs::create_symlink("..", tree + "/a/up");
  ASSERT_EQ(0, mkfifo((tree + "/fifo").c_str(), 0600));
  WriteFile(tree + "/.DS_Store", "not worth telling");
  WriteFile(tree + "/a/large", "x");
  ASSERT_EQ(0, truncate((tree + "/a/large").c_str(), (1L << 32) + 1));  // sparse
  WriteFile(tree + "/f", "x");

  Faults faults;
  const ChunkList node(PlatformCreateSourceFromPath(tree.c_str(), nullptr, NoteFault, &faults));
  EXPECT_EQ((Faults{{tree + "/a/large", EFBIG},
                    {tree + "/a/self", ELOOP},
                    {tree + "/a/up", ELOOP},
                    {tree + "/dangling", ENOENT},
                    {tree + "/fifo", ENOTSUP}}),
            faults);
  EXPECT_EQ(Describe(Source(tree).get()), Describe(node.get()));

  faults.clear();
  EXPECT_EQ(nullptr,
            PlatformCreateSourceFromPath((folder / "absent").c_str(), nullptr, NoteFault, &faults));
  EXPECT_EQ((Faults{{folder / "absent", ENOENT}}), faults);
}

// A SourceFilter whose context has the paths that it is asked about.
bool WantsNoPrivateEntry(const char* path, void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back(path);
  return strstr(path, "private") == nullptr;
}

TEST(SourceFromPath, LeavesOutWhatTheFilterRefuses) {
  const TemporaryFolder folder;
  const std::string tree = folder / "tree";
  fs::create_directories(tree + "/a/private folder");
  WriteFile(tree + "/a/private folder/f", "x");
  WriteFile(tree + "/a/f", "x");
  WriteFile(tree + "/.DS_Store", "x");
  std::vector<std::string> asked;
  const ChunkList node(
      PlatformCreateSourceFromPath(tree.c_str(), WantsNoPrivateEntry, nullptr, &asked));
  std::sort(asked.begin(), asked.end());
  EXPECT_EQ((std::vector<std::string>{tree + "/a", tree + "/a/f", tree + "/a/private folder"}),
            asked);
  fs::remove_all(tree + "/a/private folder");
  EXPECT_EQ(Describe(Source(tree).get()), Describe(node.get()));
}

TEST(SourceFromPath, ReportsNothingOfWhatTheFilterRefuses) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree");
  ASSERT_EQ(0, mkfifo((folder / "tree/fifo").c_str(), 0600));
  Faults faults;
  const ChunkList node(PlatformCreateSourceFromPath(
      (folder / "tree").c_str(), [](const char*, void*) { return false; }, NoteFault, &faults));
  EXPECT_EQ(Faults(), faults);
  EXPECT_EQ(nullptr, node->children);
}

TEST(SourceFromPath, TellsNothingOfAWholeTree) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/a");
  WriteFile(folder / "tree/a/f", "x");
  Faults faults;
  EXPECT_NE(nullptr, ChunkList(PlatformCreateSourceFromPath((folder / "tree").c_str(), nullptr,
                                                            NoteFault, &faults)));
  EXPECT_EQ(Faults(), faults);
}

TEST(SourceFromPath, LeavesNoDescriptorOpen) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "tree/a");
  WriteFile(folder / "tree/a/f", "x");
  fs::create_symlink(".", folder / "tree/a/loop");
  ASSERT_EQ(0, mkfifo((folder / "tree/fifo").c_str(), 0600));
  const int before = LowestFreeDescriptor();
  Source(folder / "tree");
  EXPECT_EQ(before, LowestFreeDescriptor());
  Source(folder / "tree/a/f");
  EXPECT_EQ(before, LowestFreeDescriptor());
  Source(folder / "tree/fifo");
  EXPECT_EQ(before, LowestFreeDescriptor());
}

TEST(SourceFromFileIntoArray, LeavesNoDescriptorOpen) {
  const TemporaryFolder folder;
  WriteFile(folder / "f", "x");
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  const int before = LowestFreeDescriptor();
  for (const char* name : {"f", "fifo", "absent"}) {
    void* data = nullptr;
    unsigned long length = 0;
    PlatformCreateSourceFromFile((folder / name).c_str(), data, length);
    delete[] static_cast<unsigned char*>(data);
    EXPECT_EQ(before, LowestFreeDescriptor()) << name;
  }
}

// What `function` returns in a child process.
template <typename Function>
int InChild(Function function) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(300);
    _exit(function());
  }
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status)) << status;
  return WEXITSTATUS(status);
}

TEST(SourceFromPath, LeavesOutWhatMayNotBeRead) {
  const TemporaryFolder folder;
  const std::string tree = folder / "tree";
  fs::permissions(folder.Path(), 0755);
  fs::create_directories(tree + "/closed");
  fs::create_directories(tree + "/listed");
  WriteFile(tree + "/closed/f", "x");
  WriteFile(tree + "/listed/f", "x");
  WriteFile(tree + "/secret", "x");
  fs::permissions(tree, 0755);
  fs::permissions(tree + "/closed", 0);
  fs::permissions(tree + "/listed", 0444);
  fs::permissions(tree + "/secret", 0);
  // Root may read everything.
  const std::string expected = "'tree' directory 0\n  'listed' directory 0\n";
  EXPECT_EQ(0, InChild([&] {
              if (geteuid() == 0 && setuid(kNobody) != 0) {
                return 2;
              }
              return Describe(Source(tree).get()) == expected ? 0 : 1;
            }));
  fs::permissions(tree + "/closed", 0700);
  fs::permissions(tree + "/listed", 0700);
}

TEST(SourceFromFile, DoesNotMakeATerminalItsOwn) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_LE(0, master);
  ASSERT_EQ(0, grantpt(master));
  ASSERT_EQ(0, unlockpt(master));
  const std::string terminal = ptsname(master);
  EXPECT_EQ(0, InChild([&] {
              if (setsid() < 0) {
                return 2;
              }
              if (PlatformCreateSourceFromFile(terminal.c_str(), "name")) {
                return 3;
              }
              return open("/dev/tty", O_RDONLY | O_NONBLOCK) >= 0 ? 1 : 0;
            }));
  close(master);
}

}  // namespace
