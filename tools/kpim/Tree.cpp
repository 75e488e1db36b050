#include "tools/kpim/Tree.h"

#include <string.h>

#include <algorithm>
#include <vector>

#include "tools/kpim/Text.h"

namespace kpim {

namespace {

bool HasName(const fileChunk* node) { return node->name && node->name[0] != '\0'; }

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
