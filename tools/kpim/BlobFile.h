// Reading a blob from disk or from standard input.
#pragma once

#include <string>

#include "tools/kpim/Tree.h"

namespace kpim {

/// The name of the blob at `path` in messages.
std::string BlobName(const std::string& path);

/// Reads and decodes the blob file at `path`, or standard input for kStandardStream, into `tree`,
/// which stays empty when that fails. Returns false, with one line on standard error, when the
/// blob cannot be read, is not a payload blob, or is malformed.
bool ReadBlob(const std::string& path, ChunkList& tree);

/// Judges a decoded blob by what the finalizer would install of it. Returns false, with a line on
/// standard error for each reason, when that is not all of its contents: it is not exactly one
/// nameless directory, or a file and a directory have one path. Warns, and returns true, when
/// several files have one path: the last of them is installed.
bool CheckLayout(const std::string& path, const fileChunk* tree);

/// What is wrong with a blob, on one line: "malformed: REASON at byte OFFSET".
std::string DescribeFault(const BlobFault& fault);

}  // namespace kpim
