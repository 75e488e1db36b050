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
  /// A file on one side and a directory or something else on the other, or both at one path in the
  /// tree.
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

/// Compares the sibling list `list` with the contents of `directory`: names, kinds and file
/// contents, links followed. The list counts as it would be written. Names that are never packed
/// are not reported as extra. If one side lacks a directory, only the directory itself is reported.
/// Returns the differences ordered by path.
std::vector<Difference> CompareWithDirectory(const fileChunk* list, const std::string& directory);

/// The same with the sibling list `other` in place of a directory. Every name counts.
std::vector<Difference> CompareWithTree(const fileChunk* list, const fileChunk* other);

}  // namespace kpim
