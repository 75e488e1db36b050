// Making a node of the payload tree.
#pragma once

#include <new>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

/// Returns a nameless file node with `size` bytes that are not set yet, owned by the caller; absent
/// when memory runs out.
inline fileChunk* NewChunk(unsigned long size) {
  auto* const chunk = new (std::nothrow) fileChunk;
  if (!chunk) {
    return nullptr;
  }
  chunk->size = size;
  chunk->data = new (std::nothrow) unsigned char[size];
  if (chunk->data) {
    return chunk;
  }
  delete chunk;
  return nullptr;
}
