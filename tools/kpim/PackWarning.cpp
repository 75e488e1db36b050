#include "tools/kpim/PackWarning.h"

#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr size_t kPathsShown = 3;

// Returns the number of findings as text, without their paths.
std::string Summary(const PackWarning& warning) {
  switch (warning.kind) {
    case PackWarningKind::kLink:
      return Counted(warning.count, "link", "links") + " followed, which adds " +
             Counted(warning.bytes, "byte", "bytes");
    case PackWarningKind::kExecuteBit:
      return "execute bits of " + Counted(warning.count, "file", "files") + " dropped";
    case PackWarningKind::kAppleDouble:
      return Counted(warning.count, "AppleDouble file", "AppleDouble files") + " packed";
    case PackWarningKind::kVersionControl:
      return Counted(warning.count, "version control entry", "version control entries") + " packed";
    case PackWarningKind::kNoInfoPlist:
      return "no Contents/Info.plist: is this the bundle's own folder?";
    case PackWarningKind::kUnmatchedExclude:
      return Counted(warning.count, "--exclude pattern", "--exclude patterns") + " without a match";
  }
  // Untested: the switch has all cases.
  return "";
}

}  // namespace

void PackWarnings::Add(PackWarningKind kind, const std::string& path) {
  PackWarning& warning = warnings_[static_cast<size_t>(kind)];
  warning.kind = kind;
  ++warning.count;
  if (!path.empty() && warning.paths.size() < kPathsShown) {
    warning.paths.push_back(path);
  }
}

void PackWarnings::AddLinkedBytes(unsigned long bytes) {
  warnings_[static_cast<size_t>(PackWarningKind::kLink)].bytes += bytes;
}

std::vector<PackWarning> PackWarnings::Found() const {
  std::vector<PackWarning> found;
  for (const PackWarning& warning : warnings_) {
    if (warning.count > 0) {
      found.push_back(warning);
    }
  }
  return found;
}

std::string DescriptionOf(const PackWarning& warning) {
  std::string text = Summary(warning);
  const char* separator = ": ";
  for (const std::string& path : warning.paths) {
    text += separator + path;
    separator = ", ";
  }
  const unsigned long more = warning.count - warning.paths.size();
  return !warning.paths.empty() && more > 0 ? text + " and " + std::to_string(more) + " more"
                                            : text;
}

const char* NameOf(PackWarningKind kind) {
  switch (kind) {
    case PackWarningKind::kLink:
      return "linksFollowed";
    case PackWarningKind::kExecuteBit:
      return "executeBitsDropped";
    case PackWarningKind::kAppleDouble:
      return "appleDoubleFiles";
    case PackWarningKind::kVersionControl:
      return "versionControl";
    case PackWarningKind::kNoInfoPlist:
      return "noInfoPlist";
    case PackWarningKind::kUnmatchedExclude:
      return "unmatchedExclude";
  }
  // Untested: the switch has all cases.
  return "";
}

}  // namespace kpim
