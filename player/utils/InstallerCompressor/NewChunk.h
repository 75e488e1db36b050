// How the writer's functions make the nodes that they return.
#pragma once

#include <new>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

/// A nameless file node of `size` bytes that are not set yet; absent when memory runs out.
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
