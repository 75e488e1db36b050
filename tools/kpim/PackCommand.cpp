// kpim pack: a blob out of a bundle.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <optional>
#include <string>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/BlobFile.h"
#include "tools/kpim/BundleScan.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Comparison.h"
#include "tools/kpim/OutputFile.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/StageLine.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

constexpr char kBlobExtension[] = ".lzma";
constexpr char kFooter[] =
    "Links are followed; .DS_Store files are left out. The format keeps names and\n"
    "contents only: execute bits, other modes, owners and times are dropped, and\n"
    "unpacking gives every file mode 0664 and every directory 0775.";

struct PackOptions {
  std::string bundle;
  std::optional<std::string> output;
  bool sort = false;
};

/// The blob's name when none is given: the bundle's with the extension, beside it. Absent,
/// and reported, when the bundle's own name cannot be found out.
std::optional<std::string> DefaultOutput(const std::string& bundle) {
  const std::string leaf = LeafOf(bundle);
  if (leaf != "." && leaf != "..") {
    return bundle + kBlobExtension;
  }
  char path[PATH_MAX];
  if (!realpath(bundle.c_str(), path)) {
    ReportSystemError(bundle, errno);
    return std::nullopt;
  }
  return std::string(path) + kBlobExtension;
}

/// The bundle as one encoded entry; absent when there is nothing in it.
ChunkList Encode(const std::string& bundle, bool sort, unsigned long contentBytes) {
  ChunkList solid;
  {
    const StageLine stage("reading " + Megabytes(contentBytes));
    // The reader wants a path with a '/' in it.
    const std::string path = bundle.find('/') == std::string::npos ? "./" + bundle : bundle;
    const ChunkList root(PlatformCreateSourceFromPath(path.c_str()));
    if (!root) {
      return nullptr;
    }
    if (sort) {
      SortByName(root->children);
    }
    solid.reset(PrepareSourceForSolidCompression(root->children));
  }
  const StageLine stage("compressing " + Megabytes(solid->size));
  return ChunkList(PrepareFileChunk(solid.get(), kCompressionLZMA));
}

std::string Describe(const Difference& difference) {
  return difference.kind == DifferenceKind::kUnreadable
             ? strerror(difference.error)
             : "could not be read whole, or changed meanwhile";
}

/// Decodes the entry again and compares it with the bundle: reading leaves out silently what
/// has become unreadable. Absent, and reported, when the two are not the same.
ChunkList Check(fileChunk* encoded, const std::string& bundle) {
  BlobFault fault;
  ChunkList tree;
  std::vector<Difference> differences;
  {
    const StageLine stage("checking");
    tree.reset(DismantleInstallerBlob(encoded, fault));
    differences = CompareWithDirectory(tree.get(), bundle);
  }
  if (fault.reason) {
    ReportError(bundle, "the blob made of it is " + DescribeFault(fault));
    return nullptr;
  }
  for (const Difference& difference : differences) {
    ReportError(JoinPath(bundle, difference.path), Describe(difference));
  }
  return differences.empty() ? std::move(tree) : nullptr;
}

bool IsStored(const fileChunk* encoded) {
  int compressionType = kCompressionStored;
  char* name = nullptr;
  bool isDirectory = false;
  unsigned long size = 0;
  decodeHeaderV2(encoded->data, compressionType, name, isDirectory, size);
  delete[] name;
  return compressionType == kCompressionStored;
}

void PrintSummary(const std::string& output, const fileChunk* encoded, const TreeTotals& totals) {
  std::string text = output + ": " + Counted(totals.entries, "entry", "entries") + ", " +
                     Counted(totals.bytes, "byte", "bytes") + " packed into " +
                     std::to_string(encoded->size);
  if (totals.bytes > 0) {
    char ratio[32];
    (void)snprintf(ratio, sizeof ratio, " (%.1f %%)",
                   100.0 * static_cast<double>(encoded->size) / static_cast<double>(totals.bytes));
    text += ratio;
  }
  Print(text + (IsStored(encoded) ? ", not compressed\n" : "\n"));
}

int Pack(const PackOptions& options) {
  const std::string bundle = WithoutTrailingSlashes(options.bundle);
  const std::optional<std::string> output = options.output ? options.output : DefaultOutput(bundle);
  OutputFile file;
  if (!output || !file.Choose(*output)) {
    return kExitFailed;
  }
  BundleScan scan(file.directory());
  if (!scan.Scan(bundle) || !file.Open()) {
    return kExitFailed;
  }
  const ChunkList encoded = Encode(bundle, options.sort, scan.contentBytes());
  if (!encoded) {
    ReportError(bundle, "empty: there is nothing to pack");
    return kExitFailed;
  }
  const ChunkList tree = Check(encoded.get(), bundle);
  if (!tree || !file.Write(encoded->data, encoded->size) || !file.Commit()) {
    return kExitFailed;
  }
  PrintSummary(*output, encoded.get(), CountTree(tree.get()));
  return kExitOK;
}

}  // namespace

void AddPackCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<PackOptions>();
  CLI::App* command = app.add_subcommand("pack", "Build a blob out of a bundle");
  command->footer(kFooter);
  command->add_option("BUNDLE", options->bundle, "The bundle's directory")
      ->required()
      ->type_name("DIR");
  command
      ->add_option("-o,--output", options->output,
                   "Where to write the blob (default: BUNDLE.lzma beside the bundle)")
      ->type_name("BLOB");
  command
      ->add_flag("--sort", options->sort,
                 "Order entries by name, so that the same bundle always gives the same blob")
      ->disable_flag_override();
  command->callback([options, &status] { status = Pack(*options); });
}

}  // namespace kpim
