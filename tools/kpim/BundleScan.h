// Checking a bundle before it is packed.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Disk.h"
#include "tools/kpim/Exclusion.h"
#include "tools/kpim/PackWarning.h"
#include "tools/kpim/Tree.h"

namespace kpim {

/// Walks a bundle in the same way as the packer, following links. Refuses entries that could not be
/// packed completely or not be unpacked again: entries that cannot be read or are neither a file
/// nor a directory, links to a directory around them, and entries that exceed the limits of the
/// format.
class BundleScan {
 public:
  /// `outputDirectory` is the directory that the blob will be written to, `outputFile` the file
  /// that it will replace there, if any. A bundle that contains one of them is refused, because the
  /// next blob would contain this one. Entries that `exclusion` excludes are not scanned. The
  /// object keeps a reference to `exclusion`.
  BundleScan(FileIdentity outputDirectory, FileIdentity outputFile, Exclusion& exclusion)
      : outputDirectory_(outputDirectory), outputFile_(outputFile), exclusion_(exclusion) {}

  /// Scans the directory at `bundle`. Returns false, with a line on standard error for everything
  /// that is refused, when it must not be packed.
  bool Scan(const std::string& bundle);

  /// Returns the number of entries and bytes in the bundle.
  const TreeTotals& totals() const { return totals_; }

  /// Returns the warnings about the bundle.
  std::vector<PackWarning> warnings() const { return warnings_.Found(); }

 private:
  /// In the functions below, paths are relative to the bundle.
  void ScanDirectory(const std::string& path, FileIdentity identity);
  void ScanEntry(const std::string& path, const std::string& name);
  void ScanFollowedEntry(const std::string& path, const std::string& name,
                         const struct stat& status);
  void ScanFile(const std::string& path, const std::string& name, const struct stat& status);
  void WarnOfAbsences();
  void Refuse(const std::string& path, const std::string& why);

  const FileIdentity outputDirectory_;
  const FileIdentity outputFile_;
  Exclusion& exclusion_;
  std::string bundle_;
  /// The directory that is being scanned, and those around it.
  std::vector<FileIdentity> open_;
  TreeTotals totals_;
  /// Length of the blob in bytes, if it is stored without compression.
  unsigned long blobBytes_ = 0;
  bool refused_ = false;
  /// Number of links on the path of the entry that is being scanned.
  unsigned int linksFollowed_ = 0;
  bool hasInfoPlist_ = false;
  PackWarnings warnings_;
};

}  // namespace kpim
