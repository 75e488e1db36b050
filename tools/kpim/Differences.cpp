#include "tools/kpim/Differences.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "tools/kpim/JSON.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

const char* KindName(DifferenceKind kind) {
  switch (kind) {
    case DifferenceKind::kMissing:
      return "missing";
    case DifferenceKind::kExtra:
      return "extra";
    case DifferenceKind::kDifferent:
      return "different";
    case DifferenceKind::kTypeMismatch:
      return "type mismatch";
    case DifferenceKind::kUnreadable:
      return "unreadable";
  }
  // Untested: the switch has all cases.
  return "";
}

}  // namespace

void PrintDifferences(const std::vector<Difference>& differences) {
  for (const Difference& difference : differences) {
    std::string line = std::string(KindName(difference.kind)) + ": " + Printable(difference.path);
    if (difference.kind == DifferenceKind::kUnreadable) {
      line += std::string(": ") + strerror(difference.error);
    }
    Print(line + "\n");
  }
}

std::string JSONDifferences(const std::vector<Difference>& differences) {
  std::vector<std::string> objects;
  for (const Difference& difference : differences) {
    JSONObject object;
    object.AddString("kind", KindName(difference.kind)).AddString("path", difference.path);
    if (difference.kind == DifferenceKind::kUnreadable) {
      object.AddString("text", strerror(difference.error));
    }
    objects.push_back(object.Text());
  }
  return JSONArray(objects);
}

std::string CountedDifferences(const std::vector<Difference>& differences,
                               const std::string& other) {
  return Counted(differences.size(), "difference", "differences") + " from " + other;
}

bool CheckDirectory(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    ReportSystemError(path, errno);
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    ReportSystemError(path, ENOTDIR);
    return false;
  }
  return true;
}

}  // namespace kpim
