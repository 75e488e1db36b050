// kpim verify: whether a blob is sound, and the same as a bundle.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <optional>
#include <string>

#include "tools/kpim/BlobFile.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Comparison.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

const char* KindName(DifferenceKind kind) {
  switch (kind) {
    case DifferenceKind::kMissing:
      return "missing";
    case DifferenceKind::kExtra:
      return "extra";
    case DifferenceKind::kDifferent:
      return "different";
    case DifferenceKind::kTypeMismatch:
      return "type mismatch";
    case DifferenceKind::kUnreadable:
      return "unreadable";
  }
  // Untested: the switch has all cases.
  return "";
}

bool IsDirectory(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    ReportSystemError(path, errno);
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    ReportSystemError(path, ENOTDIR);
    return false;
  }
  return true;
}

/// Prints the differences; true when there are none.
bool IsSame(const fileChunk* tree, const VerifyOptions& options) {
  const std::vector<Difference> differences = CompareWithDirectory(tree, *options.bundle);
  for (const Difference& difference : differences) {
    std::string line = std::string(KindName(difference.kind)) + ": " + Printable(difference.path);
    if (difference.kind == DifferenceKind::kUnreadable) {
      line += std::string(": ") + strerror(difference.error);
    }
    Print(line + "\n");
  }
  if (differences.empty()) {
    return true;
  }
  ReportError(options.blob, Counted(differences.size(), "difference", "differences") + " from " +
                                *options.bundle);
  return false;
}

}  // namespace

int VerifyBlob(const VerifyOptions& options) {
  ChunkList tree;
  if (!ReadBlob(options.blob, tree)) {
    return kExitFailed;
  }
  const bool fit = IsSolidRoot(tree.get());
  if (!fit) {
    ReportError(options.blob, kNotASolidRoot);
  }
  if (options.bundle && (!IsDirectory(*options.bundle) || !IsSame(tree.get(), options))) {
    return kExitFailed;
  }
  if (!fit) {
    return kExitFailed;
  }
  const TreeTotals totals = CountTree(tree.get());
  Print(Printable(options.blob) + ": well formed, " + Counted(totals.entries, "entry", "entries") + ", " +
        Counted(totals.bytes, "byte", "bytes") +
        (options.bundle ? ", the same as " + Printable(*options.bundle) : "") + "\n");
  return kExitOK;
}

}  // namespace kpim
