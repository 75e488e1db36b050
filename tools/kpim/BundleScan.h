// A look at a bundle before it is packed.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Disk.h"
#include "tools/kpim/Exclusion.h"
#include "tools/kpim/PackWarning.h"
#include "tools/kpim/Tree.h"

namespace kpim {

/// Walks a bundle as the packer will, links followed, and refuses whatever could not be
/// packed whole or not be unpacked again: what cannot be read, what is neither a file nor a
/// directory, links that lead round in circles, and what exceeds the limits of the format.
class BundleScan {
 public:
  /// `outputDirectory` is the directory that the blob will be written to, `outputFile` the file
  /// that it will replace there, if any. A bundle that reaches one of them is refused: the next
  /// pack would contain the blob. Of what `exclusion` leaves out nothing is looked at.
  BundleScan(FileIdentity outputDirectory, FileIdentity outputFile, Exclusion& exclusion)
      : outputDirectory_(outputDirectory), outputFile_(outputFile), exclusion_(exclusion) {}

  /// Scans the directory at `bundle`. False, with a line on standard error for everything
  /// that is refused, when it must not be packed.
  bool Scan(const std::string& bundle);

  /// How much the bundle holds.
  const TreeTotals& totals() const { return totals_; }

  /// What should be said about it.
  std::vector<PackWarning> warnings() const { return warnings_.Found(); }

 private:
  /// Paths are relative to the bundle from here on.
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
  /// The directories around the one being scanned, and itself.
  std::vector<FileIdentity> open_;
  TreeTotals totals_;
  /// Length of the blob if it is stored, in 64 bits.
  unsigned long blobBytes_ = 0;
  bool refused_ = false;
  /// Links on the way to the entry being scanned.
  unsigned int linksFollowed_ = 0;
  bool hasInfoPlist_ = false;
  PackWarnings warnings_;
};

}  // namespace kpim
