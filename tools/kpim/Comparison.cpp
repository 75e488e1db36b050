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

class Comparison {
 public:
  explicit Comparison(const std::string& directory) : directory_(directory) {}

  std::vector<Difference> Run(const fileChunk* list) {
    Expect(list, "");
    CompareDirectory("");
    AddMissing();
    std::stable_sort(
        differences_.begin(), differences_.end(),
        [](const Difference& left, const Difference& right) { return left.path < right.path; });
    return std::move(differences_);
  }

 private:
  struct Expected {
    const fileChunk* node = nullptr;
    bool found = false;
  };

  /// Notes where the sink writes each node of `list`.
  void Expect(const fileChunk* list, const std::string& parent) {
    for (const fileChunk* node = list; node; node = node->next) {
      const std::string path = PathOf(*node, parent);
      if (path != parent) {
        ExpectAt(path, node);
      } else if (!node->isDirectory) {
        Add(path, DifferenceKind::kTypeMismatch);
      }
      Expect(node->children, path);
    }
  }

  void ExpectAt(const std::string& path, const fileChunk* node) {
    const auto [earlier, isNew] = expected_.try_emplace(path, Expected{node});
    if (isNew) {
      return;
    }
    if (earlier->second.node->isDirectory != node->isDirectory) {
      // Neither can replace the other.
      Add(path, DifferenceKind::kTypeMismatch);
    } else {
      earlier->second.node = node;
    }
  }

  void CompareDirectory(const std::string& path) {
    std::vector<std::string> names;
    if (const int error = ListDirectory(JoinPath(directory_, path), names)) {
      Add(path, DifferenceKind::kUnreadable, error);
      return;
    }
    listed_.push_back(path);
    for (const std::string& name : names) {
      const std::string child = JoinPath(path, name);
      const auto expected = expected_.find(child);
      if (expected != expected_.end()) {
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

  /// Adds what was expected in the directories that were listed, and not found.
  void AddMissing() {
    std::sort(listed_.begin(), listed_.end());
    for (const auto& [path, expected] : expected_) {
      const size_t slash = path.rfind('/');
      const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
      if (!expected.found && std::binary_search(listed_.begin(), listed_.end(), parent)) {
        Add(path, DifferenceKind::kMissing);
      }
    }
  }

  void Add(const std::string& path, DifferenceKind kind, int error = 0) {
    differences_.push_back({path.empty() ? kDirectoryItself : path, kind, error});
  }

  const std::string directory_;
  /// By path, relative to the directory.
  std::map<std::string, Expected> expected_;
  std::vector<std::string> listed_;
  std::vector<Difference> differences_;
  std::vector<unsigned char> buffer_ = std::vector<unsigned char>(kReadSize);
};

}  // namespace

std::vector<Difference> CompareWithDirectory(const fileChunk* list, const std::string& directory) {
  return Comparison(directory).Run(list);
}

}  // namespace kpim
