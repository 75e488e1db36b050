// Functions of files for tests, over POSIX. The names are those of std::filesystem, which the tests
// cannot use: macOS has it from 10.15 on only. A path is a std::string.
#pragma once

#include <dirent.h>
#include <fts.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

/// A failure of any of these fails the test, except where the comment says otherwise.
namespace fs {

/// Fails the test with errno's text unless `isDone`. Returns `isDone`.
inline bool Expect(bool isDone, const char* what, const std::string& path) {
  if (!isDone) {
    ADD_FAILURE() << what << ' ' << path << ": " << strerror(errno);
  }
  return isDone;
}

// ---- Questions. Links are followed, except by is_symlink and symlink_exists.

/// Whether the entry exists and has the type `type`, one of S_IFMT's; any type for 0.
inline bool HasType(const std::string& path, mode_t type, bool followsLinks = true) {
  struct stat status = {};
  const int result = followsLinks ? stat(path.c_str(), &status) : lstat(path.c_str(), &status);
  return result == 0 && (type == 0 || (status.st_mode & S_IFMT) == type);
}

inline bool exists(const std::string& path) { return HasType(path, 0); }
/// Also for a link that leads nowhere.
inline bool symlink_exists(const std::string& path) { return HasType(path, 0, false); }
inline bool is_directory(const std::string& path) { return HasType(path, S_IFDIR); }
inline bool is_regular_file(const std::string& path) { return HasType(path, S_IFREG); }
inline bool is_symlink(const std::string& path) { return HasType(path, S_IFLNK, false); }

/// In bytes.
inline off_t file_size(const std::string& path) {
  struct stat status = {};
  Expect(stat(path.c_str(), &status) == 0, "stat", path);
  return status.st_size;
}

/// The permission bits.
inline mode_t permissions(const std::string& path) {
  struct stat status = {};
  Expect(stat(path.c_str(), &status) == 0, "stat", path);
  return status.st_mode & 07777;
}

/// The path up to its last slash; empty without one.
inline std::string parent_path(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

/// The path without links.
inline std::string canonical(const std::string& path) {
  char* const real = realpath(path.c_str(), nullptr);
  if (!Expect(real != nullptr, "realpath", path)) {
    return "";
  }
  const std::string result = real;
  free(real);
  return result;
}

inline std::string temp_directory_path() {
  const char* const folder = getenv("TMPDIR");
  return folder != nullptr && *folder != '\0' ? folder : "/tmp";
}

inline std::string current_path() {
  char* const folder = getcwd(nullptr, 0);
  if (!Expect(folder != nullptr, "getcwd", "")) {
    return "";
  }
  const std::string result = folder;
  free(folder);
  return result;
}

/// The names of the entries in `folder`, sorted.
inline std::vector<std::string> list(const std::string& folder) {
  std::vector<std::string> names;
  DIR* const directory = opendir(folder.c_str());
  if (!Expect(directory != nullptr, "opendir", folder)) {
    return names;
  }
  while (const dirent* const entry = readdir(directory)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

/// The paths of all entries below `folder`, relative to it, sorted. Links are not followed.
inline std::vector<std::string> list_recursively(const std::string& folder) {
  std::vector<std::string> paths;
  for (const std::string& name : list(folder)) {
    paths.push_back(name);
    if (HasType(folder + '/' + name, S_IFDIR, false)) {
      for (const std::string& below : list_recursively(folder + '/' + name)) {
        paths.push_back(name + '/' + below);
      }
    }
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

/// For folders.
inline bool is_empty(const std::string& folder) { return list(folder).empty(); }

// ---- Changes

/// Returns false, without a failure, when the folder exists.
inline bool create_directory(const std::string& path) {
  if (mkdir(path.c_str(), 0777) == 0) {
    return true;
  }
  Expect(errno == EEXIST && is_directory(path), "mkdir", path);
  return false;
}

/// With the folders that lead to it.
inline bool create_directories(const std::string& path) {
  if (path.empty() || is_directory(path)) {
    return false;
  }
  create_directories(parent_path(path));
  return create_directory(path);
}

inline void create_symlink(const std::string& target, const std::string& link) {
  Expect(symlink(target.c_str(), link.c_str()) == 0, "symlink", link);
}

inline void create_hard_link(const std::string& file, const std::string& name) {
  Expect(link(file.c_str(), name.c_str()) == 0, "link", name);
}

inline void permissions(const std::string& path, mode_t mode) {
  Expect(chmod(path.c_str(), mode) == 0, "chmod", path);
}

inline void resize_file(const std::string& path, off_t size) {
  Expect(truncate(path.c_str(), size) == 0, "truncate", path);
}

inline void rename(const std::string& from, const std::string& to) {
  Expect(::rename(from.c_str(), to.c_str()) == 0, "rename", from);
}

inline void current_path(const std::string& folder) {
  Expect(chdir(folder.c_str()) == 0, "chdir", folder);
}

/// A file, a link or an empty folder. Returns false, without a failure, when it does not exist.
inline bool remove(const std::string& path) {
  if (::remove(path.c_str()) == 0) {
    return true;
  }
  Expect(errno == ENOENT || errno == ENOTDIR, "remove", path);
  return false;
}

/// Removes everything in it as well, also at paths longer than the system accepts. Links are not
/// followed. Does not fail the test: items that cannot be removed stay.
inline void remove_all(const std::string& path) {
  std::string root = path;
  char* const roots[] = {root.data(), nullptr};
  FTS* const walk = fts_open(roots, FTS_PHYSICAL, nullptr);
  if (walk == nullptr) {
    return;
  }
  while (const FTSENT* const entry = fts_read(walk)) {
    if (entry->fts_info != FTS_D) {
      (void)::remove(entry->fts_accpath);
    }
  }
  fts_close(walk);
}

}  // namespace fs
