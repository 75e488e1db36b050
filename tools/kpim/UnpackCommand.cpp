// kpim unpack: writes a blob's tree to disk.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/BlobFile.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Differences.h"
#include "tools/kpim/Disk.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Result.h"
#include "tools/kpim/StageLine.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

// Creates the directory at `path`, unless an empty one exists. On failure reports it and returns
// false.
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
    // Untested: it takes a disk that fails after the write.
    case DifferenceKind::kUnreadable:
      return strerror(difference.error);
    default:
      return "not written as the blob has it";
  }
}

// Names each entry that is not on disk as it should be, then counts them.
void ReportFailures(const UnpackOptions& options, const std::vector<Difference>& differences,
                    const SinkReport& report) {
  for (const Difference& difference : differences) {
    ReportError(JoinPath(options.directory, difference.path), Describe(difference));
  }
  ReportError(options.directory, std::to_string(report.failed) + " of " +
                                     std::to_string(report.entries) +
                                     " entries could not be written: " + strerror(report.error));
}

// Removes the entries from `tree` that the user has not chosen. Returns false, with an error for
// each chosen path that is missing.
bool Choose(const UnpackOptions& options, ChunkList& tree) {
  if (options.paths.empty()) {
    return true;
  }
  fileChunk* list = tree.release();
  const std::vector<std::string> missing = KeepPaths(list, options.paths);
  tree.reset(list);
  for (const std::string& path : missing) {
    ReportError(path, "not in " + BlobName(options.blob));
  }
  return missing.empty();
}

// Writes the tree. Reports an error and returns false when not all of it could be written.
bool Write(const UnpackOptions& options, fileChunk* tree, Result& result) {
  SinkReport report;
  {
    const StageLine stage("writing");
    PlatformWriteFileFromChunk(options.directory.c_str(), "", tree, report);
  }
  std::vector<Difference> differences;
  if (report.failed != 0) {
    differences = CompareWithDirectory(tree, options.directory);
    ReportFailures(options, differences, report);
  }
  result.members().Add("differences", JSONDifferences(differences));
  return report.failed == 0;
}

int Unpack(const UnpackOptions& options, Result& result) {
  result.members().AddString("blob", options.blob).AddString("directory", options.directory);
  ChunkList tree;
  if (!ReadBlob(options.blob, tree)) {
    return kExitFailed;
  }
  const bool isFit = CheckLayout(options.blob, tree.get());
  if (!Choose(options, tree) || !PrepareDirectory(options.directory)) {
    return kExitFailed;
  }
  const TreeTotals totals = CountTree(tree.get());
  result.AddTotals(totals);
  if (!Write(options, tree.get(), result)) {
    return kExitFailed;
  }
  if (!options.json) {
    Print(Printable(options.directory) + ": " + Described(totals) + " written\n");
  }
  return isFit ? kExitOK : kExitFailed;
}

}  // namespace

int Unpack(const UnpackOptions& options) {
  Result result;
  const int status = Unpack(options, result);
  return options.json ? result.Print(status) : status;
}

}  // namespace kpim
