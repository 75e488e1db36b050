#include "tools/kpim/BlobFile.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "player/utils/InstallerCompressor/BlobFormat.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/InputFile.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr char kNotABlob[] = "not a payload blob";

// Size of the first part in which standard input is read, in bytes; each further part is twice as
// large.
constexpr size_t kFirstStep = 1 << 20;

struct MemoryReleaser {
  void operator()(unsigned char* bytes) const { free(bytes); }
};

// The bytes of a blob.
struct BlobBytes {
  std::unique_ptr<unsigned char, MemoryReleaser> bytes;
  size_t length = 0;

  // Makes room for `capacity` bytes and keeps the present ones. Returns false when memory runs out.
  bool Reserve(size_t capacity) {
    auto* const larger = static_cast<unsigned char*>(realloc(bytes.get(), capacity));
    if (!larger) {
      return false;
    }
    (void)bytes.release();
    bytes.reset(larger);
    return true;
  }
};

// Returns why the file cannot be a blob; null when it can.
const char* WhyNotABlob(const struct stat& status) {
  if (S_ISDIR(status.st_mode)) {
    return "Is a directory";
  }
  if (S_ISFIFO(status.st_mode)) {
    return "not a regular file; a pipe is read as -";
  }
  if (!S_ISREG(status.st_mode)) {
    return "not a regular file";
  }
  return static_cast<unsigned long>(status.st_size) > kMaximumBlobLength ? kBlobTooLarge : nullptr;
}

// Reads the whole file at `path`. On failure reports it and returns false.
bool ReadFile(const std::string& path, BlobBytes& blob) {
  InputFile file;
  if (const int error = file.Open(path)) {
    ReportSystemError(path, error);
    return false;
  }
  if (const char* const why = WhyNotABlob(file.status())) {
    ReportError(path, why);
    return false;
  }
  const auto length = static_cast<size_t>(file.status().st_size);
  if (!blob.Reserve(std::max<size_t>(length, 1))) {
    ReportSystemError(path, ENOMEM);
    return false;
  }
  if (const int error = file.Read(blob.bytes.get(), length, blob.length)) {
    ReportSystemError(path, error);
    return false;
  }
  if (blob.length != length) {
    ReportError(path, "became shorter while it was read");
    return false;
  }
  return true;
}

// Reads standard input to its end. On failure reports it and returns false.
bool ReadStandardInput(const std::string& name, BlobBytes& blob) {
  if (isatty(STDIN_FILENO) != 0) {
    ReportError(name, "a terminal: a blob comes from a file or a pipe");
    return false;
  }
  InputFile input;
  if (const int error = input.OpenStandardInput()) {
    ReportSystemError(name, error);
    return false;
  }
  size_t step = kFirstStep;
  for (size_t capacity = 0; blob.length == capacity; step *= 2) {
    if (blob.length > kMaximumBlobLength) {
      // Untested: it takes 4 GiB of memory.
      ReportError(name, kBlobTooLarge);
      return false;
    }
    // One byte more than the limit is read, to find out that there is more.
    capacity = std::min(capacity + step, kMaximumBlobLength + 1);
    if (!blob.Reserve(capacity)) {
      ReportSystemError(name, ENOMEM);
      return false;
    }
    size_t filled = 0;
    const int error = input.Read(blob.bytes.get() + blob.length, capacity - blob.length, filled);
    if (error != 0) {
      ReportSystemError(name, error);
      return false;
    }
    blob.length += filled;
  }
  return true;
}

// Returns whether the bytes begin like a header: with the version and, if there is a second byte,
// the flags of a known compression type.
bool BeginsAsBlob(const BlobBytes& blob) {
  if (blob.length == 0 || blob.bytes.get()[0] != kHeaderVersion) {
    return false;
  }
  if (blob.length == 1) {
    return true;
  }
  const int type = static_cast<int>(blob.bytes.get()[kFlagsOffset] & kCompressionTypeMask);
  return type == kCompressionStored || type == kCompressionLZMA;
}

// Returns the first of `paths`, with an ellipsis when there are more.
std::string FirstOf(const std::vector<std::string>& paths) {
  return paths.front() + (paths.size() > 1 ? ", ..." : "");
}

}  // namespace

std::string BlobName(const std::string& path) {
  return path == kStandardStream ? "standard input" : path;
}

bool ReadBlob(const std::string& path, ChunkList& tree) {
  const std::string name = BlobName(path);
  BlobBytes blob;
  if (path == kStandardStream ? !ReadStandardInput(name, blob) : !ReadFile(path, blob)) {
    return false;
  }
  if (!BeginsAsBlob(blob)) {
    ReportError(name, blob.length == 0 ? std::string(kNotABlob) + ": empty" : kNotABlob);
    return false;
  }
  BlobFault fault;
  tree.reset(dismantle(blob.bytes.get(), static_cast<unsigned int>(blob.length), fault));
  if (fault.reason) {
    ReportError(name, DescribeFault(fault));
    return false;
  }
  return true;
}

bool CheckLayout(const std::string& path, const fileChunk* tree) {
  const std::string name = BlobName(path);
  const bool isSolid = IsSolidRoot(tree);
  const SharedPaths shared = FindSharedPaths(tree);
  if (!isSolid) {
    ReportError(name, kNotASolidRoot);
  } else if (!shared.clashing.empty()) {
    ReportError(name, "cannot be installed whole: " +
                          Counted(shared.clashing.size(), "path is", "paths are") +
                          " both a file and a directory: " + FirstOf(shared.clashing));
  }
  if (!shared.repeated.empty()) {
    ReportWarning(name, Counted(shared.repeated.size(), "path", "paths") +
                            " with more than one file, of which the last counts: " +
                            FirstOf(shared.repeated));
  }
  return isSolid && shared.clashing.empty();
}

std::string DescribeFault(const BlobFault& fault) {
  return std::string("malformed: ") + fault.reason +
         (fault.inDecodedContent ? " in the decoded content" : "") + " at byte " +
         std::to_string(fault.offset);
}

}  // namespace kpim
