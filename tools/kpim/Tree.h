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

/// Number of entries and bytes in a tree.
struct TreeTotals {
  /// Files and directories that have a name.
  unsigned long entries = 0;
  /// Sum of the files' sizes.
  unsigned long bytes = 0;
  bool operator==(const TreeTotals& other) const {
    return entries == other.entries && bytes == other.bytes;
  }
};

/// Counts the entries of a sibling list and everything below it.
TreeTotals CountTree(const fileChunk* list);

/// Returns text such as "8 entries, 3715924 bytes".
std::string Described(const TreeTotals& totals);

/// Sorts a sibling list, and the list of every directory below, by name, bytewise. No name may be
/// absent.
void SortByName(fileChunk*& list);

/// Returns the path of an entry in the folder `parent`; `parent` itself for a nameless entry.
std::string PathOf(const fileChunk& node, const std::string& parent);

/// Paths that several entries of a tree have, each once and sorted; the top is ".". Several
/// directories with one path are merged and do not count.
struct SharedPaths {
  /// Paths of several files, of which the last one counts.
  std::vector<std::string> repeated;
  /// Paths of a file and a directory, the later of which cannot be written, and of files that have
  /// the name of a directory: an empty one, or one that ends in a slash.
  std::vector<std::string> clashing;
};

/// Returns the shared paths in `list` and everything below it.
SharedPaths FindSharedPaths(const fileChunk* list);

/// Frees every entry in `list` and below, except the entries at `paths`, everything below them and
/// the directories around them. Slashes at the end of a path and "./" at its beginning are ignored.
/// Returns the paths that do not exist, as they were given.
std::vector<std::string> KeepPaths(fileChunk*& list, const std::vector<std::string>& paths);

/// The message about a blob that is not a solid root.
constexpr char kNotASolidRoot[] =
    "not an installer's blob: it does not consist of exactly one nameless directory";

/// Returns true when the list is a solid root, as in an installer's blob: exactly one nameless
/// directory.
bool IsSolidRoot(const fileChunk* list);

/// Makes all names safe to print on a terminal, with MaskUnprintable(). No name may be absent.
void MaskNames(fileChunk* list);

}  // namespace kpim
