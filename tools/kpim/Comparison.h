// Comparing a payload tree with a directory on disk or with another tree.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Tree.h"

namespace kpim {

/// How an entry differs.
enum class DifferenceKind {
  /// Only in the tree.
  kMissing,
  /// Only on disk, or only in the other tree.
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
/// contents, links followed. The list is taken as it would be written: the last of several files
/// with one path counts. Names that are never packed are not reported as extra. If one side lacks a
/// directory, only the directory itself is reported.
/// Returns the differences ordered by path.
std::vector<Difference> CompareWithDirectory(const fileChunk* list, const std::string& directory);

/// The same with the sibling list `other` in place of a directory. Here names that are never packed
/// are reported too.
std::vector<Difference> CompareWithTree(const fileChunk* list, const fileChunk* other);

}  // namespace kpim
