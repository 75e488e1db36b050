// A second reader of payload blobs, written after docs/blob-format.md, to compare the product's
// with.
#pragma once

#include <stddef.h>

#include <string_view>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

/// The properties of a blob, and the cost of decoding it.
struct BlobReading {
  bool isWellFormed = false;
  /// The blob has no LZMA entry before its first fault.
  bool isStoredOnly = true;
  /// The blob was refused because of the cost of its LZMA entries.
  bool isTooCostly = false;
  /// The number of entries at any depth, including a refused one.
  size_t entries = 0;
  /// Bytes that LZMA entries claimed, as far as a reader has to believe them.
  size_t claims = 0;
  /// Bytes of the largest probability table that the decoder was to set up.
  size_t largestTable = 0;
};

/// Whether the LZMA entries of `blob` cost more than its length pays for and `allowance` bytes.
bool CostsMoreThan(std::string_view blob, size_t allowance);

/// Reads `blob` up to its first fault. With `decoded`, which may then be null for an empty blob,
/// checks that this list is what the blob holds.
BlobReading ReadBlob(std::string_view blob);
BlobReading ReadBlob(std::string_view blob, const fileChunk* decoded);
