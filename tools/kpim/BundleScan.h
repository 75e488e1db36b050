// A look at a bundle before it is packed.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Disk.h"

namespace kpim {

/// Walks a bundle as the packer will, links followed, and refuses whatever could not be
/// packed whole or not be unpacked again: what cannot be read, what is neither a file nor a
/// directory, links that lead round in circles, and what exceeds the limits of the format.
class BundleScan {
 public:
  /// `outputDirectory` is the directory that the blob will be written to. A bundle that
  /// reaches it is refused: the next pack would contain the blob.
  explicit BundleScan(FileIdentity outputDirectory) : outputDirectory_(outputDirectory) {}

  /// Scans the directory at `bundle`. False, with a line on standard error for everything
  /// that is refused, when it must not be packed.
  bool Scan(const std::string& bundle);

  /// Sum of the sizes of all files.
  unsigned long contentBytes() const { return contentBytes_; }

 private:
  void ScanDirectory(const std::string& path, FileIdentity identity);
  void ScanEntry(const std::string& path, const std::string& name);
  void ScanFile(const std::string& path, off_t size);
  void Refuse(const std::string& path, const std::string& why);

  const FileIdentity outputDirectory_;
  /// The directories around the one being scanned, and itself.
  std::vector<FileIdentity> open_;
  unsigned long contentBytes_ = 0;
  /// Length of the blob if it is stored, in 64 bits.
  unsigned long blobBytes_ = 0;
  bool refused_ = false;
};

}  // namespace kpim
