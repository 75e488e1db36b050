// Paths and directories.
#pragma once

#include <stddef.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace kpim {

/// Identifies a file or directory, whatever its path is. The default value identifies none.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity& other) const {
    return device == other.device && inode == other.inode;
  }
};

/// Returns the identity in a result of stat(2).
FileIdentity IdentityOf(const struct stat& status);

/// Stores the names in the directory at `path` in `names`, without "." and "..", sorted bytewise.
/// Returns 0 or an errno value.
int ListDirectory(const std::string& path, std::vector<std::string>& names);

/// Returns `parent` and `leaf` with one '/' between them. If one is empty, returns the other.
std::string JoinPath(const std::string& parent, const std::string& leaf);

/// Returns `path` without the slashes at its end; "/" stays.
std::string WithoutTrailingSlashes(std::string path);

/// Returns `path` without "./" at its beginning and without slashes at its end. Returns "." when
/// nothing else remains; an empty path and "/" stay.
std::string NormalizedPath(const std::string& path);

/// Returns the directory part of `path`: "." when it has none.
std::string DirectoryOf(const std::string& path);

/// Returns the text after the last '/' of `path`; all of `path` if it has none.
std::string LeafOf(const std::string& path);

}  // namespace kpim
