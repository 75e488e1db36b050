#include "tools/kpim/Exclusion.h"

#include <fnmatch.h>

#include "tools/kpim/Disk.h"

namespace kpim {

Exclusion::Exclusion(const std::vector<std::string>& globs) {
  for (const std::string& glob : globs) {
    patterns_.push_back({NormalizedPath(glob)});
  }
}

bool Exclusion::Excludes(const std::string& path) {
  const std::string leaf = LeafOf(path);
  bool excluded = false;
  for (Pattern& pattern : patterns_) {
    if (fnmatch(pattern.glob.c_str(), path.c_str(), FNM_PATHNAME) == 0 ||
        fnmatch(pattern.glob.c_str(), leaf.c_str(), FNM_PATHNAME) == 0) {
      pattern.hasMatched = true;
      excluded = true;
    }
  }
  return excluded;
}

std::vector<std::string> Exclusion::Unmatched() const {
  std::vector<std::string> globs;
  for (const Pattern& pattern : patterns_) {
    if (!pattern.hasMatched) {
      globs.push_back(pattern.glob);
    }
  }
  return globs;
}

}  // namespace kpim
