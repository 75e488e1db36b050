// What a packer should know about a bundle before it is shipped.
#pragma once

#include <stddef.h>

#include <array>
#include <string>
#include <vector>

namespace kpim {

/// What packing changes, and what may be packed or missing by mistake.
enum class PackWarningKind {
  /// Links that are packed as what they lead to.
  kLink,
  /// Files that lose their execute bits.
  kExecuteBit,
  /// Files with the name "._*", in which macOS keeps attributes on other systems' disks.
  kAppleDouble,
  /// Entries that a version control system keeps its data in.
  kVersionControl,
  /// There is no file Contents/Info.plist.
  kNoInfoPlist,
  /// Patterns of --exclude that match no entry.
  kUnmatchedExclude,
};

/// All findings of one kind.
struct PackWarning {
  PackWarningKind kind = PackWarningKind::kLink;
  unsigned long count = 0;
  /// What following the links adds to the blob's content; 0 for the other kinds.
  unsigned long bytes = 0;
  /// The first three, relative to the bundle.
  std::vector<std::string> paths;
};

/// The findings of one bundle, by kind.
class PackWarnings {
 public:
  /// Counts one finding. `path` is empty where there is none.
  void Add(PackWarningKind kind, const std::string& path);

  /// Counts bytes that links have added.
  void AddLinkedBytes(unsigned long bytes);

  /// The kinds with findings, in the order of the enumeration.
  std::vector<PackWarning> Found() const;

 private:
  static constexpr size_t kKinds = static_cast<size_t>(PackWarningKind::kUnmatchedExclude) + 1;
  std::array<PackWarning, kKinds> warnings_;
};

/// A sentence for people, paths included.
std::string DescriptionOf(const PackWarning& warning);

/// The name of a kind for programs, which does not change between releases.
const char* NameOf(PackWarningKind kind);

}  // namespace kpim
