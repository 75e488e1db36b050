#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

// ---- The pauses of the wait for a lock: counted, in microseconds, instead of made

namespace {

unsigned long s_pauses;
std::function<void()> s_atPause;

}  // namespace

extern "C" int usleep(useconds_t duration) {
  s_pauses += duration;
  if (s_atPause) {
    s_atPause();
  }
  return 0;
}

// ---- Replacements of the payload library's functions, which record their calls

namespace {

// The state from the removal of the old bundle to that of the blob.
constexpr char kLocked[] = " (bundle gone, blob locked)";
constexpr char kBundlePath[] =
    "/Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin";

std::string s_bundle;
int s_readError;
const int kNoError = -1;
BlobFault s_fault;
bool s_writingSucceeds;
// What the sink reports.
unsigned long s_failedEntries;
const char* s_failedPath;

// Only the addresses of nodes count. Raw memory: they are never constructed.
alignas(fileChunk) unsigned char s_sourceNode[sizeof(fileChunk)];
alignas(fileChunk) unsigned char s_treeNode[sizeof(fileChunk)];
fileChunk* const s_source = reinterpret_cast<fileChunk*>(s_sourceNode);
fileChunk* const s_tree = reinterpret_cast<fileChunk*>(s_treeNode);

std::string Name(const fileChunk* node) {
  return node == nullptr ? "absent" : node == s_source ? "source" : node == s_tree ? "tree" : "?";
}

bool Exists(const std::string& path) { return fs::symlink_exists(path); }

// "locked" when another process could not lock the blob now.
std::string StateOf(const std::string& blob) {
  const int descriptor = open(blob.c_str(), O_RDONLY | O_NONBLOCK);
  if (descriptor < 0) {
    return Exists(blob) ? "present" : "gone";
  }
  const bool isLocked = flock(descriptor, LOCK_EX | LOCK_NB) != 0;
  close(descriptor);
  return isLocked ? "locked" : "present";
}

std::string State(const std::string& bundle) {
  return std::string(" (bundle ") + (Exists(bundle) ? "present" : "gone") + ", blob " +
         StateOf(bundle + ".lzma") + ")";
}

}  // namespace

fileChunk* PlatformCreateSourceFromDescriptor(int descriptor, int& error) {
  const std::string blob = s_bundle + ".lzma";
  struct stat opened = {};
  struct stat present = {};
  EXPECT_EQ(0, fstat(descriptor, &opened));
  EXPECT_EQ(0, stat(blob.c_str(), &present));
  EXPECT_EQ(present.st_ino, opened.st_ino);
  g_events.push_back("read " + blob + State(s_bundle));
  error = s_readError;
  return s_readError == kNoError ? s_source : nullptr;
}

fileChunk* DismantleInstallerBlob(fileChunk* sources, BlobFault& fault) {
  g_events.push_back("dismantle " + Name(sources));
  fault = s_fault;
  return sources != nullptr && fault.reason == nullptr ? s_tree : nullptr;
}

bool PlatformWriteFileFromChunk(const char* root, const char* path, fileChunk* list,
                                SinkReport& report) {
  std::string output = root;
  output += output.back() == '/' ? path + 1 : path;
  g_events.push_back("write " + Name(list) + " " + output + State(output));
  report.entries = 12;
  report.failed = s_failedEntries;
  report.error = ENOSPC;
  if (s_failedPath != nullptr) {
    report.path = new char[strlen(s_failedPath) + 1];
    strcpy(report.path, s_failedPath);
  }
  return s_writingSucceeds;
}

void DeleteFileChunks(fileChunk*& head) {
  g_events.push_back("free " + Name(head) + State(s_bundle));
  head = nullptr;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DecompressLZMATest : public testing::Test {
 protected:
  DecompressLZMATest()
      : root_(folder_.Path()),
        bundle_(root_ + kBundlePath),
        blob_(bundle_ + ".lzma"),
        outputLine_("[3] Compression Output Path: '" + bundle_ + "'."),
        inputLine_("[3] Compression Input Path: '" + blob_ + "'.") {
    s_bundle = bundle_;
    s_readError = kNoError;
    s_fault = BlobFault();
    s_writingSucceeds = true;
    s_failedEntries = 0;
    s_failedPath = nullptr;
    g_events.clear();
    g_logger = [[KPIMLogger alloc] init];
    fs::create_directories(fs::parent_path(bundle_));
  }
  ~DecompressLZMATest() override {
    [g_logger release];
    g_logger = nil;
    [pool_ release];
  }

  void LayBlob() { WriteWholeFile(blob_, "blob"); }
  void LayBundle() {
    fs::create_directories(bundle_ + "/Contents/MacOS");
    WriteWholeFile(bundle_ + "/Contents/MacOS/old", "old");
  }
  int Decompress() { return DecompressLZMA(String(root_)); }

  /// The events of a run that finds a blob.
  std::vector<std::string> FullRun() const {
    return {outputLine_,
            inputLine_,
            "read " + blob_ + kLocked,
            "dismantle source",
            std::string("free source") + kLocked,
            "write tree " + bundle_ + kLocked,
            std::string("free tree") + kLocked};
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  TemporaryFolder folder_;
  std::string root_;
  const std::string bundle_;
  const std::string blob_;
  const std::string outputLine_;
  const std::string inputLine_;
};

TEST_F(DecompressLZMATest, ReplacesTheBundleThenDeletesTheBlob) {
  LayBlob();
  LayBundle();
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
  EXPECT_FALSE(Exists(bundle_));
  EXPECT_FALSE(Exists(blob_));
}

TEST_F(DecompressLZMATest, FirstInstall) {
  LayBlob();
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
  EXPECT_FALSE(Exists(blob_));
}

TEST_F(DecompressLZMATest, MissingBlobTouchesNothing) {
  LayBundle();
  EXPECT_EQ(1, Decompress());
  EXPECT_THAT(g_events,
              ElementsAre(outputLine_, inputLine_, "[1] Input path not found: '" + blob_ + "'."));
  EXPECT_EQ("old", ReadWholeFile(bundle_ + "/Contents/MacOS/old"));
}

TEST_F(DecompressLZMATest, NeighboursOfTheBundleStay) {
  LayBlob();
  const std::string neighbour = bundle_ + ".txt";
  WriteWholeFile(neighbour, "kept");
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ("kept", ReadWholeFile(neighbour));
}

TEST_F(DecompressLZMATest, FileInTheBundlesPlaceIsRemoved) {
  LayBlob();
  WriteWholeFile(bundle_, "not a bundle");
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
}

TEST_F(DecompressLZMATest, LinkInTheBundlesPlaceIsRemovedNotFollowed) {
  LayBlob();
  const std::string target = folder_ / "elsewhere";
  fs::create_directory(target);
  WriteWholeFile(target + "/file", "kept");
  fs::create_symlink(target, bundle_);
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
  EXPECT_EQ("kept", ReadWholeFile(target + "/file"));
}

TEST_F(DecompressLZMATest, DanglingLinkInTheBundlesPlaceIsRemoved) {
  LayBlob();
  fs::create_symlink(folder_ / "nowhere", bundle_);
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
}

TEST_F(DecompressLZMATest, LinksInsideTheBundleAreNotFollowed) {
  LayBlob();
  LayBundle();
  const std::string target = folder_ / "elsewhere";
  fs::create_directory(target);
  WriteWholeFile(target + "/file", "kept");
  fs::create_symlink(target, bundle_ + "/Contents/link");
  EXPECT_EQ(0, Decompress());
  EXPECT_FALSE(Exists(bundle_));
  EXPECT_EQ("kept", ReadWholeFile(target + "/file"));
}

TEST_F(DecompressLZMATest, BlobMayBeALinkWhichAloneIsRemoved) {
  const std::string target = folder_ / "blob elsewhere";
  WriteWholeFile(target, "blob");
  fs::create_symlink(target, blob_);
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events, testing::Contains("dismantle source"));
  EXPECT_FALSE(Exists(blob_));
  EXPECT_EQ("blob", ReadWholeFile(target));
}

TEST_F(DecompressLZMATest, WhatCannotBeOpenedAsABlobIsNeitherReadNorWaitedFor) {
  const std::vector<std::string> expected = {
      outputLine_, inputLine_, "write absent " + bundle_ + " (bundle gone, blob present)",
      "free absent (bundle gone, blob present)"};
  for (const bool isFolder : {true, false}) {
    g_events.clear();
    LayBundle();
    if (isFolder) {
      fs::create_directories(blob_ + "/folder");
    } else {
      ASSERT_EQ(0, mkfifo(blob_.c_str(), 0600));
    }
    EXPECT_EQ(0, Decompress());
    EXPECT_EQ(expected, g_events);
    EXPECT_FALSE(Exists(blob_));
  }
}

TEST_F(DecompressLZMATest, BlobThatCannotBeReadIsNotDecoded) {
  struct {
    int error;
    const char* reason;
  } const cases[] = {{EIO, "Input/output error"},
                     {ENOMEM, "Cannot allocate memory"},
                     {kFileBecameShorter, "it has become shorter"}};
  for (const auto& [error, reason] : cases) {
    g_events.clear();
    LayBlob();
    LayBundle();
    s_readError = error;
    EXPECT_EQ(0, Decompress());
    EXPECT_THAT(
        g_events,
        ElementsAre(outputLine_, inputLine_, "read " + blob_ + kLocked,
                    std::string("[1] ERROR: The payload blob cannot be read: ") + reason + ".",
                    "write absent " + bundle_ + kLocked, std::string("free absent") + kLocked));
    EXPECT_FALSE(Exists(bundle_));
    EXPECT_FALSE(Exists(blob_));
  }
}

TEST_F(DecompressLZMATest, BlobOf4GiBIsMalformed) {
  LayBlob();
  s_readError = EFBIG;
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events, testing::Contains("[1] ERROR: The payload blob is malformed: too large for "
                                          "a blob: 4 GiB or more at byte 4294967295."));
  EXPECT_THAT(g_events, testing::Not(testing::Contains("dismantle source")));
  EXPECT_FALSE(Exists(blob_));
}

TEST_F(DecompressLZMATest, BlobThatAnotherProcessHoldsIsUsedAfterAMinute) {
  LayBlob();
  LayBundle();
  const int holder = open(blob_.c_str(), O_RDONLY);
  ASSERT_EQ(0, flock(holder, LOCK_EX));
  s_pauses = 0;
  EXPECT_EQ(0, Decompress());
  close(holder);
  std::vector<std::string> expected = FullRun();
  expected.insert(expected.begin() + 2,
                  "[1] ERROR: The payload blob cannot be locked: another process holds it.");
  EXPECT_EQ(expected, g_events);
  EXPECT_EQ(60000000u, s_pauses);
}

TEST_F(DecompressLZMATest, BlobThatAnotherProcessRemovesMeanwhileIsMissing) {
  LayBlob();
  LayBundle();
  const int holder = open(blob_.c_str(), O_RDONLY);
  ASSERT_EQ(0, flock(holder, LOCK_EX));
  s_atPause = [this] { fs::remove(blob_); };
  EXPECT_EQ(1, Decompress());
  s_atPause = nullptr;
  close(holder);
  EXPECT_THAT(g_events,
              ElementsAre(outputLine_, inputLine_, "[1] Input path not found: '" + blob_ + "'."));
  EXPECT_TRUE(Exists(bundle_));
}

TEST_F(DecompressLZMATest, FolderOnTheWayThatIsALinkIsNotFollowed) {
  const std::string folder = fs::parent_path(bundle_);
  fs::rename(folder, folder_ / "elsewhere");
  fs::create_symlink(folder_ / "elsewhere", folder);
  LayBlob();
  LayBundle();
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events, testing::Contains("[1] ERROR: 1 of the old bundle's items could not be "
                                          "removed: Too many levels of symbolic links."));
  EXPECT_TRUE(Exists(bundle_) && Exists(blob_));
}

TEST_F(DecompressLZMATest, MalformedBlob) {
  LayBlob();
  LayBundle();
  s_fault.reason = "the name is empty";
  s_fault.offset = 4294967303;
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(
      g_events,
      ElementsAre(outputLine_, inputLine_, "read " + blob_ + kLocked, "dismantle source",
                  std::string("free source") + kLocked,
                  "[1] ERROR: The payload blob is malformed: the name is empty at byte 4294967303.",
                  "write absent " + bundle_ + kLocked, std::string("free absent") + kLocked));
  EXPECT_FALSE(Exists(bundle_));
  EXPECT_FALSE(Exists(blob_));
}

TEST_F(DecompressLZMATest, BlobMalformedInDecodedContent) {
  LayBlob();
  s_fault.reason = "the header is cut short";
  s_fault.offset = 12;
  s_fault.inDecodedContent = true;
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events, testing::Contains("[1] ERROR: The payload blob is malformed: the header is "
                                          "cut short in the decoded content at byte 12."));
}

TEST_F(DecompressLZMATest, WantOfMemoryIsNotAMalformedBlob) {
  LayBlob();
  s_fault.reason = "an entry needs more memory than there is";
  s_fault.isWantOfMemory = true;
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events, testing::Contains("[1] ERROR: The payload blob cannot be read: " +
                                          std::string(strerror(ENOMEM)) + "."));
}

TEST_F(DecompressLZMATest, SinkThatReportsFailureIsHeard) {
  LayBlob();
  s_writingSucceeds = false;
  EXPECT_EQ(1, Decompress());
  std::vector<std::string> expected = FullRun();
  expected.insert(expected.end() - 1, "[1] Error writing file: '" + bundle_ + "'.");
  EXPECT_EQ(expected, g_events);
  EXPECT_FALSE(Exists(blob_)) << "the blob goes whether or not writing succeeded";
}

TEST_F(DecompressLZMATest, WhatTheSinkCouldNotWriteIsLogged) {
  struct {
    const char* path;
    std::string shown;
  } const cases[] = {{"/a/b", "/a/b"},
                     {"/V\xC3\xB6l", "/V\xC3\xB6l"},
                     {"/\xF6", "/\xC3\xB6"},
                     {"/a\nb\x7F", "/a?b?"},
                     {nullptr, bundle_}};
  for (const auto& [path, shown] : cases) {
    g_events.clear();
    LayBlob();
    s_failedEntries = 3;
    s_failedPath = path;
    EXPECT_EQ(0, Decompress());
    std::vector<std::string> expected = FullRun();
    expected.insert(expected.end() - 1,
                    {"[1] Error writing file: '" + shown + "'.",
                     "[1] ERROR: 3 of 12 entries of the payload could not be written: No space "
                     "left on device."});
    EXPECT_EQ(expected, g_events);
    EXPECT_FALSE(Exists(blob_));
  }
}

TEST_F(DecompressLZMATest, PathsAreUTF8) {
  root_ = folder_ / "V\xC3\xB6l 漢字 100%@";
  const std::string bundle = s_bundle = root_ + kBundlePath;
  fs::create_directories(fs::parent_path(bundle));
  WriteWholeFile(bundle + ".lzma", "blob");
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events,
              ElementsAre("[3] Compression Output Path: '" + bundle + "'.",
                          "[3] Compression Input Path: '" + bundle + ".lzma'.",
                          "read " + bundle + ".lzma" + kLocked, "dismantle source",
                          std::string("free source") + kLocked, "write tree " + bundle + kLocked,
                          std::string("free tree") + kLocked));
  EXPECT_FALSE(Exists(bundle + ".lzma"));
}

TEST_F(DecompressLZMATest, TrailingSlashOfTheRootIsJoined) {
  LayBlob();
  root_ += "/";
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
}

TEST_F(DecompressLZMATest, RunsWithoutALog) {
  LayBlob();
  LayBundle();
  [g_logger release];
  g_logger = nil;
  s_fault.reason = "unheard";
  EXPECT_EQ(0, Decompress());
  EXPECT_FALSE(Exists(bundle_));
  EXPECT_FALSE(Exists(blob_));
}

// ---- The fixed paths, without touching them

std::vector<std::string> s_asked;

BOOL NothingExists(id /*self*/, SEL /*selector*/, NSString* path) {
  s_asked.push_back(Text(path));
  return NO;
}

TEST_F(DecompressLZMATest, FixedPathsForTheBootVolumeAndWithoutARoot) {
  ScopedMethodReplacement exists(object_getClass([NSFileManager defaultManager]),
                                 @selector(fileExistsAtPath:), (IMP)NothingExists);
  const std::string blob = std::string(kBundlePath) + ".lzma";
  for (NSString* root : {(NSString*)nil, @"/", @""}) {
    g_events.clear();
    s_asked.clear();
    EXPECT_EQ(1, DecompressLZMA(root));
    EXPECT_THAT(s_asked, ElementsAre(blob));
    EXPECT_THAT(g_events,
                ElementsAre(std::string("[3] Compression Output Path: '") + kBundlePath + "'.",
                            "[3] Compression Input Path: '" + blob + "'.",
                            "[1] Input path not found: '" + blob + "'."));
  }
}

TEST_F(DecompressLZMATest, PathsBelowAnotherVolume) {
  ScopedMethodReplacement exists(object_getClass([NSFileManager defaultManager]),
                                 @selector(fileExistsAtPath:), (IMP)NothingExists);
  s_asked.clear();
  EXPECT_EQ(1, DecompressLZMA(@"/Volumes/Target"));
  EXPECT_THAT(s_asked, ElementsAre("/Volumes/Target/Library/Internet Plug-Ins/PepperKorvelPlayer/"
                                   "PepperKorvelPlayer.plugin.lzma"));
}

}  // namespace
