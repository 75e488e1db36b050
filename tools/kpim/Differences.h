// Printing differences.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Comparison.h"

namespace kpim {

/// Prints one line for each difference on standard output: "KIND: PATH", or "unreadable: PATH:
/// REASON".
void PrintDifferences(const std::vector<Difference>& differences);

/// Returns the differences as a JSON array of objects with "kind" and "path", and for unreadable
/// entries with "text", the reason.
std::string JSONDifferences(const std::vector<Difference>& differences);

/// Returns the number of differences from `other` as text: "2 differences from OTHER".
std::string CountedDifferences(const std::vector<Difference>& differences,
                               const std::string& other);

/// Returns true when a directory is at `path`; otherwise reports an error and returns false.
bool CheckDirectory(const std::string& path);

}  // namespace kpim
