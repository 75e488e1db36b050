// Warnings about a bundle that is packed.
#pragma once

#include <stddef.h>

#include <array>
#include <string>
#include <vector>

namespace kpim {

/// Kinds of warnings: changes by packing, and entries that may be packed or missing by mistake.
enum class PackWarningKind {
  /// Links, whose targets are packed instead.
  kLink,
  /// Files that lose their execute bits.
  kExecuteBit,
  /// Files with the name "._*", in which macOS keeps attributes on other systems' disks.
  kAppleDouble,
  /// Folders and files of a version control system.
  kVersionControl,
  /// The file Contents/Info.plist is missing.
  kNoInfoPlist,
  /// Patterns of --exclude that match no entry.
  kUnmatchedExclude,
};

/// All findings of one kind.
struct PackWarning {
  PackWarningKind kind = PackWarningKind::kLink;
  unsigned long count = 0;
  /// Bytes that following the links adds to the blob's content; 0 for the other kinds.
  unsigned long bytes = 0;
  /// The first three, relative to the bundle.
  std::vector<std::string> paths;
};

/// The findings of one bundle, by kind.
class PackWarnings {
 public:
  /// Adds one finding. `path` is empty if the finding has no path.
  void Add(PackWarningKind kind, const std::string& path);

  /// Adds bytes that following links has added.
  void AddLinkedBytes(unsigned long bytes);

  /// Returns the kinds with findings, in the order of the enumeration.
  std::vector<PackWarning> Found() const;

 private:
  static constexpr size_t kKinds = static_cast<size_t>(PackWarningKind::kUnmatchedExclude) + 1;
  std::array<PackWarning, kKinds> warnings_;
};

/// Returns a sentence for people, paths included.
std::string DescriptionOf(const PackWarning& warning);

/// Returns the name of a kind for programs, which does not change between releases.
const char* NameOf(PackWarningKind kind);

}  // namespace kpim
