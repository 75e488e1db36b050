#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <vector>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

// ---- The payload library's place is taken by functions that record how they are called

namespace {

constexpr char kBundlePath[] =
    "/Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin";

bool s_blobIsReadable;
std::vector<int> s_readErrors;
BlobFault s_fault;
bool s_writingSucceeds;

// Nodes are told apart by their addresses alone. Raw memory: they are never built.
alignas(fileChunk) unsigned char s_sourceNode[sizeof(fileChunk)];
alignas(fileChunk) unsigned char s_treeNode[sizeof(fileChunk)];
fileChunk* const s_source = reinterpret_cast<fileChunk*>(s_sourceNode);
fileChunk* const s_tree = reinterpret_cast<fileChunk*>(s_treeNode);

std::string Name(const fileChunk* node) {
  return node == nullptr ? "absent" : node == s_source ? "source" : node == s_tree ? "tree" : "?";
}

bool Exists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

std::string Presence(const std::string& bundle) {
  return std::string(" (bundle ") + (Exists(bundle) ? "present" : "gone") + ", blob " +
         (Exists(bundle + ".lzma") ? "present)" : "gone)");
}

}  // namespace

fileChunk* PlatformCreateSourceFromPath(char const* path, SourceFaultHandler* handler,
                                        void* context) {
  const std::string blob = path;
  for (const int error : s_readErrors) {
    handler(path, error, context);
  }
  g_events.push_back("read " + blob + Presence(blob.substr(0, blob.size() - 5)));
  return s_blobIsReadable ? s_source : nullptr;
}

fileChunk* DismantleInstallerBlob(fileChunk* sources, BlobFault& fault) {
  g_events.push_back("dismantle " + Name(sources));
  fault = s_fault;
  return sources != nullptr && fault.reason == nullptr ? s_tree : nullptr;
}

bool PlatformWriteFileFromChunk(char const* parentPath, fileChunk* list) {
  g_events.push_back("write " + Name(list) + " " + parentPath + Presence(parentPath));
  return s_writingSucceeds;
}

void DeleteFileChunks(fileChunk*& head) {
  g_events.push_back("free " + Name(head));
  head = nullptr;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DecompressLZMATest : public testing::Test {
 protected:
  DecompressLZMATest()
      : root_(folder_.Path().string()),
        bundle_(root_ + kBundlePath),
        blob_(bundle_ + ".lzma"),
        outputLine_("[3] Compression Output Path: '" + bundle_ + "'."),
        inputLine_("[3] Compression Input Path: '" + blob_ + "'.") {
    s_blobIsReadable = true;
    s_readErrors.clear();
    s_fault = BlobFault();
    s_writingSucceeds = true;
    g_events.clear();
    g_logger = [[KPIMLogger alloc] init];
    std::filesystem::create_directories(std::filesystem::path(bundle_).parent_path());
  }
  ~DecompressLZMATest() override {
    [g_logger release];
    g_logger = nil;
    [pool_ release];
  }

  void LayBlob() { WriteWholeFile(blob_, "blob"); }
  void LayBundle() {
    std::filesystem::create_directories(bundle_ + "/Contents/MacOS");
    WriteWholeFile(bundle_ + "/Contents/MacOS/old", "old");
  }
  int Decompress() { return DecompressLZMA(String(root_)); }

  /// What a run that gets past the missing-blob test does.
  std::vector<std::string> FullRun() const {
    return {
        outputLine_,        inputLine_,    "read " + blob_ + " (bundle gone, blob present)",
        "dismantle source", "free source", "write tree " + bundle_ + " (bundle gone, blob present)",
        "free tree"};
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
  std::filesystem::create_directory(target);
  WriteWholeFile(target + "/file", "kept");
  std::filesystem::create_directory_symlink(target, bundle_);
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
  EXPECT_EQ("kept", ReadWholeFile(target + "/file"));
}

TEST_F(DecompressLZMATest, DanglingLinkInTheBundlesPlaceIsRemoved) {
  LayBlob();
  std::filesystem::create_symlink(folder_ / "nowhere", bundle_);
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
}

TEST_F(DecompressLZMATest, LinksInsideTheBundleAreNotFollowed) {
  LayBlob();
  LayBundle();
  const std::string target = folder_ / "elsewhere";
  std::filesystem::create_directory(target);
  WriteWholeFile(target + "/file", "kept");
  std::filesystem::create_directory_symlink(target, bundle_ + "/Contents/link");
  EXPECT_EQ(0, Decompress());
  EXPECT_FALSE(Exists(bundle_));
  EXPECT_EQ("kept", ReadWholeFile(target + "/file"));
}

TEST_F(DecompressLZMATest, BlobThatIsALinkIsRemovedNotFollowed) {
  const std::string target = folder_ / "blob elsewhere";
  WriteWholeFile(target, "blob");
  std::filesystem::create_symlink(target, blob_);
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
  EXPECT_FALSE(Exists(blob_));
  EXPECT_EQ("blob", ReadWholeFile(target));
}

TEST_F(DecompressLZMATest, BlobThatCannotBeOpened) {
  LayBlob();
  LayBundle();
  s_blobIsReadable = false;
  s_readErrors = {EACCES};
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(
      g_events,
      ElementsAre(outputLine_, inputLine_, "read " + blob_ + " (bundle gone, blob present)",
                  "dismantle absent", "free absent",
                  "write absent " + bundle_ + " (bundle gone, blob present)", "free absent"));
  EXPECT_FALSE(Exists(blob_));
}

TEST_F(DecompressLZMATest, BlobWithAReadErrorIsNotDecoded) {
  LayBlob();
  LayBundle();
  s_readErrors = {EIO};
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(
      g_events,
      ElementsAre(outputLine_, inputLine_, "read " + blob_ + " (bundle gone, blob present)",
                  "free source", "[1] ERROR: The payload blob cannot be read: Input/output error.",
                  "write absent " + bundle_ + " (bundle gone, blob present)", "free absent"));
  EXPECT_FALSE(Exists(bundle_));
  EXPECT_FALSE(Exists(blob_));
}

TEST_F(DecompressLZMATest, BlobThatBecomesShorterIsNotDecoded) {
  LayBlob();
  s_readErrors = {kFileBecameShorter};
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events, testing::Contains(
                            "[1] ERROR: The payload blob cannot be read: it has become shorter."));
  EXPECT_THAT(g_events, testing::Not(testing::Contains("dismantle source")));
}

TEST_F(DecompressLZMATest, BlobWhoseSizeIsCutIsDecoded) {
  LayBlob();
  s_readErrors = {EFBIG};
  EXPECT_EQ(0, Decompress());
  EXPECT_EQ(FullRun(), g_events);
}

TEST_F(DecompressLZMATest, MalformedBlob) {
  LayBlob();
  LayBundle();
  s_fault.reason = "the name is empty";
  s_fault.offset = 4294967303;
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(
      g_events,
      ElementsAre(outputLine_, inputLine_, "read " + blob_ + " (bundle gone, blob present)",
                  "dismantle source", "free source",
                  "[1] ERROR: The payload blob is malformed: the name is empty at byte 4294967303.",
                  "write absent " + bundle_ + " (bundle gone, blob present)", "free absent"));
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

TEST_F(DecompressLZMATest, SinkThatReportsFailureIsHeard) {
  LayBlob();
  s_writingSucceeds = false;
  EXPECT_EQ(1, Decompress());
  std::vector<std::string> expected = FullRun();
  expected.insert(expected.end() - 1, "[1] Error writing file: '" + bundle_ + "'.");
  EXPECT_EQ(expected, g_events);
  EXPECT_FALSE(Exists(blob_)) << "the blob goes whether or not writing succeeded";
}

TEST_F(DecompressLZMATest, PathsAreUTF8) {
  root_ = folder_ / "V\xC3\xB6l 漢字 100%@";
  const std::string bundle = root_ + kBundlePath;
  std::filesystem::create_directories(std::filesystem::path(bundle).parent_path());
  WriteWholeFile(bundle + ".lzma", "blob");
  EXPECT_EQ(0, Decompress());
  EXPECT_THAT(g_events,
              ElementsAre("[3] Compression Output Path: '" + bundle + "'.",
                          "[3] Compression Input Path: '" + bundle + ".lzma'.",
                          "read " + bundle + ".lzma (bundle gone, blob present)",
                          "dismantle source", "free source",
                          "write tree " + bundle + " (bundle gone, blob present)", "free tree"));
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

// ---- The fixed paths, without going near them

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
