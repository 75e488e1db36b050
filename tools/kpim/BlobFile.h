// Reading a blob from disk.
#pragma once

#include <string>

#include "tools/kpim/Tree.h"

namespace kpim {

/// Reads and decodes the blob file at `path` into `tree`, which stays empty for a blob
/// without entries. False, with one line on standard error, when the file cannot be read or
/// is malformed. Warns on standard error of paths that more than one entry has.
bool ReadBlob(const std::string& path, ChunkList& tree);

/// What is wrong with a blob, on one line: "malformed: REASON at byte OFFSET".
std::string DescribeFault(const BlobFault& fault);

}  // namespace kpim
