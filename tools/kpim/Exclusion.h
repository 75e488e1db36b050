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

  /// True when a pattern matches the entry at `path`, relative to the bundle, or its name alone,
  /// as fnmatch(3) with FNM_PATHNAME does.
  bool Excludes(const std::string& path);

  /// The patterns that have matched no entry so far.
  std::vector<std::string> Unmatched() const;

 private:
  struct Pattern {
    std::string glob;
    bool hasMatched = false;
  };
  std::vector<Pattern> patterns_;
};

}  // namespace kpim
