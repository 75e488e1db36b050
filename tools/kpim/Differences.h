// Differences as kpim prints them.
#pragma once

#include <string>
#include <vector>

#include "tools/kpim/Comparison.h"

namespace kpim {

/// Prints one line for each difference on standard output: "KIND: PATH", and for what cannot be
/// read the reason.
void PrintDifferences(const std::vector<Difference>& differences);

/// The differences as a JSON array of objects with "kind" and "path", and with "text", the reason,
/// for what cannot be read.
std::string JSONDifferences(const std::vector<Difference>& differences);

/// "1 difference from OTHER".
std::string CountedDifferences(const std::vector<Difference>& differences,
                               const std::string& other);

/// False, and reported, unless a directory is at `path`.
bool CheckDirectory(const std::string& path);

}  // namespace kpim
