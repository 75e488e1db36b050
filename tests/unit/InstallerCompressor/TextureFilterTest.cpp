#include <gtest/gtest.h>

#include "tests/unit/InstallerCompressor/BlobTestSupport.h"

namespace {

std::string ImageHeader(int pixelDepth) {
  std::string header = "0123456789abcdefgh";
  header[16] = static_cast<char>(pixelDepth);
  return header;
}

// The filtered image, or "absent".
std::string Premultiplied(const std::string& image) {
  const ChunkList chunk = List({NewFile("texture.tga", image)});
  const ChunkList result(PremultiplyTexture(chunk.get()));
  EXPECT_EQ(image, Contents(*chunk));
  if (!result) {
    return "absent";
  }
  EXPECT_EQ(nullptr, result->name);
  EXPECT_FALSE(result->isDirectory);
  EXPECT_EQ(nullptr, result->children);
  EXPECT_EQ(nullptr, result->next);
  return Contents(*result);
}

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (const int value : values) {
    bytes += static_cast<char>(value);
  }
  return bytes;
}

TEST(PremultiplyTexture, CopiesAnImageThatIsOnlyItsHeader) {
  EXPECT_EQ(ImageHeader(32), Premultiplied(ImageHeader(32)));
}

TEST(PremultiplyTexture, TellsTheDepthByItsBytes) {
  const std::string input = Bytes({0x80, 10, 20, 30, 128}), output = Bytes({0x80, 5, 10, 15, 128});
  for (const int depth : {32, 33, 39}) {
    EXPECT_EQ(ImageHeader(depth) + output, Premultiplied(ImageHeader(depth) + input)) << depth;
  }
}

TEST(PremultiplyTexture, RefusesPixelsOfOtherThan4Bytes) {
  for (const int depth : {0, 8, 15, 16, 24, 31, 40, 64, 255}) {
    EXPECT_EQ("absent", Premultiplied(ImageHeader(depth))) << depth;
    EXPECT_EQ("absent", Premultiplied(ImageHeader(depth) + Bytes({0, 1, 2, 3, 4}))) << depth;
  }
}

TEST(PremultiplyTexture, RefusesAbsentData) {
  fileChunk chunk;
  chunk.size = 18;
  EXPECT_EQ(nullptr, PremultiplyTexture(&chunk));
}

TEST(PremultiplyTexture, RefusesLessThanAHeader) {
  EXPECT_EQ(nullptr, PremultiplyTexture(nullptr));
  const fileChunk nothing;
  EXPECT_EQ(nullptr, PremultiplyTexture(&nothing));
  for (size_t length = 0; length < 18; ++length) {
    EXPECT_EQ("absent", Premultiplied(ImageHeader(32).substr(0, length))) << length;
  }
}

TEST(PremultiplyTexture, FiltersARawPacket) {
  EXPECT_EQ(ImageHeader(32) + Bytes({0x01, 5, 10, 15, 128, 0, 0, 0, 0}),
            Premultiplied(ImageHeader(32) + Bytes({0x01, 10, 20, 30, 128, 10, 20, 30, 0})));
}

TEST(PremultiplyTexture, FiltersTheOnePixelOfARunPacket) {
  EXPECT_EQ(ImageHeader(32) + Bytes({0xFF, 5, 10, 15, 128, 0x80, 0, 0, 0, 0}),
            Premultiplied(ImageHeader(32) + Bytes({0xFF, 10, 20, 30, 128, 0x80, 10, 20, 30, 0})));
}

TEST(PremultiplyTexture, FiltersTheLongestRawPacket) {
  std::string input = ImageHeader(32) + '\x7F', output = input;
  for (int pixel = 0; pixel < 128; ++pixel) {
    input += Bytes({pixel, pixel + 1, pixel + 2, 64});
    output += Bytes({pixel / 4, (pixel + 1) / 4, (pixel + 2) / 4, 64});
  }
  EXPECT_EQ(output, Premultiplied(input));
}

TEST(PremultiplyTexture, DividesBy256AndCutsOff) {
  EXPECT_EQ(ImageHeader(32) + Bytes({0x80, 254, 253, 0, 255}),
            Premultiplied(ImageHeader(32) + Bytes({0x80, 255, 254, 1, 255})));
}

TEST(PremultiplyTexture, RefusesPacketsThatRunPastTheEnd) {
  const std::string packets = Bytes({0x01, 1, 2, 3, 4, 5, 6, 7, 8, 0x85, 1, 2, 3, 4});
  for (size_t length = 1; length < packets.size(); ++length) {
    const std::string result = Premultiplied(ImageHeader(32) + packets.substr(0, length));
    EXPECT_EQ(length == 9, result != "absent") << length;
  }
  EXPECT_EQ("absent", Premultiplied(ImageHeader(32) + packets + '\0'));
  EXPECT_NE("absent", Premultiplied(ImageHeader(32) + packets));
}

}  // namespace
