// kpim pack: packs a bundle into a blob.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/BlobFile.h"
#include "tools/kpim/BundleScan.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Comparison.h"
#include "tools/kpim/Exclusion.h"
#include "tools/kpim/JSON.h"
#include "tools/kpim/OutputFile.h"
#include "tools/kpim/PackWarning.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Result.h"
#include "tools/kpim/StageLine.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

constexpr char kBlobExtension[] = ".lzma";
constexpr char kChanged[] = "changed while it was packed";

// Returns the default path of the blob: the bundle's with the extension. Reports an error and
// returns nothing when the bundle's name cannot be found.
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

// A fault that reading the bundle has found.
struct Fault {
  std::string path;
  std::string why;
};

// The context of the filter and the fault handler.
struct Reading {
  // Number of bytes of a path before the part that is relative to the bundle.
  size_t prefixLength;
  Exclusion& exclusion;
  std::vector<Fault> faults;
};

// A SourceFilter.
bool IsWanted(const char* path, void* context) {
  auto* reading = static_cast<Reading*>(context);
  return !reading->exclusion.Excludes(path + reading->prefixLength);
}

// A SourceFaultHandler.
void NoteFault(const char* path, int error, void* context) {
  static_cast<Reading*>(context)->faults.push_back(
      {path, error == kFileBecameShorter ? "became shorter while it was read" : strerror(error)});
}

// Reads the bundle. Reports an error and returns null when the tree is not complete, or not what
// the scan has found.
ChunkList Read(const PackOptions& options, const std::string& bundle, const TreeTotals& found,
               Exclusion& exclusion) {
  Reading reading = {JoinPath(bundle, "x").size() - 1, exclusion, {}};
  ChunkList root;
  {
    const StageLine stage("reading " + Megabytes(found.bytes), !options.quiet);
    root.reset(PlatformCreateSourceFromPath(bundle.c_str(), IsWanted, NoteFault, &reading));
    if (root && !options.unsorted) {
      SortByName(root->children);
    }
  }
  if (reading.faults.empty() && !(root && CountTree(root->children) == found)) {
    reading.faults.push_back({bundle, kChanged});
  }
  for (const Fault& fault : reading.faults) {
    ReportError(fault.path, fault.why);
  }
  return reading.faults.empty() ? std::move(root) : nullptr;
}

// An EncodingProgressHandler whose context is a StageLine.
void ShowProgress(unsigned long done, unsigned long total, void* context) {
  static_cast<StageLine*>(context)->Update(done, total);
}

// Returns the bundle as one encoded entry. On failure reports it and returns null.
ChunkList Encode(const PackOptions& options, const std::string& bundle, const TreeTotals& found,
                 Exclusion& exclusion) {
  ChunkList root = Read(options, bundle, found, exclusion);
  if (!root) {
    return nullptr;
  }
  const ChunkList solid(PrepareSourceForSolidCompression(root->children));
  root.reset();
  ChunkList encoded;
  if (solid) {
    StageLine stage("compressing " + Megabytes(solid->size), !options.quiet);
    encoded.reset(
        PrepareFileChunk(solid.get(), kCompressionLZMA, options.threads, ShowProgress, &stage));
  }
  if (!encoded) {
    ReportSystemError(bundle, ENOMEM);
  }
  return encoded;
}

// Decodes the entry again and compares it with the bundle. Reports differences and returns false.
bool IsSame(const PackOptions& options, fileChunk* encoded, const std::string& bundle,
            Exclusion& exclusion) {
  BlobFault fault;
  std::vector<Difference> differences;
  {
    const StageLine stage("verifying", !options.quiet);
    const ChunkList tree(DismantleInstallerBlob(encoded, fault));
    if (fault.reason == nullptr) {
      differences = CompareWithDirectory(tree.get(), bundle);
    }
  }
  if (fault.isWantOfMemory) {
    ReportSystemError(bundle, ENOMEM);
    return false;
  }
  if (fault.reason != nullptr) {
    // Untested: it would be a fault in the encoder.
    ReportError(bundle, "the blob made of it is " + DescribeFault(fault));
    return false;
  }
  differences.erase(std::remove_if(differences.begin(), differences.end(),
                                   [&](const Difference& difference) {
                                     return difference.kind == DifferenceKind::kExtra &&
                                            exclusion.Excludes(difference.path);
                                   }),
                    differences.end());
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

// Reports the warnings of the scan. Returns false when they end the command.
bool Warn(const PackOptions& options, const std::string& bundle,
          const std::vector<PackWarning>& warnings) {
  for (const PackWarning& warning : warnings) {
    if (options.strict) {
      ReportError(bundle, DescriptionOf(warning));
    } else if (!options.quiet) {
      ReportWarning(bundle, DescriptionOf(warning));
    }
  }
  if (!options.strict || warnings.empty()) {
    return true;
  }
  ReportError(bundle, "nothing was packed: --strict makes warnings errors");
  return false;
}

std::string JSONFindings(const std::vector<PackWarning>& warnings) {
  std::vector<std::string> findings;
  for (const PackWarning& warning : warnings) {
    std::vector<std::string> paths;
    for (const std::string& path : warning.paths) {
      paths.push_back(JSONString(path));
    }
    findings.push_back(JSONObject()
                           .AddString("kind", NameOf(warning.kind))
                           .AddNumber("count", warning.count)
                           .AddNumber("bytes", warning.bytes)
                           .Add("paths", JSONArray(paths))
                           .Text());
  }
  return JSONArray(findings);
}

std::string SummaryOf(const std::string& output, const fileChunk* encoded, const TreeTotals& totals,
                      double seconds) {
  std::string text = Printable(output) + ": " + Counted(totals.entries, "entry", "entries") + ", " +
                     Counted(totals.bytes, "byte", "bytes") + " packed into " +
                     std::to_string(encoded->size);
  char part[48];
  if (totals.bytes > 0) {
    (void)snprintf(part, sizeof part, " (%.1f %%)",
                   100.0 * static_cast<double>(encoded->size) / static_cast<double>(totals.bytes));
    text += part;
  }
  (void)snprintf(part, sizeof part, " in %.1f s", seconds);
  return text + part + (IsStored(encoded) ? ", not compressed" : "");
}

// One "kpim pack".
class Packing {
 public:
  explicit Packing(const PackOptions& options)
      : options_(options),
        bundle_(WithoutTrailingSlashes(options.bundle)),
        exclusion_(options.excluded) {}

  // Returns the exit status.
  int Run() {
    const int status = Write() ? kExitOK : kExitFailed;
    return options_.json ? result_.Print(status) : status;
  }

 private:
  bool Write() {
    OutputFile file;
    if (!Choose(file) || !Scan(file) || !file.Open()) {
      return false;
    }
    const ChunkList encoded = Encode(options_, bundle_, totals_, exclusion_);
    if (!encoded || (options_.verify && !IsSame(options_, encoded.get(), bundle_, exclusion_)) ||
        !file.Write(encoded->data, encoded->size) || !file.Commit()) {
      return false;
    }
    PrintResult(encoded.get());
    return true;
  }

  bool Choose(OutputFile& file) {
    if (options_.output == kStandardStream) {
      output_ = "standard output";
      return file.ChooseStandardOutput();
    }
    const std::optional<std::string> output =
        options_.output ? options_.output : DefaultOutput(bundle_);
    output_ = output.value_or("");
    return output && file.Choose(*output);
  }

  // Scans the bundle before anything is read or written.
  bool Scan(const OutputFile& file) {
    BundleScan scan(file.directory(), file.replaced(), exclusion_);
    if (!scan.Scan(bundle_)) {
      return false;
    }
    totals_ = scan.totals();
    if (totals_.entries == 0) {
      ReportError(bundle_, "empty: there is nothing to pack");
      return false;
    }
    const std::vector<PackWarning> warnings = scan.warnings();
    result_.members().AddString("blob", output_);
    result_.AddTotals(totals_);
    result_.members().Add("findings", JSONFindings(warnings));
    return Warn(options_, bundle_, warnings);
  }

  void PrintResult(const fileChunk* encoded) {
    result_.members()
        .AddNumber("blobBytes", encoded->size)
        .AddBool("compressed", !IsStored(encoded));
    if (options_.json) {
      return;
    }
    const std::string summary = SummaryOf(output_, encoded, totals_, result_.Seconds());
    if (options_.output == kStandardStream) {
      ReportLine(summary);
    } else {
      Print(summary + "\n");
    }
  }

  const PackOptions& options_;
  const std::string bundle_;
  Exclusion exclusion_;
  std::string output_;
  TreeTotals totals_;
  Result result_;
};

}  // namespace

int Pack(const PackOptions& options) { return Packing(options).Run(); }

}  // namespace kpim
