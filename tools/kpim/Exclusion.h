// Leaving entries out of a bundle.
#pragma once

#include <string>
#include <vector>

namespace kpim {

/// Patterns of entries that are not packed.
class Exclusion {
 public:
  /// Makes a pattern of each of `globs`, as NormalizedPath returns it.
  explicit Exclusion(const std::vector<std::string>& globs);

  /// Returns whether a pattern matches `path`, which is relative to the bundle, or the last
  /// component of `path`, by the rules of fnmatch(3) with FNM_PATHNAME. Notes the patterns that
  /// match.
  bool Excludes(const std::string& path);

  /// Returns the patterns that have not matched in any call of Excludes.
  std::vector<std::string> Unmatched() const;

 private:
  struct Pattern {
    std::string glob;
    bool hasMatched = false;
  };
  std::vector<Pattern> patterns_;
};

}  // namespace kpim
