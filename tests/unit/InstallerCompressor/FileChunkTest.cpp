#include <gtest/gtest.h>

#include <cstddef>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

TEST(FileChunk, StartsWithAllFieldsZero) {
  const fileChunk node;
  EXPECT_EQ(nullptr, node.name);
  EXPECT_EQ(0UL, node.size);
  EXPECT_FALSE(node.isDirectory);
  EXPECT_EQ(nullptr, node.data);
  EXPECT_EQ(nullptr, node.children);
  EXPECT_EQ(nullptr, node.next);
}

TEST(FileChunk, HasItsFieldsInThisOrder) {
  EXPECT_EQ(offsetof(fileChunk, name), 0U);
  EXPECT_EQ(offsetof(fileChunk, size), 8U);
  EXPECT_EQ(offsetof(fileChunk, isDirectory), 16U);
  EXPECT_EQ(offsetof(fileChunk, data), 24U);
  EXPECT_EQ(offsetof(fileChunk, children), 32U);
  EXPECT_EQ(offsetof(fileChunk, next), 40U);
  EXPECT_EQ(sizeof(fileChunk), 48U);
}

TEST(FileChunk, DestroysItsChildrenButNotItsSiblings) {
  // The leak checker and the address sanitizer see anything freed too little or too often.
  fileChunk sibling;
  {
    fileChunk node;
    node.name = NewName("name");
    node.data = new unsigned char[3];
    node.children =
        NewDirectory("a", {NewFile("b", "bytes"), NewDirectory("c", {NewFile("d", "")})});
    node.next = &sibling;
  }
  EXPECT_EQ(nullptr, sibling.next);
}

TEST(DeleteFileChunks, FreesAListAndMakesTheHeadAbsent) {
  fileChunk* head = SampleTree().release();
  DeleteFileChunks(head);
  EXPECT_EQ(nullptr, head);
  DeleteFileChunks(head);
  EXPECT_EQ(nullptr, head);
}

TEST(DeleteFileChunks, NeedsNoStackForAMillionSiblings) {
  fileChunk* head = nullptr;
  for (int count = 0; count < 1000000; ++count) {
    auto* const node = new fileChunk;
    node->next = head;
    head = node;
  }
  DeleteFileChunks(head);
  EXPECT_EQ(nullptr, head);
}

}  // namespace
