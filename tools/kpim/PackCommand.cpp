// kpim pack: a blob out of a bundle.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <optional>
#include <string>
#include <vector>

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
constexpr char kChanged[] = "changed while it was packed";
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

/// What reading the bundle has found wrong.
struct Fault {
  std::string path;
  std::string why;
};

/// A SourceFaultHandler whose context is a vector of faults.
void NoteFault(char const* path, int error, void* context) {
  static_cast<std::vector<Fault>*>(context)->push_back(
      {path, error == kFileBecameShorter ? "became shorter while it was read" : strerror(error)});
}

/// Reads the bundle. Absent, and reported, unless the tree is all that the scan has found.
ChunkList Read(const PackOptions& options, const std::string& bundle, const TreeTotals& found) {
  std::vector<Fault> faults;
  ChunkList root;
  {
    const StageLine stage("reading " + Megabytes(found.bytes));
    root.reset(PlatformCreateSourceFromPath(bundle.c_str(), NoteFault, &faults));
    if (root && options.sort) {
      SortByName(root->children);
    }
  }
  if (faults.empty() && !(root && CountTree(root->children) == found)) {
    faults.push_back({bundle, kChanged});
  }
  for (const Fault& fault : faults) {
    ReportError(fault.path, fault.why);
  }
  return faults.empty() ? std::move(root) : nullptr;
}

/// The bundle as one encoded entry. Absent, and reported, when that fails.
ChunkList Encode(const PackOptions& options, const std::string& bundle, const TreeTotals& found) {
  ChunkList root = Read(options, bundle, found);
  if (!root) {
    return nullptr;
  }
  const ChunkList solid(PrepareSourceForSolidCompression(root->children));
  root.reset();
  ChunkList encoded;
  if (solid) {
    const StageLine stage("compressing " + Megabytes(solid->size));
    encoded.reset(PrepareFileChunk(solid.get(), kCompressionLZMA));
  }
  if (!encoded) {
    ReportSystemError(bundle, ENOMEM);
  }
  return encoded;
}

/// Decodes the entry again and compares it with the bundle. False, and reported, when the two
/// are not the same.
bool IsSame(fileChunk* encoded, const std::string& bundle) {
  BlobFault fault;
  std::vector<Difference> differences;
  {
    const StageLine stage("verifying");
    const ChunkList tree(DismantleInstallerBlob(encoded, fault));
    differences = CompareWithDirectory(tree.get(), bundle);
  }
  if (fault.reason) {
    // Untested: it would be a fault in the encoder.
    ReportError(bundle, "the blob made of it is " + DescribeFault(fault));
    return false;
  }
  for (const Difference& difference : differences) {
    ReportError(JoinPath(bundle, difference.path), difference.kind == DifferenceKind::kUnreadable
                                                       ? strerror(difference.error)
                                                       : kChanged);
  }
  return differences.empty();
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
  std::string text = Printable(output) + ": " + Counted(totals.entries, "entry", "entries") + ", " +
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

}  // namespace

int Pack(const PackOptions& options) {
  const std::string bundle = WithoutTrailingSlashes(options.bundle);
  const std::optional<std::string> output = options.output ? options.output : DefaultOutput(bundle);
  OutputFile file;
  if (!output || !file.Choose(*output)) {
    return kExitFailed;
  }
  BundleScan scan(file.directory(), file.replaced());
  if (!scan.Scan(bundle)) {
    return kExitFailed;
  }
  if (scan.totals().entries == 0) {
    ReportError(bundle, "empty: there is nothing to pack");
    return kExitFailed;
  }
  if (!file.Open()) {
    return kExitFailed;
  }
  const ChunkList encoded = Encode(options, bundle, scan.totals());
  if (!encoded || (options.verify && !IsSame(encoded.get(), bundle)) ||
      !file.Write(encoded->data, encoded->size) || !file.Commit()) {
    return kExitFailed;
  }
  PrintSummary(*output, encoded.get(), scan.totals());
  return kExitOK;
}

}  // namespace kpim
