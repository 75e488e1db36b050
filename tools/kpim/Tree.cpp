#include "tools/kpim/Tree.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <set>

#include "tools/kpim/Disk.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

bool HasName(const fileChunk* node) { return node->name && node->name[0] != '\0'; }

/// Notes the paths of a list, with whether a folder has them, and those that stand twice.
class PathNotes {
 public:
  void Add(const fileChunk* list, const std::string& parent) {
    for (const fileChunk* node = list; node; node = node->next) {
      const std::string path = PathOf(*node, parent);
      if (path != parent) {
        const auto [earlier, isNew] = isDirectory_.try_emplace(path, node->isDirectory);
        if (!isNew && !(node->isDirectory && earlier->second)) {
          repeated_.insert(path);
        }
      }
      Add(node->children, path);
    }
  }

  std::vector<std::string> Repeated() const { return {repeated_.begin(), repeated_.end()}; }

 private:
  std::map<std::string, bool> isDirectory_;
  std::set<std::string> repeated_;
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
  const std::string leaf = node.name ? WithoutTrailingSlashes(node.name) : "";
  return leaf.empty() || leaf == "/" ? parent : JoinPath(parent, leaf);
}

std::vector<std::string> RepeatedPaths(const fileChunk* list) {
  PathNotes notes;
  notes.Add(list, "");
  return notes.Repeated();
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
