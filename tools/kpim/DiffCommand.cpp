// kpim diff: compares two blobs, or a blob and a directory.
#include <sys/stat.h>

#include <string>

#include "tools/kpim/BlobFile.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Differences.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Result.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

bool IsDirectory(const std::string& path) {
  struct stat status = {};
  return path != kStandardStream && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Exchanges the sides of every difference.
void Reverse(std::vector<Difference>& differences) {
  for (Difference& difference : differences) {
    if (difference.kind == DifferenceKind::kMissing) {
      difference.kind = DifferenceKind::kExtra;
    } else if (difference.kind == DifferenceKind::kExtra) {
      difference.kind = DifferenceKind::kMissing;
    }
  }
}

// One side of the comparison: a directory, or the tree of a blob.
struct Side {
  explicit Side(const std::string& operand)
      : path(operand), name(BlobName(operand)), isDirectory(IsDirectory(operand)) {}

  // Reads the blob; does nothing for a directory. On failure reports it and returns false.
  bool Read() {
    if (isDirectory) {
      return true;
    }
    if (!ReadBlob(path, tree)) {
      return false;
    }
    isFit = CheckLayout(path, tree.get());
    return true;
  }

  const std::string path;
  const std::string name;
  const bool isDirectory;
  ChunkList tree;
  // Whether the finalizer would install all of the blob.
  bool isFit = true;
};

std::vector<Difference> Compare(const Side& left, const Side& right) {
  if (right.isDirectory) {
    return CompareWithDirectory(left.tree.get(), right.path);
  }
  if (!left.isDirectory) {
    return CompareWithTree(left.tree.get(), right.tree.get());
  }
  std::vector<Difference> differences = CompareWithDirectory(right.tree.get(), left.path);
  Reverse(differences);
  return differences;
}

// Prints the differences, or that there are none.
void PrintText(const std::vector<Difference>& differences, const Side& left, const Side& right,
               const TreeTotals& totals) {
  PrintDifferences(differences);
  if (differences.empty() && left.isFit && right.isFit) {
    Print(Printable(left.name) + ": the same as " + Printable(right.name) + ", " +
          Described(totals) + "\n");
  }
}

int Compare(const DiffOptions& options, Result& result) {
  Side left(options.left);
  Side right(options.right);
  result.members().AddString("left", left.path).AddString("right", right.path);
  if (left.isDirectory && right.isDirectory) {
    ReportError(right.name, "a directory, like " + left.name + ": one of the two must be a blob");
    return kExitFailed;
  }
  if (!left.Read() || !right.Read()) {
    return kExitFailed;
  }
  const TreeTotals totals = CountTree((left.isDirectory ? right : left).tree.get());
  const std::vector<Difference> differences = Compare(left, right);
  result.AddTotals(totals);
  result.members().Add("differences", JSONDifferences(differences));
  if (!options.json) {
    PrintText(differences, left, right, totals);
  }
  if (!differences.empty()) {
    ReportError(left.name, CountedDifferences(differences, right.name));
  }
  return differences.empty() && left.isFit && right.isFit ? kExitOK : kExitFailed;
}

}  // namespace

int Diff(const DiffOptions& options) {
  if (options.left == kStandardStream && options.right == kStandardStream) {
    ReportError("diff", "only one of the two can be standard input");
    return kExitUsage;
  }
  Result result;
  const int status = Compare(options, result);
  return options.json ? result.Print(status) : status;
}

}  // namespace kpim
