#include "tools/kpim/BlobFile.h"

#include <errno.h>
#include <sys/stat.h>

#include <memory>
#include <new>

#include "tools/kpim/InputFile.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

/// The bytes of a blob file.
struct BlobBytes {
  std::unique_ptr<unsigned char[]> bytes;
  unsigned int length = 0;
};

/// Why the file cannot be a blob; absent when it can.
const char* Unfit(const struct stat& status) {
  if (S_ISDIR(status.st_mode)) {
    return "Is a directory";
  }
  if (!S_ISREG(status.st_mode)) {
    return "not a regular file";
  }
  return static_cast<unsigned long>(status.st_size) > kMaximumBlobLength ? kBlobTooLarge : nullptr;
}

/// Reads the file at `path` whole. False, and reported, when that cannot be done.
bool ReadFile(const std::string& path, BlobBytes& blob) {
  InputFile file;
  if (const int error = file.Open(path)) {
    ReportSystemError(path, error);
    return false;
  }
  if (const char* const why = Unfit(file.status())) {
    ReportError(path, why);
    return false;
  }
  blob.length = static_cast<unsigned int>(file.status().st_size);
  blob.bytes.reset(new (std::nothrow) unsigned char[blob.length]);
  if (!blob.bytes) {
    ReportSystemError(path, ENOMEM);
    return false;
  }
  size_t filled = 0;
  if (const int error = file.Read(blob.bytes.get(), blob.length, filled)) {
    ReportSystemError(path, error);
    return false;
  }
  if (filled != blob.length) {
    ReportError(path, "became shorter while it was read");
    return false;
  }
  return true;
}

void WarnOfRepeatedPaths(const std::string& blob, const fileChunk* list) {
  const std::vector<std::string> paths = RepeatedPaths(list);
  if (!paths.empty()) {
    ReportWarning(blob, Counted(paths.size(), "path", "paths") +
                            " with more than one entry, of which the later one counts: " +
                            paths.front() + (paths.size() > 1 ? ", ..." : ""));
  }
}

}  // namespace

bool ReadBlob(const std::string& path, ChunkList& tree) {
  BlobBytes blob;
  if (!ReadFile(path, blob)) {
    return false;
  }
  BlobFault fault;
  tree.reset(dismantle(blob.bytes.get(), blob.length, fault));
  if (fault.reason) {
    ReportError(path, DescribeFault(fault));
    return false;
  }
  WarnOfRepeatedPaths(path, tree.get());
  return true;
}

std::string DescribeFault(const BlobFault& fault) {
  return std::string("malformed: ") + fault.reason +
         (fault.inDecodedContent ? " in the decoded content" : "") + " at byte " +
         std::to_string(fault.offset);
}

}  // namespace kpim
