// Leaving entries out of a bundle.
#pragma once

#include <string>
#include <vector>

namespace kpim {

/// Patterns of entries that are not packed.
class Exclusion {
 public:
  /// Each of `globs` is taken as NormalizedPath returns it.
  explicit Exclusion(const std::vector<std::string>& globs);

  /// Returns true when a pattern matches `path`, which is relative to the bundle, or its last
  /// component, by the rules of fnmatch(3) with FNM_PATHNAME.
  bool Excludes(const std::string& path);

  /// Returns the patterns that have matched no entry so far.
  std::vector<std::string> Unmatched() const;

 private:
  struct Pattern {
    std::string glob;
    bool hasMatched = false;
  };
  std::vector<Pattern> patterns_;
};

}  // namespace kpim
