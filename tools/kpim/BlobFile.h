// Reading a blob from disk or from standard input.
#pragma once

#include <string>

#include "tools/kpim/Tree.h"

namespace kpim {

/// Returns the name of the blob at `path` for messages.
std::string BlobName(const std::string& path);

/// Reads and decodes the blob file at `path`, or standard input for kStandardStream, into `tree`.
/// Returns false, with one line on standard error and an empty `tree`, when the blob cannot be
/// read, is not a payload blob, or is malformed.
bool ReadBlob(const std::string& path, ChunkList& tree);

/// Checks whether the finalizer would install all contents of the decoded blob `tree`, which was
/// read from `path`. Returns false, with a line on standard error, when the blob is not exactly one
/// nameless directory, and when a file and a directory have the same path. Warns, and returns true,
/// when several files have the same path: the last of them is installed.
bool CheckLayout(const std::string& path, const fileChunk* tree);

/// Returns the description of a fault on one line: "malformed: REASON at byte OFFSET", with "in the
/// decoded content" before "at byte" where that is the place. `fault.reason` must be set.
std::string DescribeFault(const BlobFault& fault);

}  // namespace kpim
