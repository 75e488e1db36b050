// Comparing a payload tree with a directory on disk or with another tree.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Tree.h"

namespace kpim {

/// How an entry differs.
enum class DifferenceKind {
  /// In the tree only.
  kMissing,
  /// On disk, or in the other tree, only.
  kExtra,
  /// A file with other contents.
  kDifferent,
  /// A file on one side and something else on the other, or both in the tree.
  kTypeMismatch,
  /// Cannot be read from disk.
  kUnreadable,
};

/// One entry that differs.
struct Difference {
  /// Relative to the directory; "." for the directory itself.
  std::string path;
  DifferenceKind kind;
  /// The errno value of kUnreadable.
  int error = 0;
};

/// Compares what writing the sibling list `list` below `directory` would give with what is
/// there: names, kinds and contents, links followed. Names that are never packed are not
/// missed, and nothing is told about the inside of a directory that one side lacks. Returns
/// the differences ordered by path.
std::vector<Difference> CompareWithDirectory(const fileChunk* list, const std::string& directory);

/// The same for what writing the sibling list `other` would give. Every name counts.
std::vector<Difference> CompareWithTree(const fileChunk* list, const fileChunk* other);

}  // namespace kpim
