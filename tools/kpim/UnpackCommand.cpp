// kpim unpack: a blob's tree on disk.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/BlobFile.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Comparison.h"
#include "tools/kpim/Disk.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/StageLine.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

/// Makes sure that an empty directory stands at `path`. False, and reported, when not.
bool PrepareDirectory(const std::string& path) {
  if (PlatformCreateDirectory(path.c_str())) {
    return true;
  }
  if (errno != EEXIST) {
    ReportSystemError(path, errno);
    return false;
  }
  std::vector<std::string> names;
  if (const int error = ListDirectory(path, names)) {
    ReportSystemError(path, error);
    return false;
  }
  if (!names.empty()) {
    ReportSystemError(path, ENOTEMPTY);
    return false;
  }
  return true;
}

std::string Describe(const Difference& difference) {
  switch (difference.kind) {
    case DifferenceKind::kMissing:
      return "could not be written";
    case DifferenceKind::kDuplicate:
      return "stands in the blob more than once";
    case DifferenceKind::kUnreadable:
      return strerror(difference.error);
    // Untested: only a disk that others write to shows another difference.
    default:
      return "not written as the blob has it";
  }
}

}  // namespace

int Unpack(const UnpackOptions& options) {
  ChunkList tree;
  if (!ReadBlob(options.blob, tree)) {
    return kExitFailed;
  }
  if (!tree) {
    ReportError(options.blob, "empty: there is nothing to unpack");
    return kExitFailed;
  }
  if (!IsSolidRoot(tree.get())) {
    ReportError(options.blob, std::string("warning: ") + kNotASolidRoot);
  }
  if (!PrepareDirectory(options.directory)) {
    return kExitFailed;
  }
  std::vector<Difference> differences;
  {
    const StageLine stage("writing");
    PlatformWriteFileFromChunk(options.directory.c_str(), tree.get());
    // The sink reports no failures: only the disk can tell.
    differences = CompareWithDirectory(tree.get(), options.directory);
  }
  for (const Difference& difference : differences) {
    ReportError(JoinPath(options.directory, difference.path), Describe(difference));
  }
  if (!differences.empty()) {
    return kExitFailed;
  }
  const TreeTotals totals = CountTree(tree.get());
  Print(options.directory + ": " + Counted(totals.entries, "entry", "entries") + ", " +
        Counted(totals.bytes, "byte", "bytes") + " written\n");
  return kExitOK;
}

}  // namespace kpim
