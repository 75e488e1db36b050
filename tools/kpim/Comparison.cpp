#include "tools/kpim/Comparison.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/Disk.h"
#include "tools/kpim/InputFile.h"

namespace kpim {

namespace {

constexpr size_t kReadSize = 1 << 16;
constexpr char kDirectoryItself[] = ".";

using Differences = std::vector<Difference>;

void Add(Differences& differences, const std::string& path, DifferenceKind kind, int error = 0) {
  differences.push_back({path.empty() ? kDirectoryItself : path, kind, error});
}

Differences Sorted(Differences differences) {
  std::stable_sort(
      differences.begin(), differences.end(),
      [](const Difference& left, const Difference& right) { return left.path < right.path; });
  return differences;
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

// The entries that the sink writes, by path relative to the directory. Of several entries with one
// path the one that counts is kept.
class Expectation {
 public:
  struct Entry {
    const fileChunk* node = nullptr;
    bool found = false;
  };

  // Entries that the sink cannot write are added to `differences`.
  Expectation(const fileChunk* list, Differences& differences) : differences_(differences) {
    Expect(list, "");
  }

  std::map<std::string, Entry>& entries() { return entries_; }

  // Returns the entry at `path`; null when there is none.
  const fileChunk* NodeAt(const std::string& path) const {
    const auto entry = entries_.find(path);
    return entry != entries_.end() ? entry->second.node : nullptr;
  }

  bool HasDirectory(const std::string& path) const {
    const fileChunk* const node = NodeAt(path);
    return path.empty() || (node && node->isDirectory);
  }

 private:
  // Adds each node of `list` at the path where the sink writes it.
  void Expect(const fileChunk* list, const std::string& parent) {
    for (const fileChunk* node = list; node; node = node->next) {
      const std::string path = PathOf(*node, parent);
      if (path != parent) {
        ExpectAt(path, node);
      } else if (!node->isDirectory) {
        Add(differences_, path, DifferenceKind::kTypeMismatch);
      }
      Expect(node->children, path);
    }
  }

  void ExpectAt(const std::string& path, const fileChunk* node) {
    const auto [earlier, isNew] = entries_.try_emplace(path, Entry{node});
    if (isNew) {
      return;
    }
    if (earlier->second.node->isDirectory != node->isDirectory) {
      // Neither can replace the other.
      Add(differences_, path, DifferenceKind::kTypeMismatch);
    } else {
      earlier->second.node = node;
    }
  }

  Differences& differences_;
  std::map<std::string, Entry> entries_;
};

class DirectoryComparison {
 public:
  DirectoryComparison(const fileChunk* list, const std::string& directory)
      : directory_(directory), expectation_(list, differences_) {}

  Differences Run() {
    CompareDirectory("");
    AddMissing();
    return Sorted(std::move(differences_));
  }

 private:
  void CompareDirectory(const std::string& path) {
    std::vector<std::string> names;
    if (const int error = ListDirectory(JoinPath(directory_, path), names)) {
      Add(path, DifferenceKind::kUnreadable, error);
      return;
    }
    listed_.push_back(path);
    for (const std::string& name : names) {
      const std::string child = JoinPath(path, name);
      const auto expected = expectation_.entries().find(child);
      if (expected != expectation_.entries().end()) {
        expected->second.found = true;
        CompareEntry(child, expected->second.node);
      } else if (PlatformFilenameAllowed(name.c_str())) {
        Add(child, DifferenceKind::kExtra);
      }
    }
  }

  void CompareEntry(const std::string& path, const fileChunk* node) {
    struct stat status = {};
    if (stat(JoinPath(directory_, path).c_str(), &status) != 0) {
      Add(path, DifferenceKind::kUnreadable, errno);
    } else if (node->isDirectory && S_ISDIR(status.st_mode)) {
      CompareDirectory(path);
    } else if (!node->isDirectory && S_ISREG(status.st_mode)) {
      CompareContents(path, node);
    } else {
      Add(path, DifferenceKind::kTypeMismatch);
    }
  }

  void CompareContents(const std::string& path, const fileChunk* node) {
    InputFile file;
    if (const int error = file.Open(JoinPath(directory_, path))) {
      Add(path, DifferenceKind::kUnreadable, error);
      return;
    }
    if (!S_ISREG(file.status().st_mode)) {
      Add(path, DifferenceKind::kTypeMismatch);
      return;
    }
    unsigned long offset = 0;
    size_t count = 0;
    do {
      if (const int error = file.Read(buffer_.data(), buffer_.size(), count)) {
        Add(path, DifferenceKind::kUnreadable, error);
        return;
      }
      if (count > node->size - offset || memcmp(buffer_.data(), node->data + offset, count) != 0) {
        Add(path, DifferenceKind::kDifferent);
        return;
      }
      offset += count;
    } while (count == buffer_.size());
    if (offset != node->size) {
      Add(path, DifferenceKind::kDifferent);
    }
  }

  // Adds the entries that were expected in the listed directories, and were not found.
  void AddMissing() {
    std::sort(listed_.begin(), listed_.end());
    for (const auto& [path, expected] : expectation_.entries()) {
      if (!expected.found && std::binary_search(listed_.begin(), listed_.end(), ParentOf(path))) {
        Add(path, DifferenceKind::kMissing);
      }
    }
  }

  void Add(const std::string& path, DifferenceKind kind, int error = 0) {
    kpim::Add(differences_, path, kind, error);
  }

  const std::string directory_;
  Differences differences_;
  Expectation expectation_;
  std::vector<std::string> listed_;
  std::vector<unsigned char> buffer_ = std::vector<unsigned char>(kReadSize);
};

bool HaveSameContents(const fileChunk& left, const fileChunk& right) {
  return left.size == right.size &&
         (left.size == 0 || memcmp(left.data, right.data, left.size) == 0);
}

}  // namespace

std::vector<Difference> CompareWithDirectory(const fileChunk* list, const std::string& directory) {
  return DirectoryComparison(list, directory).Run();
}

std::vector<Difference> CompareWithTree(const fileChunk* list, const fileChunk* other) {
  Differences differences;
  Expectation left(list, differences);
  Expectation right(other, differences);
  for (const auto& [path, entry] : left.entries()) {
    const fileChunk* const counterpart = right.NodeAt(path);
    if (!counterpart) {
      // If one side lacks a directory, only the directory itself is reported.
      if (right.HasDirectory(ParentOf(path))) {
        Add(differences, path, DifferenceKind::kMissing);
      }
    } else if (entry.node->isDirectory != counterpart->isDirectory) {
      Add(differences, path, DifferenceKind::kTypeMismatch);
    } else if (!counterpart->isDirectory && !HaveSameContents(*entry.node, *counterpart)) {
      Add(differences, path, DifferenceKind::kDifferent);
    }
  }
  for (const auto& [path, entry] : right.entries()) {
    if (!left.NodeAt(path) && left.HasDirectory(ParentOf(path))) {
      Add(differences, path, DifferenceKind::kExtra);
    }
  }
  return Sorted(std::move(differences));
}

}  // namespace kpim
