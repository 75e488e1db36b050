// Alpha premultiplication of run-length encoded Truevision TGA images.
#include <cstring>

#include "player/utils/InstallerCompressor/NewChunk.h"

namespace {

constexpr unsigned long kImageHeaderLength = 18;
constexpr unsigned int kPixelDepthOffset = 16;
constexpr unsigned long kBytesPerPixel = 4;
constexpr unsigned int kAlphaOffset = 3;

// A packet's first byte: whether the packet has one pixel that is repeated, and the number of
// pixels minus one.
constexpr unsigned int kRunFlag = 0x80;
constexpr unsigned int kCountMask = 0x7F;

void PremultiplyPixel(const unsigned char* pixel, unsigned char* output) {
  const unsigned int alpha = pixel[kAlphaOffset];
  for (unsigned int channel = 0; channel < kAlphaOffset; ++channel) {
    // Divided by 256, not 255, and truncated: 255 with alpha 255 becomes 254, on purpose.
    output[channel] = static_cast<unsigned char>(pixel[channel] * alpha >> 8);
  }
  output[kAlphaOffset] = pixel[kAlphaOffset];
}

// Filters the packets from `input` to `end`. Returns false when the last one runs past `end`.
bool PremultiplyPackets(const unsigned char* input, const unsigned char* end,
                        unsigned char* output) {
  while (input != end) {
    const unsigned char packet = *input++;
    *output++ = packet;
    const unsigned long pixels = packet & kRunFlag ? 1 : (packet & kCountMask) + 1;
    if (static_cast<unsigned long>(end - input) < pixels * kBytesPerPixel) {
      return false;
    }
    for (unsigned long pixel = 0; pixel < pixels; ++pixel) {
      PremultiplyPixel(input, output);
      input += kBytesPerPixel;
      output += kBytesPerPixel;
    }
  }
  return true;
}

}  // namespace

fileChunk* PremultiplyTexture(const fileChunk* chunk) {
  if (!chunk || !chunk->data || chunk->size < kImageHeaderLength) {
    return nullptr;
  }
  if (chunk->data[kPixelDepthOffset] >> 3 != kBytesPerPixel) {
    return nullptr;
  }
  fileChunk* result = NewChunk(chunk->size);
  if (!result) {
    return nullptr;
  }

  memcpy(result->data, chunk->data, kImageHeaderLength);
  if (!PremultiplyPackets(chunk->data + kImageHeaderLength, chunk->data + chunk->size,
                          result->data + kImageHeaderLength)) {
    DeleteFileChunks(result);
  }
  return result;
}
