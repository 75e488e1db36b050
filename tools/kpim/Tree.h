// The payload tree as kpim handles it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

namespace kpim {

/// Frees a whole sibling list.
struct ChunkListDeleter {
  void operator()(fileChunk* head) const { DeleteFileChunks(head); }
};

/// Owner of a sibling list and everything below it.
using ChunkList = std::unique_ptr<fileChunk, ChunkListDeleter>;

/// How much a tree holds.
struct TreeTotals {
  /// Files and directories, the nameless root not among them.
  unsigned long entries = 0;
  /// Sum of the files' sizes.
  unsigned long bytes = 0;
  bool operator==(const TreeTotals& other) const {
    return entries == other.entries && bytes == other.bytes;
  }
};

/// Counts the entries of a sibling list and everything below it.
TreeTotals CountTree(const fileChunk* list);

/// "8 entries, 3715924 bytes".
std::string Described(const TreeTotals& totals);

/// Orders a sibling list, and the list of every directory below, by name, bytewise.
void SortByName(fileChunk*& list);

/// The path of an entry in the folder `parent`, which has `parent` itself when it is nameless.
std::string PathOf(const fileChunk& node, const std::string& parent);

/// Paths that several entries of a tree share, each once and sorted; the top is ".". Directories
/// of one path merge and are not among them.
struct SharedPaths {
  /// Of several files. The last one counts.
  std::vector<std::string> repeated;
  /// Of a file and a directory, or of a file whose name is a directory's: empty, or ending in a
  /// slash. The entry that comes later cannot be written.
  std::vector<std::string> clashing;
};

/// Finds them in `list` and everything below it.
SharedPaths FindSharedPaths(const fileChunk* list);

/// Frees every entry of `list` and below that is not one of `paths`, below one, or a directory
/// around one. Slashes at the end of a path and "./" before it do not count. Returns those paths
/// that no entry has, as given.
std::vector<std::string> KeepPaths(fileChunk*& list, const std::vector<std::string>& paths);

/// What a blob is whose list is no solid root.
constexpr char kNotASolidRoot[] =
    "not an installer's blob: it does not consist of exactly one nameless directory";

/// True when the list is what an installer's blob decodes to: one nameless directory.
bool IsSolidRoot(const fileChunk* list);

/// Makes all names safe to print on a terminal, bytes that are not becoming '?'.
void MaskNames(fileChunk* list);

}  // namespace kpim
