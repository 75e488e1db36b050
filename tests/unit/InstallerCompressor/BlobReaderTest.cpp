// Well-formed blobs. HostileBlobTest.cpp has the others.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

std::string DescribeBytes(const std::string& bytes) { return Describe(Dismantle(bytes).get()); }

TEST(Dismantle, OfLength0IsAbsentAndReadsNothing) {
  EXPECT_EQ(nullptr, dismantle(nullptr, 0));
  BlobFault fault;
  fault.reason = "left over";
  EXPECT_EQ(nullptr, dismantle(nullptr, 0, fault));
  EXPECT_EQ(nullptr, fault.reason);
}

TEST(Dismantle, DecodesABlobMadeByHand) {
  const char bytes[] =
      "\x02\x80\x08"
      "Contents\x00\x00\x00\x1E"                  // 30 bytes follow
      "\x02\x00\x0AInfo.plist\x00\x00\x00\x02<>"  // 19 bytes
      "\x02\x80\x04_tmp\x00\x00\x00\x00"          // 11 bytes
      "\x02\x00\x00\x00\x00\x00\x01!";
  EXPECT_EQ(
      "'Contents' directory 0\n"
      "  'Info.plist' file 2 '<>'\n"
      "  '_tmp' directory 0\n"
      "'' file 1 '!'\n",
      DescribeBytes(std::string(bytes, sizeof(bytes) - 1)));
}

TEST(Dismantle, GivesTheEmptyNameForNoName) {
  const ChunkList list = Dismantle(Header(0x80, "", 0));
  ASSERT_NE(nullptr, list->name);
  EXPECT_STREQ("", list->name);
}

TEST(Dismantle, GivesAnEmptyFileAnArray) {
  const ChunkList list = Dismantle(StoredFile("empty", ""));
  EXPECT_EQ(0UL, list->size);
  EXPECT_NE(nullptr, list->data);
  EXPECT_FALSE(list->isDirectory);
}

TEST(Dismantle, GivesADirectoryNoData) {
  const ChunkList list = Dismantle(StoredDirectory("d", StoredFile("f", "x")));
  EXPECT_TRUE(list->isDirectory);
  EXPECT_EQ(0UL, list->size);
  EXPECT_EQ(nullptr, list->data);
  ASSERT_NE(nullptr, list->children);
  EXPECT_EQ(nullptr, list->children->next);
}

TEST(Dismantle, TakesWhatFollowsAnEmptyDirectoryAsSiblings) {
  EXPECT_EQ(
      "'d' directory 0\n"
      "'f' file 1 'x'\n",
      DescribeBytes(StoredDirectory("d", "") + StoredFile("f", "x")));
}

TEST(Dismantle, SharesNoBytesWithTheBlob) {
  std::string bytes = StoredFile("name", "contents");
  const ChunkList list(dismantle(reinterpret_cast<unsigned char*>(bytes.data()),
                                 static_cast<unsigned int>(bytes.size())));
  bytes.assign(bytes.size(), '?');
  EXPECT_EQ("'name' file 8 'contents'\n", Describe(list.get()));
}

TEST(Dismantle, AcceptsOneSlashAtTheEndOfAName) {
  EXPECT_EQ("'bundle/' directory 0\n", DescribeBytes(Header(0x80, "bundle/", 0)));
  EXPECT_EQ("'f/' file 0 ''\n", DescribeBytes(Header(0, "f/", 0)));
  EXPECT_EQ("'/' directory 0\n", DescribeBytes(Header(0x80, "/", 0)));
}

TEST(Dismantle, AcceptsUnusualNames) {
  for (const std::string& name :
       {std::string("..."), std::string(".hidden"), std::string("..a"), std::string("a.."),
        std::string(" "), std::string("\xFF\xFE\n\\:"), std::string(255, 'n')}) {
    EXPECT_EQ("'" + name + "' file 0 ''\n", DescribeBytes(StoredFile(name, "")));
  }
}

TEST(Dismantle, DecodesAnLZMADirectory) {
  const ChunkList tree = SampleTree();
  const std::string blob = SolidBlob(tree.get());
  const ChunkList list = Dismantle(blob);
  EXPECT_EQ(nullptr, list->next);
  EXPECT_TRUE(list->isDirectory);
  EXPECT_STREQ("", list->name);
  EXPECT_EQ(nullptr, list->data);
  EXPECT_EQ(Describe(tree.get()), Describe(list->children));
}

TEST(Dismantle, DecodesAnLZMAFile) {
  const std::string text(10000, 'x');
  const ChunkList list = Dismantle(LZMAEntry("x", text, false));
  EXPECT_STREQ("x", list->name);
  EXPECT_FALSE(list->isDirectory);
  EXPECT_EQ(text, Contents(*list));
}

TEST(Dismantle, FindsTheSiblingsOfAnLZMAEntry) {
  const std::string zeros(500, '\0');
  const std::string bytes = StoredFile("before", "1") + LZMAEntry("zeros", zeros, false) +
                            StoredFile("between", "2") +
                            LZMAEntry("d", StoredFile("zeros", zeros), true) +
                            StoredDirectory("after", StoredFile("f", "3"));
  const ChunkList expected = List(
      {NewFile("before", "1"), NewFile("zeros", zeros), NewFile("between", "2"),
       NewDirectory("d", {NewFile("zeros", zeros)}), NewDirectory("after", {NewFile("f", "3")})});
  EXPECT_EQ(Describe(expected.get()), DescribeBytes(bytes));
}

TEST(Dismantle, DecodesLZMAEntriesInsideAnLZMARoot) {
  const std::string text(3000, 'x');
  const std::string inner =
      LZMAEntry("inner", LZMAEntry("x", text, false) + StoredFile("y", text), true);
  const std::string outer = LZMAEntry("", inner + StoredFile("z", text), true);
  const ChunkList expected = List({NewDirectory(
      "", {NewDirectory("inner", {NewFile("x", text), NewFile("y", text)}), NewFile("z", text)})});
  EXPECT_EQ(Describe(expected.get()), DescribeBytes(outer));
}

TEST(Dismantle, DecodesAnLZMAEntryAsTheLastOfItsDirectory) {
  const std::string text(3000, 'x');
  const std::string entry = LZMAEntry("x", text, false);
  const ChunkList expected = List({NewDirectory("d", {NewFile("x", text)}), NewFile("next", "n")});
  EXPECT_EQ(Describe(expected.get()),
            DescribeBytes(StoredDirectory("d", entry) + StoredFile("next", "n")));
}

TEST(Dismantle, DecodesTheStreamsOfAnotherEncoder) {
  std::string text;
  for (int line = 0; line < 500; ++line) {
    text += "line " + std::to_string(line) + " of the text\n";
  }
  const ChunkList expected = List(
      {NewDirectory("", {NewDirectory("Contents", {NewFile("text", text), NewDirectory("MacOS")}),
                         NewFile("empty", "")})});
  EXPECT_EQ(Describe(expected.get()), DescribeBytes(TestData("blobs/no-marker.blob")));
  // This one claims a byte more than there is and relies on its end marker.
  EXPECT_EQ(Describe(expected.get()), DescribeBytes(TestData("blobs/marker.blob")));
  // And this one has the properties 12 (lc 0, lp 2, pb 0) and a dictionary of 4096 bytes.
  const std::string other = TestData("blobs/other-properties.blob");
  EXPECT_EQ(std::string("\x12\x00\x10\x00\x00", 5), other.substr(11, 5));
  EXPECT_GT(decodeFormattedFileSize(reinterpret_cast<const unsigned char*>(&other[7])), 4096U);
  EXPECT_EQ(Describe(expected.get()), DescribeBytes(other));
}

TEST(Dismantle, AcceptsTheGreatestPropertiesByte) {
  const std::string entry = TestData("hostile/base-greatest-table.blob");
  EXPECT_EQ('\xE0', entry[11]);
  EXPECT_EQ("'' file 1 'x'\n", DescribeBytes(entry));
}

TEST(Dismantle, FindsTheSiblingOfAnLZMAEntryThatIsEmpty) {
  const std::string sibling = StoredFile("next", "n");
  for (const int flags : {0x01, 0x81}) {
    const std::string entry =
        Header(flags, "empty", 14) + BigEndian32(0) + std::string("\x5D\0\0\0\4\0\0\0\0\0", 10);
    EXPECT_EQ(std::string(flags == 0x01 ? "'empty' file 0 ''\n" : "'empty' directory 0\n") +
                  "'next' file 1 'n'\n",
              DescribeBytes(entry + sibling));
  }
}

TEST(Dismantle, FindsTheSiblingWhereTheStreamEndsWhateverTheSizeSays) {
  const std::string text(500, 'x');
  const ChunkList expected = List({NewFile("lzma", text), NewFile("next", "n")});
  const ChunkList expectedDirectory =
      List({NewDirectory("lzma", {NewFile("x", text)}), NewFile("next", "n")});
  for (const bool isDirectory : {false, true}) {
    std::string entry = LZMAEntry("lzma", isDirectory ? StoredFile("x", text) : text, isDirectory);
    // The size covers 8 bytes of the sibling's header.
    entry.replace(7, 4, BigEndian32(entry.size() - 11 + 8));
    EXPECT_EQ(Describe((isDirectory ? expectedDirectory : expected).get()),
              DescribeBytes(entry + StoredFile("next", "n")));
  }
}

TEST(Dismantle, TakesTheProducedLengthOfAFileThatAnEndMarkerEnds) {
  // The file of this entry is the encoded tree of the blob above.
  std::string blob = TestData("blobs/marker.blob");
  const std::string tree = Flatten(Dismantle(blob)->children);
  blob[1] = '\x01';
  const ChunkList list = Dismantle(blob + StoredFile("next", "n"));
  EXPECT_EQ(tree, Contents(*list));
  EXPECT_STREQ("next", list->next->name);
}

TEST(Dismantle, StopsAtTheClaimedLengthOfAFile) {
  // A match that goes on beyond the claim is cut, and what is left of the stream would be the
  // next entry: the format knows no such stream, but nothing may be read or written beyond.
  std::string entry = TestData("hostile/base-run.blob");
  EXPECT_EQ(std::string(300, 'x'), Contents(*Dismantle(entry)));
  entry.replace(7, 4, BigEndian32(100));
  BlobFault fault;
  EXPECT_EQ(nullptr, Dismantle(entry, fault));
  EXPECT_STREQ("an entry's header is cut short", fault.reason);
  EXPECT_EQ(23UL, fault.offset);
  EXPECT_FALSE(fault.inDecodedContent);
}

TEST(Dismantle, AcceptsDirectoriesNestedAsDeepAsAllowed) {
  std::string bytes;
  for (unsigned int depth = 0; depth < kMaximumNesting; ++depth) {
    bytes = StoredDirectory("d", bytes);
  }
  ChunkList list = Dismantle(bytes);
  unsigned int depth = 0;
  for (fileChunk* node = list.get(); node; node = node->children) {
    ++depth;
  }
  EXPECT_EQ(kMaximumNesting, depth);
}

TEST(Dismantle, ExpandsAsFarAsLZMACan) {
  // 16 MiB of zeros: near the greatest expansion, and accepted.
  const std::string zeros(1UL << 24, '\0');
  const std::string entry = LZMAEntry("zeros", zeros, false);
  EXPECT_GT(zeros.size() / entry.size(), 6000UL);
  EXPECT_EQ(zeros, Contents(*Dismantle(entry)));
}

ChunkList Source(const std::string& blob) { return List({NewFile("blob", blob)}); }

// Content of megabytes is given back while its entries are taken.
TEST(Dismantle, DecodesContentOfMegabytes) {
  const std::string page = RandomBytes(4096);
  std::string pages;
  while (pages.size() < 3 << 20) {
    pages += page + std::to_string(pages.size());
  }
  const std::string inner = StoredFile("a", pages) + StoredFile("b", "b" + pages) +
                            StoredDirectory("c", StoredFile("d", "cd" + pages));
  const std::string content = StoredFile("first", pages) + StoredDirectory("plain", inner) +
                              LZMAEntry("packed", inner, true) + LZMAEntry("file", pages, false) +
                              StoredFile("", "") + StoredFile("last", pages + "last");
  EXPECT_EQ(DescribeBytes(StoredDirectory("", content)),
            DescribeBytes(LZMAEntry(nullptr, content, true)));
}

TEST(DismantleInstallerBlob, OfNoSourceIsAbsent) {
  BlobFault fault;
  fault.reason = "left over";
  EXPECT_EQ(nullptr, DismantleInstallerBlob(nullptr));
  EXPECT_EQ(nullptr, DismantleInstallerBlob(nullptr, fault));
  EXPECT_EQ(nullptr, fault.reason);
}

TEST(DismantleInstallerBlob, OfOneSourceIsItsTree) {
  const ChunkList tree = SampleTree();
  const ChunkList source = Source(SolidBlob(tree.get()));
  const std::string before = Describe(source.get());
  const ChunkList list(DismantleInstallerBlob(source.get()));
  EXPECT_EQ(Describe(tree.get()), Describe(list->children));
  EXPECT_EQ(before, Describe(source.get()));
}

TEST(DismantleInstallerBlob, OfOneSourceKeepsAllItsEntries) {
  const ChunkList source = Source(StoredFile("a", "1") + StoredFile("b", "2"));
  const ChunkList list(DismantleInstallerBlob(source.get()));
  EXPECT_EQ("'a' file 1 '1'\n'b' file 1 '2'\n", Describe(list.get()));
}

TEST(DismantleInstallerBlob, OfAnEmptySourceIsAbsent) {
  const ChunkList source = Source("");
  BlobFault fault;
  EXPECT_EQ(nullptr, DismantleInstallerBlob(source.get(), fault));
  EXPECT_EQ(nullptr, fault.reason);
  const fileChunk nothing;
  EXPECT_EQ(nullptr, DismantleInstallerBlob(const_cast<fileChunk*>(&nothing), fault));
  EXPECT_EQ(nullptr, fault.reason);
}

TEST(DismantleInstallerBlob, ChainsTheHeadsOfSeveralSources) {
  const ChunkList sources =
      List({NewFile("", ""), NewFile("", StoredFile("a", "1") + StoredFile("dropped", "2")),
            NewFile("", ""), NewFile("", StoredFile("b", "3") + StoredDirectory("gone", "")),
            NewFile("", StoredFile("c", "4") + StoredFile("kept", "5")), NewFile("", "")});
  const ChunkList list(DismantleInstallerBlob(sources.get()));
  EXPECT_EQ("'a' file 1 '1'\n'b' file 1 '3'\n'c' file 1 '4'\n'kept' file 1 '5'\n",
            Describe(list.get()));
}

TEST(DismantleInstallerBlob, OfAMalformedSourceAmongOthersIsAbsent) {
  const ChunkList sources =
      List({NewFile("", StoredFile("a", "1")), NewFile("", StoredFile("b", "2") + "\x03......"),
            NewFile("", StoredFile("c", "3"))});
  BlobFault fault;
  EXPECT_EQ(nullptr, DismantleInstallerBlob(sources.get(), fault));
  EXPECT_STREQ("an entry has an unknown header version", fault.reason);
  EXPECT_EQ(9UL, fault.offset);
  EXPECT_FALSE(fault.inDecodedContent);
  EXPECT_EQ(nullptr, DismantleInstallerBlob(sources.get()));
}

TEST(DismantleInstallerBlob, TakesTheLow32BitsOfTheSize) {
  const ChunkList source = Source(StoredFile("a", "1"));
  source->size += 1UL << 32;
  const ChunkList list(DismantleInstallerBlob(source.get()));
  EXPECT_EQ("'a' file 1 '1'\n", Describe(list.get()));
}

}  // namespace
