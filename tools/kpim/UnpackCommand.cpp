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
    case DifferenceKind::kUnreadable:
      return strerror(difference.error);
    // Untested: only a disk that others write to shows another difference.
    default:
      return "not written as the blob has it";
  }
}

/// Names each entry that is not on disk as it should be, then counts them.
void ReportFailures(const std::string& directory, const fileChunk* tree, const SinkReport& report) {
  for (const Difference& difference : CompareWithDirectory(tree, directory)) {
    ReportError(JoinPath(directory, difference.path), Describe(difference));
  }
  ReportError(directory, std::to_string(report.failed) + " of " + std::to_string(report.entries) +
                             " entries could not be written: " + strerror(report.error));
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
    ReportWarning(options.blob, kNotASolidRoot);
  }
  if (!PrepareDirectory(options.directory)) {
    return kExitFailed;
  }
  SinkReport report;
  {
    const StageLine stage("writing");
    PlatformWriteFileFromChunk(options.directory.c_str(), "", tree.get(), report);
  }
  if (report.failed != 0) {
    ReportFailures(options.directory, tree.get(), report);
    return kExitFailed;
  }
  const TreeTotals totals = CountTree(tree.get());
  Print(Printable(options.directory) + ": " + Counted(totals.entries, "entry", "entries") + ", " +
        Counted(totals.bytes, "byte", "bytes") + " written\n");
  return kExitOK;
}

}  // namespace kpim
