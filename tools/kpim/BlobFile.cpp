#include "tools/kpim/BlobFile.h"

#include <errno.h>
#include <sys/stat.h>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/Disk.h"
#include "tools/kpim/Report.h"

namespace kpim {

namespace {

/// The reader counts in 32 bits.
constexpr off_t kMaximumBlobSize = 0xFFFFFFFF;

/// Says why the file at `path` cannot be a blob; false then.
bool CheckBlobFile(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    ReportSystemError(path, errno);
    return false;
  }
  // A pipe would block, and has no size that could be asked for.
  if (!S_ISREG(status.st_mode)) {
    ReportError(path, S_ISDIR(status.st_mode) ? "Is a directory" : "not a regular file");
    return false;
  }
  if (status.st_size > kMaximumBlobSize) {
    ReportError(path, "too large for a blob: 4 GiB or more");
    return false;
  }
  if (const int error = TryToRead(path)) {
    ReportSystemError(path, error);
    return false;
  }
  return true;
}

}  // namespace

bool ReadBlob(const std::string& path, ChunkList& tree) {
  if (!CheckBlobFile(path)) {
    return false;
  }
  const ChunkList source(PlatformCreateSourceFromFile(path.c_str(), ""));
  if (!source) {
    ReportError(path, "cannot be opened any more");
    return false;
  }
  BlobFault fault;
  tree.reset(DismantleInstallerBlob(source.get(), fault));
  if (fault.reason) {
    ReportError(path, DescribeFault(fault));
    return false;
  }
  return true;
}

std::string DescribeFault(const BlobFault& fault) {
  return std::string("malformed: ") + fault.reason +
         (fault.inDecodedContent ? " in the decoded content" : "") + " at byte " +
         std::to_string(fault.offset);
}

}  // namespace kpim
