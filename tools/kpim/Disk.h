// Small questions to the file system.
#pragma once

#include <stddef.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace kpim {

/// The most bytes that one read(2) or write(2) is asked for: macOS refuses more than INT_MAX.
constexpr size_t kGreatestTransfer = 1 << 30;

/// A file or directory, whatever path leads to it; as it is made, none.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity& other) const {
    return device == other.device && inode == other.inode;
  }
};

/// The identity that stat(2) reported.
FileIdentity IdentityOf(const struct stat& status);

/// Reads the names in the directory at `path`, "." and ".." left out, sorted bytewise.
/// Returns 0 or an errno value.
int ListDirectory(const std::string& path, std::vector<std::string>& names);

/// `parent` and `leaf` with one '/' between them; the other one when one is empty.
std::string JoinPath(const std::string& parent, const std::string& leaf);

/// `path` without the slashes at its end; "/" stays.
std::string WithoutTrailingSlashes(std::string path);

/// `path` without "./" before it and slashes at its end; "." when nothing else is left of it.
std::string NormalizedPath(const std::string& path);

/// The directory part of `path`: "." when it has none.
std::string DirectoryOf(const std::string& path);

/// What follows the last '/' of `path`.
std::string LeafOf(const std::string& path);

}  // namespace kpim
