// Textures of any bytes, against a second reading of the packets.
#include <string.h>

#include <memory>
#include <string>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

constexpr size_t kHeaderLength = 18;

/// Stores the expected result of the filter; returns false when it has none.
bool Expect(const std::string& image, std::string& result) {
  if (image.size() < kHeaderLength || static_cast<uint8_t>(image[16]) / 8 != 4) {
    return false;
  }
  result = image;
  size_t at = kHeaderLength;
  while (at < image.size()) {
    const int packet = static_cast<uint8_t>(image[at++]);
    for (int pixels = packet >= 128 ? 1 : packet + 1; pixels > 0; --pixels, at += 4) {
      if (at + 4 > image.size()) {
        return false;
      }
      const int alpha = static_cast<uint8_t>(image[at + 3]);
      for (size_t channel = at; channel < at + 3; ++channel) {
        result[channel] = static_cast<char>(static_cast<uint8_t>(image[channel]) * alpha / 256);
      }
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fileChunk chunk;
  chunk.size = size;
  chunk.data = new unsigned char[size];
  if (size != 0) {
    memcpy(chunk.data, data, size);
  }
  fileChunk* result = PremultiplyTexture(&chunk);
  std::string expected;
  const bool isImage = Expect(std::string(data, data + size), expected);
  FUZZ_CHECK((result != nullptr) == isImage);
  if (result != nullptr) {
    FUZZ_CHECK(result->size == size && memcmp(result->data, expected.data(), size) == 0);
    FUZZ_CHECK(result->name == nullptr && result->next == nullptr && !result->isDirectory);
  }
  FUZZ_CHECK(size == 0 || memcmp(chunk.data, data, size) == 0);
  DeleteFileChunks(result);
  return 0;
}
