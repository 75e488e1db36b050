#include "tools/kpim/Tree.h"

#include <string.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "tools/kpim/Disk.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr char kTop[] = ".";

bool HasName(const fileChunk* node) { return node->name && node->name[0] != '\0'; }

// Returns whether the entry is a file with the name of a directory.
bool IsMisnamed(const fileChunk& node) {
  // Untested: no name. A decoded entry has one, which may be empty.
  const char* const name = node.name ? node.name : "";
  const size_t length = strlen(name);
  return !node.isDirectory && (length == 0 || name[length - 1] == '/');
}

// Collects the paths of a tree, whether each belongs to a directory, and the paths that are shared.
class PathNotes {
 public:
  void Add(const fileChunk* list, const std::string& parent) {
    for (const fileChunk* node = list; node; node = node->next) {
      const std::string path = PathOf(*node, parent);
      if (IsMisnamed(*node)) {
        clashing_.insert(path.empty() ? kTop : path);
      } else if (path != parent) {
        AddPath(path, node->isDirectory);
      }
      Add(node->children, path);
    }
  }

  SharedPaths Shared() const {
    SharedPaths shared;
    shared.clashing.assign(clashing_.begin(), clashing_.end());
    std::set_difference(repeated_.begin(), repeated_.end(), clashing_.begin(), clashing_.end(),
                        std::back_inserter(shared.repeated));
    return shared;
  }

 private:
  void AddPath(const std::string& path, bool isDirectory) {
    const auto [earlier, isNew] = isDirectory_.try_emplace(path, isDirectory);
    if (isNew || (isDirectory && earlier->second)) {
      return;
    }
    if (isDirectory == earlier->second) {
      repeated_.insert(path);
    } else {
      clashing_.insert(path);
    }
  }

  std::map<std::string, bool> isDirectory_;
  std::set<std::string> repeated_;
  std::set<std::string> clashing_;
};

// The entries of a tree that the user has chosen.
class PathChoice {
 public:
  explicit PathChoice(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
      isFound_.try_emplace(NormalizedPath(path), false);
    }
  }

  // Prunes the list of the directory `parent`. Returns whether anything is left of it.
  bool Prune(fileChunk*& list, const std::string& parent) {
    fileChunk** link = &list;
    while (fileChunk* const node = *link) {
      if (IsKept(*node, parent)) {
        link = &node->next;
        continue;
      }
      *link = node->next;
      delete node;
    }
    return list != nullptr;
  }

  bool IsFound(const std::string& path) const { return isFound_.at(NormalizedPath(path)); }

 private:
  bool IsKept(fileChunk& node, const std::string& parent) {
    const std::string path = PathOf(node, parent);
    const auto asked = isFound_.find(path.empty() ? kTop : path);
    if (asked != isFound_.end()) {
      asked->second = true;
      // Entries below this one may be chosen as well.
      NoteBelow(node.children, path);
      return true;
    }
    return Prune(node.children, path);
  }

  void NoteBelow(const fileChunk* list, const std::string& parent) {
    for (const fileChunk* node = list; node; node = node->next) {
      const std::string path = PathOf(*node, parent);
      const auto asked = isFound_.find(path);
      if (asked != isFound_.end()) {
        asked->second = true;
      }
      NoteBelow(node->children, path);
    }
  }

  std::map<std::string, bool> isFound_;
};

}  // namespace

TreeTotals CountTree(const fileChunk* list) {
  TreeTotals totals;
  for (const fileChunk* node = list; node; node = node->next) {
    const TreeTotals below = CountTree(node->children);
    totals.entries += below.entries + (HasName(node) ? 1 : 0);
    totals.bytes += below.bytes + (node->isDirectory ? 0 : node->size);
  }
  return totals;
}

std::string Described(const TreeTotals& totals) {
  return Counted(totals.entries, "entry", "entries") + ", " +
         Counted(totals.bytes, "byte", "bytes");
}

void SortByName(fileChunk*& list) {
  std::vector<fileChunk*> nodes;
  for (fileChunk* node = list; node; node = node->next) {
    nodes.push_back(node);
    SortByName(node->children);
  }
  // strcmp compares as unsigned char, whatever the locale.
  std::sort(nodes.begin(), nodes.end(), [](const fileChunk* left, const fileChunk* right) {
    return strcmp(left->name, right->name) < 0;
  });
  fileChunk** link = &list;
  for (fileChunk* node : nodes) {
    *link = node;
    link = &node->next;
  }
  *link = nullptr;
}

std::string PathOf(const fileChunk& node, const std::string& parent) {
  // Untested: no name.
  const std::string leaf = node.name ? WithoutTrailingSlashes(node.name) : "";
  return leaf.empty() || leaf == "/" ? parent : JoinPath(parent, leaf);
}

SharedPaths FindSharedPaths(const fileChunk* list) {
  PathNotes notes;
  notes.Add(list, "");
  return notes.Shared();
}

std::vector<std::string> KeepPaths(fileChunk*& list, const std::vector<std::string>& paths) {
  PathChoice choice(paths);
  (void)choice.Prune(list, "");
  std::vector<std::string> missing;
  std::copy_if(paths.begin(), paths.end(), std::back_inserter(missing),
               [&](const std::string& path) { return !choice.IsFound(path); });
  return missing;
}

bool IsSolidRoot(const fileChunk* list) {
  return list && !list->next && list->isDirectory && !HasName(list);
}

void MaskNames(fileChunk* list) {
  for (fileChunk* node = list; node; node = node->next) {
    MaskUnprintable(node->name);
    MaskNames(node->children);
  }
}

}  // namespace kpim
