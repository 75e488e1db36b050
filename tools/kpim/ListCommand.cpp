// kpim list: prints the tree of a blob.
#include <unistd.h>

#include <string>

#include "tools/kpim/BlobFile.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/JSON.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Text.h"
#include "tools/kpim/Tree.h"

namespace kpim {

namespace {

void PrintJSONList(const fileChunk* list, const std::string& indentation);

void PrintJSONEntry(const fileChunk* node, const std::string& indentation) {
  const std::string name = node->name;
  Print(indentation + "{\"name\": " + JSONString(name));
  if (!IsUTF8(name)) {
    Print(", \"nameBytes\": \"" + Hexadecimal(name) + "\"");
  }
  if (!node->isDirectory) {
    Print(", \"type\": \"file\", \"size\": " + std::to_string(node->size) + "}");
    return;
  }
  Print(", \"type\": \"directory\", \"entries\": ");
  PrintJSONList(node->children, indentation);
  Print("}");
}

// Prints a sibling list as an array whose closing bracket is indented by `indentation`.
void PrintJSONList(const fileChunk* list, const std::string& indentation) {
  if (!list) {
    Print("[]");
    return;
  }
  Print("[\n");
  for (const fileChunk* node = list; node; node = node->next) {
    PrintJSONEntry(node, indentation + "  ");
    Print(node->next ? ",\n" : "\n");
  }
  Print(indentation + "]");
}

}  // namespace

int List(const ListOptions& options) {
  ChunkList tree;
  if (!ReadBlob(options.blob, tree)) {
    return kExitFailed;
  }
  const int status = CheckLayout(options.blob, tree.get()) ? kExitOK : kExitFailed;
  if (options.json) {
    PrintJSONList(tree.get(), "");
    Print("\n");
    return status;
  }
  // The author of the blob has chosen the names: they must not control the terminal.
  if (isatty(STDOUT_FILENO) != 0) {
    MaskNames(tree.get());
  }
  Verify(tree.get(), 0);
  return status;
}

}  // namespace kpim
