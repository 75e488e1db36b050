// A second reading of payload blobs, after docs/blob-format.md, to hold the product's against.
#pragma once

#include <stddef.h>

#include <string_view>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

/// What a blob is, and what decoding it is for.
struct BlobReading {
  bool isWellFormed = false;
  /// No LZMA entry was met.
  bool isStoredOnly = true;
  /// It was refused for what its LZMA entries cost.
  bool isTooCostly = false;
  /// Entries at any depth, the refused one too.
  size_t entries = 0;
  /// Bytes that LZMA entries claimed, as far as a reader has to believe them.
  size_t claims = 0;
  /// Bytes of the largest probability table that the decoder was to set up.
  size_t largestTable = 0;
};

/// Whether the LZMA entries of `blob` cost so many bytes more than its length pays for.
bool CostsMoreThan(std::string_view blob, size_t allowance);

/// Reads `blob` up to its first fault. With `decoded`, which may then be null for an empty blob,
/// checks that this list is what the blob holds.
BlobReading ReadBlob(std::string_view blob);
BlobReading ReadBlob(std::string_view blob, const fileChunk* decoded);
