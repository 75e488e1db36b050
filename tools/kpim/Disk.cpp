#include "tools/kpim/Disk.h"

#include <dirent.h>
#include <errno.h>

#include <algorithm>
#include <memory>

#include "shared/platform/posix/Uninterrupted.h"

namespace kpim {

namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const { (void)closedir(directory); }
};

}  // namespace

FileIdentity IdentityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

int ListDirectory(const std::string& path, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, DirectoryCloser> directory(
      Uninterrupted([&] { return opendir(path.c_str()); }));
  if (!directory) {
    return errno;
  }
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
    errno = 0;
  }
  if (errno != 0) {
    return errno;
  }
  std::sort(names.begin(), names.end());
  return 0;
}

std::string JoinPath(const std::string& parent, const std::string& leaf) {
  if (parent.empty() || leaf.empty()) {
    return parent + leaf;
  }
  return parent.back() == '/' ? parent + leaf : parent + "/" + leaf;
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

std::string NormalizedPath(const std::string& path) {
  size_t start = 0;
  while (path.compare(start, 2, "./") == 0) {
    start = path.find_first_not_of('/', start + 1);
    if (start == std::string::npos) {
      return ".";
    }
  }
  return WithoutTrailingSlashes(path.substr(start));
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string LeafOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace kpim
