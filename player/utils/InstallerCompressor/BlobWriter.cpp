// From a tree to the bytes of a blob.
#include <LzmaEnc.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "player/utils/InstallerCompressor/BlobFormat.h"
#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "player/utils/InstallerCompressor/NewChunk.h"

namespace {

// Encoder settings; what is not named here keeps the SDK's default.
constexpr int kLevel = 5;
constexpr UInt32 kDictionarySize = 1U << 26;
constexpr int kLiteralContextBits = 3;
constexpr int kLiteralPositionBits = 0;
constexpr int kPositionBits = 2;
constexpr int kFastBytes = 32;
constexpr unsigned int kThreads = 1;

// The LZMA stream must be shorter than the content by more than this.
constexpr unsigned long kLeastSaving = 24;

constexpr unsigned long kKilobyteShift = 10;
constexpr unsigned long kMegabyteShift = 20;
constexpr unsigned long kGigabyteShift = 30;

// Returns the length that `totalSizeof` returns modulo 2^32.
unsigned long EncodedLength(fileChunk* list, unsigned long subHeaderLength) {
  unsigned long length = 0;
  for (fileChunk* node = list; node; node = node->next) {
    length += SizeofFormattedGenericHeader(node->name) + subHeaderLength;
    length += node->isDirectory ? EncodedLength(node->children, subHeaderLength)
                                : static_cast<unsigned int>(node->size);
  }
  return length;
}

// Writes a sibling list at `position`. Returns the position after it.
unsigned char* FlattenList(unsigned char* position, fileChunk* list) {
  for (fileChunk* node = list; node; node = node->next) {
    unsigned char* const header = position;
    const unsigned long headerLength = WriteFormattedGenericHeader(
        header, kCompressionStored, node->isDirectory, node->name, node->size);
    position += headerLength;
    if (node->isDirectory) {
      // The size is known once the children are written: asking for it first would walk the
      // subtree once for every directory above it.
      position = FlattenList(position, node->children);
      const unsigned long contentLength =
          static_cast<unsigned long>(position - header) - headerLength;
      WriteFormattedFileSize(header + headerLength - 4, static_cast<unsigned int>(contentLength));
      continue;
    }
    const unsigned long size = static_cast<unsigned int>(node->size);
    if (size != 0) {
      memcpy(position, node->data, size);
    }
    position += size;
  }
  return position;
}

CLzmaEncProps EncoderSettings(unsigned int threads) {
  CLzmaEncProps settings;
  LzmaEncProps_Init(&settings);
  settings.level = kLevel;
  settings.dictSize = kDictionarySize;
  settings.lc = kLiteralContextBits;
  settings.lp = kLiteralPositionBits;
  settings.pb = kPositionBits;
  settings.fb = kFastBytes;
  // The SDK can run its match finder in a thread of its own; more threads have no effect.
  settings.numThreads = threads > 1 ? 2 : 1;
  return settings;
}

// The caller's handler, with the SDK's interface. The interface is the first member, because the
// SDK passes its address back.
struct EncodingProgress {
  ICompressProgress sdkInterface;
  EncodingProgressHandler* handler;
  void* context;
  unsigned long total;

  void Report(unsigned long done) const {
    if (handler) {
      handler(done, total, context);
    }
  }
};

// Releases of the LZMA SDK differ in the type of the first parameter, so it is deduced.
template <typename Interface>
SRes ReportEncoded(Interface sdkInterface, UInt64 encoded, UInt64) {
  static_cast<const EncodingProgress*>(static_cast<const void*>(sdkInterface))
      ->Report(static_cast<unsigned long>(encoded));
  return SZ_OK;
}

// Compresses the chunk into `stream`, which has room for `streamLength` bytes; `properties` takes
// kLZMAPropertyCount bytes. Sets `streamLength` to the stream's length. Returns the SDK's result.
SRes Compress(const fileChunk& chunk, unsigned int threads, EncodingProgress& progress,
              unsigned char* stream, SizeT& streamLength, unsigned char* properties) {
  const CLzmaEncProps settings = EncoderSettings(threads);
  SizeT propertyCount = kLZMAPropertyCount;
  return LzmaEncode(stream, &streamLength, chunk.data, chunk.size, &settings, properties,
                    &propertyCount, /*writeEndMark=*/0,
                    progress.handler ? &progress.sdkInterface : nullptr, &GlobalAllocObject,
                    &GlobalAllocObject);
}

// Writes the LZMA entry of `chunk` at `entry`, which has room for its header, the sub-header
// and `chunk->size` bytes. Returns the entry's length, or 0 when compressing does not pay.
unsigned long WriteCompressedEntry(unsigned char* entry, unsigned long headerLength,
                                   fileChunk* chunk, unsigned int threads,
                                   EncodingProgress& progress) {
  unsigned char properties[kLZMAPropertyCount];
  unsigned char* const subHeader = entry + headerLength;
  unsigned char* const stream = subHeader + kLZMASubHeaderLength;
  SizeT streamLength = chunk->size;
  SRes result = Compress(*chunk, threads, progress, stream, streamLength, properties);
  if (threads > 1 && result != SZ_OK && result != SZ_ERROR_OUTPUT_EOF) {
    // The SDK returns the system's own number when a thread cannot be started.
    streamLength = chunk->size;
    result = Compress(*chunk, kThreads, progress, stream, streamLength, properties);
  }
  if (result != SZ_OK || streamLength + kLeastSaving >= chunk->size) {
    return 0;
  }

  WriteFormattedLZMASubHeader(subHeader, static_cast<unsigned int>(chunk->size),
                              reinterpret_cast<char*>(properties), kLZMAPropertyCount);
  const unsigned long payloadLength = kLZMASubHeaderLength + streamLength;
  WriteFormattedGenericHeader(entry, kCompressionLZMA, chunk->isDirectory, chunk->name,
                              payloadLength);
  return headerLength + payloadLength;
}

unsigned long WriteStoredEntry(unsigned char* entry, unsigned long headerLength, fileChunk* chunk) {
  WriteFormattedGenericHeader(entry, kCompressionStored, chunk->isDirectory, chunk->name,
                              chunk->size);
  memcpy(entry + headerLength, chunk->data, chunk->size);
  return headerLength + chunk->size;
}

void PrintSize(unsigned long size) {
  if (size < 1UL << kKilobyteShift) {
    printf(" (%lu bytes)\n", size);
  } else if (size < 1UL << kMegabyteShift) {
    printf(" (%lu KB)\n", size >> kKilobyteShift);
  } else if (size < 1UL << kGigabyteShift) {
    printf(" (%lu MB)\n", size >> kMegabyteShift);
  } else {
    printf(" (%lu GB)\n", size >> kGigabyteShift);
  }
}

}  // namespace

unsigned int totalSizeof(fileChunk* list, int compressionType) {
  const unsigned long subHeaderLength =
      compressionType == kCompressionLZMA ? SizeofFormattedLZMASubHeader() : 0;
  return static_cast<unsigned int>(EncodedLength(list, subHeaderLength));
}

unsigned int flatten(unsigned char* buffer, fileChunk* list) {
  const unsigned char* const end = FlattenList(buffer, list);
  return static_cast<unsigned int>(end - buffer);
}

fileChunk* PrepareSourceForSolidCompression(fileChunk* list) {
  const unsigned long length = EncodedLength(list, 0);
  if (length > kMaximumBlobLength) {
    return nullptr;
  }
  fileChunk* const root = NewChunk(length);
  if (!root) {
    return nullptr;
  }

  flatten(root->data, list);
  root->isDirectory = true;
  return root;
}

fileChunk* PrepareFileChunk(fileChunk* chunk, int compressionType) {
  return PrepareFileChunk(chunk, compressionType, kThreads, nullptr, nullptr);
}

fileChunk* PrepareFileChunk(fileChunk* chunk, int compressionType, unsigned int threads,
                            EncodingProgressHandler* handler, void* context) {
  if (!chunk || chunk->size == 0 || !chunk->data) {
    return nullptr;
  }
  if (compressionType != kCompressionStored && compressionType != kCompressionLZMA) {
    return nullptr;
  }

  const bool compress = compressionType == kCompressionLZMA;
  const unsigned long headerLength = SizeofFormattedGenericHeader(chunk->name);
  const unsigned long overhead = headerLength + (compress ? kLZMASubHeaderLength : 0);
  if (chunk->size > ULONG_MAX - overhead) {
    return nullptr;
  }
  fileChunk* const formatted = NewChunk(overhead + chunk->size);
  if (!formatted) {
    return nullptr;
  }

  unsigned char* const entry = formatted->data;
  EncodingProgress progress = {{ReportEncoded}, handler, context, chunk->size};
  formatted->size =
      compress ? WriteCompressedEntry(entry, headerLength, chunk, threads, progress) : 0;
  if (formatted->size == 0) {
    formatted->size = WriteStoredEntry(entry, headerLength, chunk);
  }
  progress.Report(chunk->size);
  return formatted;
}

void Verify(fileChunk* list, int depth) {
  for (fileChunk* node = list; node; node = node->next) {
    for (int level = 0; level < depth; ++level) {
      printf("  ");
    }
    printf("- %s%s", node->name ? node->name : "", node->isDirectory ? "/\n" : "");
    if (node->isDirectory) {
      Verify(node->children, depth + 1);
    } else {
      PrintSize(node->size);
    }
  }
}
