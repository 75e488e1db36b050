#include <LzmaEnc.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

constexpr size_t kLeastSaving = 24;

// All settings as documented, none left to the SDK's defaults.
CLzmaEncProps DocumentedSettings() {
  CLzmaEncProps settings;
  LzmaEncProps_Init(&settings);
  settings.level = 5;
  settings.dictSize = 1U << 26;
  settings.lc = 3;
  settings.lp = 0;
  settings.pb = 2;
  settings.algo = 1;
  settings.fb = 32;
  settings.btMode = 1;
  settings.numHashBytes = 4;
  settings.mc = 32;
  settings.numThreads = 1;
  return settings;
}

// What the SDK makes of `data`.
std::string CompressedWith(const CLzmaEncProps& settings, const std::string& data) {
  std::string output(data.size() * 2 + 1000, '\0');
  SizeT length = output.size();
  Byte properties[5];
  SizeT propertyCount = 5;
  EXPECT_EQ(SZ_OK, LzmaEncode(reinterpret_cast<Byte*>(output.data()), &length,
                              reinterpret_cast<const Byte*>(data.data()), data.size(), &settings,
                              properties, &propertyCount, 0, nullptr, &GlobalAllocObject,
                              &GlobalAllocObject));
  return output.substr(0, length);
}

// With the documented settings; other dictionaries are for speed.
std::string Compressed(const std::string& data, unsigned int dictionarySize = 1U << 26) {
  CLzmaEncProps settings = DocumentedSettings();
  settings.dictSize = dictionarySize;
  return CompressedWith(settings, data);
}

// Repetitions, most of them short, then groups of records in rising order, of which the search tree
// is a chain, each group followed by one of its records: where the encoder looks for matches, and
// how far, shows in the stream.
std::string RepetitiveBytes() {
  std::mt19937 random(1);
  const std::string words = RandomBytes(4096, 2);
  std::string bytes;
  while (bytes.size() < 50000) {
    const size_t start = random() % 64 * (random() % 64);
    const unsigned int greatest = random() % 4 == 0 ? 40 : 12;
    bytes += words.substr(start, 2 + random() % greatest);
    if (random() % 4 == 0) {
      bytes += static_cast<char>(random());
    }
  }
  constexpr unsigned int kRecords = 64;
  for (unsigned int depth = 24; depth < 40; ++depth) {
    const std::string group = RandomBytes(6, 100 + depth);
    std::string sought;
    for (unsigned int number = 0; number < kRecords; ++number) {
      const std::string record =
          group + static_cast<char>(number) + RandomBytes(depth, depth * kRecords + number);
      bytes += record;
      if (number + depth == kRecords) {
        sought = record;
      }
    }
    bytes += sought;
  }
  return bytes;
}

struct Formatted {
  ChunkList node;
  std::string bytes;

  Formatted(const char* name, const std::string& contents, int type, bool isDirectory = false) {
    const ChunkList chunk(NewFile(name, contents));
    chunk->isDirectory = isDirectory;
    const std::string before = Describe(chunk.get());
    node.reset(PrepareFileChunk(chunk.get(), type));
    EXPECT_EQ(before, Describe(chunk.get()));
    if (!node) {
      return;
    }
    bytes = Contents(*node);
    EXPECT_EQ(nullptr, node->name);
    EXPECT_FALSE(node->isDirectory);
    EXPECT_EQ(nullptr, node->children);
    EXPECT_EQ(nullptr, node->next);
  }
};

TEST(PrepareSourceForSolidCompression, HoldsTheFlattenedList) {
  const ChunkList list = SampleTree();
  const std::string before = Describe(list.get());
  const ChunkList root(PrepareSourceForSolidCompression(list.get()));
  EXPECT_EQ(nullptr, root->name);
  EXPECT_TRUE(root->isDirectory);
  EXPECT_EQ(nullptr, root->children);
  EXPECT_EQ(nullptr, root->next);
  EXPECT_EQ(Flatten(list.get()), Contents(*root));
  EXPECT_EQ(before, Describe(list.get()));
}

TEST(PrepareSourceForSolidCompression, OfAnAbsentListIsEmpty) {
  const ChunkList root(PrepareSourceForSolidCompression(nullptr));
  EXPECT_EQ(0UL, root->size);
  EXPECT_NE(nullptr, root->data);
  EXPECT_TRUE(root->isDirectory);
  EXPECT_EQ(nullptr, PrepareFileChunk(root.get(), kCompressionLZMA));
}

TEST(PrepareSourceForSolidCompression, RefusesTreesOf4GiB) {
  // The sizes have no data behind them: nothing may be copied.
  const ChunkList list = List({NewFile("a", ""), NewDirectory("d", {NewFile("b", "")})});
  list->size = 0xFFFFFFFF;
  list->next->children->size = 10;
  EXPECT_EQ(nullptr, PrepareSourceForSolidCompression(list.get()));
}

TEST(PrepareFileChunk, OfNothingIsAbsent) {
  EXPECT_EQ(nullptr, PrepareFileChunk(nullptr, kCompressionStored));
  EXPECT_EQ(nullptr, PrepareFileChunk(nullptr, kCompressionLZMA));
  EXPECT_EQ(nullptr, Formatted("empty", "", kCompressionStored).node);
  EXPECT_EQ(nullptr, Formatted("empty", "", kCompressionLZMA).node);
  const ChunkList directory(NewDirectory("d", {NewFile("f", "x")}));
  EXPECT_EQ(nullptr, PrepareFileChunk(directory.get(), kCompressionLZMA));
}

TEST(PrepareFileChunk, OfASizeWithoutDataIsAbsent) {
  fileChunk chunk;
  chunk.size = 1;
  EXPECT_EQ(nullptr, PrepareFileChunk(&chunk, kCompressionStored));
  EXPECT_EQ(nullptr, PrepareFileChunk(&chunk, kCompressionLZMA));
}

TEST(PrepareFileChunk, OfASizeThatLeavesNoRoomForHeadersIsAbsent) {
  const ChunkList chunk = List({NewFile("f", "x")});
  // With the header, and with both headers, the array's length would come out as 0.
  for (const auto& [type, overhead] :
       {std::pair(kCompressionStored, 8UL), std::pair(kCompressionLZMA, 8UL + 9UL)}) {
    for (const unsigned long room : {0UL, overhead - 1}) {
      chunk->size = ~room;
      EXPECT_EQ(nullptr, PrepareFileChunk(chunk.get(), type)) << room;
    }
  }
}

TEST(PrepareFileChunk, OfAnotherTypeIsAbsent) {
  for (const int type : {-1, 2, 127, 128, 256}) {
    EXPECT_EQ(nullptr, Formatted("f", "contents", type).node) << type;
  }
}

TEST(PrepareFileChunk, StoresWithType0) {
  const std::string zeros(1000, '\0');
  EXPECT_EQ(StoredFile("zeros", zeros), Formatted("zeros", zeros, kCompressionStored).bytes);
  EXPECT_EQ(StoredFile("", "x"), Formatted(nullptr, "x", kCompressionStored).bytes);
  EXPECT_EQ(StoredDirectory("d", StoredFile("f", "x")),
            Formatted("d", StoredFile("f", "x"), kCompressionStored, true).bytes);
  const std::string longName(300, 'n');
  EXPECT_EQ(StoredFile(longName.substr(0, 44), "x"),
            Formatted(longName.c_str(), "x", kCompressionStored).bytes);
}

TEST(PrepareFileChunk, CompressesWithTheDocumentedSettings) {
  std::string text = RandomBytes(200);
  for (int line = 0; line < 2000; ++line) {
    text += "line " + std::to_string(line * line % 997) + " of a text for the encoder\n";
  }
  const std::string stream = Compressed(text);
  const std::string properties("\x5D\x00\x00\x00\x04", 5);
  EXPECT_EQ(Header(1, "text", 9 + stream.size()) + BigEndian32(text.size()) + properties + stream,
            Formatted("text", text, kCompressionLZMA).bytes);
  EXPECT_EQ(Header(0x81, "", 9 + stream.size()) + BigEndian32(text.size()) + properties + stream,
            Formatted(nullptr, text, kCompressionLZMA, true).bytes);
}

TEST(PrepareFileChunk, SearchesForMatchesAsDocumented) {
  struct {
    const char* setting;
    int CLzmaEncProps::*field;
    int other;
  } const cases[] = {{"no binary tree", &CLzmaEncProps::btMode, 0},
                     {"hash bytes", &CLzmaEncProps::numHashBytes, 3},
                     {"hash bytes", &CLzmaEncProps::numHashBytes, 5},
                     {"fast mode", &CLzmaEncProps::algo, 0},
                     {"fast bytes", &CLzmaEncProps::fb, 31},
                     {"fast bytes", &CLzmaEncProps::fb, 33}};
  const std::string data = RepetitiveBytes();
  const std::string stream = Compressed(data);
  // Not a word of the streams themselves, which would fill the screen.
  EXPECT_TRUE(stream == Formatted("f", data, kCompressionLZMA).bytes.substr(8 + 9));
  // Each of them shows in this stream.
  for (const auto& [setting, field, other] : cases) {
    CLzmaEncProps settings = DocumentedSettings();
    settings.*field = other;
    EXPECT_TRUE(stream != CompressedWith(settings, data)) << setting << " " << other;
  }
  for (const UInt32 cycles : {31U, 33U}) {
    CLzmaEncProps settings = DocumentedSettings();
    settings.mc = cycles;
    EXPECT_TRUE(stream != CompressedWith(settings, data)) << cycles;
  }
}

// What an EncodingProgressHandler was called with.
struct Progress {
  std::vector<unsigned long> done;
  unsigned long total = 0;
};

void NoteProgress(unsigned long done, unsigned long total, void* context) {
  auto* const progress = static_cast<Progress*>(context);
  progress->done.push_back(done);
  progress->total = total;
}

// Words, which compress to some half.
std::string ManyWords(size_t size) {
  std::mt19937 random(5);
  const std::string words = RandomBytes(1 << 16, 6);
  std::string text;
  while (text.size() < size) {
    text += words.substr(random() % (1 << 16), 4 + random() % 28);
  }
  return text;
}

TEST(PrepareFileChunk, ReportsProgressThatNeverFallsAndEndsWithAll) {
  const std::string text = ManyWords(1 << 20);
  const ChunkList chunk(NewFile("f", text));
  Progress progress;
  const ChunkList entry(
      PrepareFileChunk(chunk.get(), kCompressionLZMA, 1, NoteProgress, &progress));
  EXPECT_TRUE(Contents(*entry) == Formatted("f", text, kCompressionLZMA).bytes);
  EXPECT_EQ(text.size(), progress.total);
  EXPECT_GT(progress.done.size(), 4U);
  EXPECT_TRUE(std::is_sorted(progress.done.begin(), progress.done.end()));
  EXPECT_LT(progress.done.front(), text.size() / 4);
  ASSERT_FALSE(progress.done.empty());
  EXPECT_EQ(text.size(), progress.done.back());
}

TEST(PrepareFileChunk, ReportsProgressOfWhatItStores) {
  const std::string noise = RandomBytes(1 << 20);
  for (const int type : {kCompressionStored, kCompressionLZMA}) {
    const ChunkList chunk(NewFile("noise", noise));
    Progress progress;
    const ChunkList entry(PrepareFileChunk(chunk.get(), type, 1, NoteProgress, &progress));
    EXPECT_TRUE(Contents(*entry) == StoredFile("noise", noise));
    ASSERT_FALSE(progress.done.empty());
    EXPECT_TRUE(std::is_sorted(progress.done.begin(), progress.done.end()));
    EXPECT_EQ(noise.size(), progress.done.back());
  }
}

TEST(PrepareFileChunk, ReportsNoProgressOfNothing) {
  Progress progress;
  EXPECT_EQ(nullptr, PrepareFileChunk(nullptr, kCompressionLZMA, 1, NoteProgress, &progress));
  EXPECT_TRUE(progress.done.empty());
}

TEST(PrepareFileChunk, WithSeveralThreadsIsTheSameEveryTime) {
  const std::string text = ManyWords(1 << 18);
  const ChunkList chunk(NewFile("f", text));
  std::string expected;
  for (const unsigned int threads : {2U, 2U, 3U, 1000U}) {
    Progress progress;
    const ChunkList entry(
        PrepareFileChunk(chunk.get(), kCompressionLZMA, threads, NoteProgress, &progress));
    const ChunkList decoded(DismantleInstallerBlob(entry.get()));
    ASSERT_NE(nullptr, decoded) << threads;
    EXPECT_TRUE(Contents(*decoded) == text) << threads;
    EXPECT_TRUE(expected.empty() || Contents(*entry) == expected) << threads;
    expected = Contents(*entry);
    EXPECT_TRUE(std::is_sorted(progress.done.begin(), progress.done.end()));
    EXPECT_EQ(text.size(), progress.done.back());
  }
}

TEST(PrepareFileChunk, WithoutThreadsOrHandlerIsTheDocumentedEntry) {
  const std::string text = RepetitiveBytes();
  const ChunkList chunk(NewFile("f", text));
  const ChunkList entry(PrepareFileChunk(chunk.get(), kCompressionLZMA, 0, nullptr, nullptr));
  EXPECT_TRUE(Contents(*entry) == Formatted("f", text, kCompressionLZMA).bytes);
}

TEST(PrepareFileChunk, ASolidRootBeginsAsDocumented) {
  const ChunkList list = SampleTree();
  const ChunkList root(PrepareSourceForSolidCompression(list.get()));
  const std::string blob = SolidBlob(list.get());
  EXPECT_EQ(std::string("\x02\x81\x00", 3) + BigEndian32(blob.size() - 7) +
                BigEndian32(root->size) + std::string("\x5D\x00\x00\x00\x04", 5),
            blob.substr(0, 16));
}

TEST(PrepareFileChunk, StoresWhatDoesNotCompress) {
  for (const size_t size : {1UL, 100UL, 100000UL}) {
    const std::string noise = RandomBytes(size);
    EXPECT_EQ(StoredFile("noise", noise), Formatted("noise", noise, kCompressionLZMA).bytes);
  }
  // With a name so long that a capacity that counted the header would be generous.
  const std::string name(255, 'n'), noise = RandomBytes(1000);
  EXPECT_EQ(StoredFile(name, noise), Formatted(name.c_str(), noise, kCompressionLZMA).bytes);
  EXPECT_EQ(StoredDirectory("d", noise), Formatted("d", noise, kCompressionLZMA, true).bytes);
}

TEST(PrepareFileChunk, StoresSmallChunks) {
  for (const size_t size : {1UL, 23UL, 24UL}) {
    const std::string zeros(size, '\0');
    EXPECT_EQ(StoredFile("zeros", zeros), Formatted("zeros", zeros, kCompressionLZMA).bytes);
  }
}

TEST(PrepareFileChunk, CompressesWhenThatSavesMoreThan24Bytes) {
  bool sawExactly24 = false, sawMore = false;
  for (size_t zeros = 0; zeros < 100 && !(sawExactly24 && sawMore); ++zeros) {
    const std::string data = RandomBytes(20, 7) + std::string(zeros, '\0');
    const size_t compressed = Compressed(data, 1U << 16).size();
    const bool exactly24 = compressed + kLeastSaving == data.size();
    const bool oneMore = compressed + kLeastSaving + 1 == data.size();
    if (exactly24 && !sawExactly24) {
      sawExactly24 = true;
      EXPECT_EQ(compressed, Compressed(data).size());
      EXPECT_EQ(StoredFile("f", data), Formatted("f", data, kCompressionLZMA).bytes);
    }
    if (oneMore && !sawMore) {
      sawMore = true;
      const std::string entry = Formatted("f", data, kCompressionLZMA).bytes;
      EXPECT_EQ(Header(1, "f", 9 + compressed), entry.substr(0, 8));
      EXPECT_EQ(8 + 9 + compressed, entry.size());
    }
  }
  EXPECT_TRUE(sawExactly24);
  EXPECT_TRUE(sawMore);
}

}  // namespace
