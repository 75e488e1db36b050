// kpim verify: checks that a blob is well formed and has the contents of a bundle.
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

// Compares the tree with the bundle and prints the differences. Returns true when there are none.
bool IsSame(const fileChunk* tree, const VerifyOptions& options, Result& result) {
  const std::vector<Difference> differences = CompareWithDirectory(tree, *options.bundle);
  result.members().Add("differences", JSONDifferences(differences));
  if (!options.json) {
    PrintDifferences(differences);
  }
  if (!differences.empty()) {
    ReportError(BlobName(options.blob), CountedDifferences(differences, *options.bundle));
  }
  return differences.empty();
}

int Verify(const VerifyOptions& options, Result& result) {
  result.members().AddString("blob", options.blob);
  if (options.bundle) {
    result.members().AddString("bundle", *options.bundle);
  }
  ChunkList tree;
  if (!ReadBlob(options.blob, tree)) {
    return kExitFailed;
  }
  const TreeTotals totals = CountTree(tree.get());
  result.AddTotals(totals);
  const bool isFit = CheckLayout(options.blob, tree.get());
  if (options.bundle &&
      (!CheckDirectory(*options.bundle) || !IsSame(tree.get(), options, result))) {
    return kExitFailed;
  }
  if (!isFit) {
    return kExitFailed;
  }
  if (!options.json) {
    Print(Printable(BlobName(options.blob)) + ": well formed, " + Described(totals) +
          (options.bundle ? ", the same as " + Printable(*options.bundle) : "") + "\n");
  }
  return kExitOK;
}

}  // namespace

int VerifyBlob(const VerifyOptions& options) {
  Result result;
  const int status = Verify(options, result);
  return options.json ? result.Print(status) : status;
}

}  // namespace kpim
