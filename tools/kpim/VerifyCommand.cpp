// kpim verify: whether a blob is sound, and the same as a bundle.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
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

constexpr char kFooter[] =
    "With BUNDLE, each difference is a line on standard output:\n"
    "  missing: PATH          in the blob only\n"
    "  extra: PATH            in the bundle only\n"
    "  different: PATH        other contents\n"
    "  type mismatch: PATH    a file on one side only\n"
    "  unreadable: PATH: WHY  in the bundle";

struct VerifyOptions {
  std::string blob;
  std::optional<std::string> bundle;
};

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
  Print(options.blob + ": well formed, " + Counted(totals.entries, "entry", "entries") + ", " +
        Counted(totals.bytes, "byte", "bytes") +
        (options.bundle ? ", the same as " + *options.bundle : "") + "\n");
  return kExitOK;
}

}  // namespace

void AddVerifyCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* command =
      app.add_subcommand("verify", "Check that a blob is well formed, and the same as a bundle");
  command->footer(kFooter);
  command->add_option("BLOB", options->blob, "The blob")->required()->type_name("FILE");
  command->add_option("BUNDLE", options->bundle, "A bundle to compare its contents with")
      ->type_name("DIR");
  command->callback([options, &status] { status = VerifyBlob(*options); });
}

}  // namespace kpim
