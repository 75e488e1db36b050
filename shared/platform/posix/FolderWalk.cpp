#include "shared/platform/posix/FolderWalk.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstring>

#include "shared/platform/posix/Uninterrupted.h"

namespace {

// Returns 0 when `descriptor` is a folder and, unless `expected` is null, that folder; otherwise an
// errno value.
int CheckFolder(int descriptor, const FolderIdentity* expected, struct stat& status) {
  if (fstat(descriptor, &status) != 0) {
    return errno;
  }
  if (!S_ISDIR(status.st_mode)) {
    return ENOTDIR;
  }
  const bool isExpected =
      expected == nullptr || (expected->device == status.st_dev && expected->file == status.st_ino);
  return isExpected ? 0 : ESTALE;
}

int OpenFolder(const char* path, int flags) {
  return Uninterrupted([&] { return open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | flags); });
}

}  // namespace

FolderWalk::FolderWalk() : saved_(OpenFolder(".", 0)), here_(), owner_(0) {
  if (saved_ >= 0) {
    (void)fcntl(saved_, F_SETFD, FD_CLOEXEC);
  }
}

FolderWalk::~FolderWalk() {
  if (saved_ < 0) {
    (void)chdir("/");
    return;
  }
  // This fails only for a folder without search permission, and the process has been in it before.
  (void)fchdir(saved_);
  close(saved_);
}

bool FolderWalk::Start(const char* path) { return Go(path, 0, nullptr); }

bool FolderWalk::Enter(const char* name) {
  // A link with a slash after its name would be followed in spite of O_NOFOLLOW.
  if (strchr(name, '/') != nullptr || strcmp(name, "..") == 0) {
    errno = EINVAL;
    return false;
  }
  return Go(name, O_NOFOLLOW, nullptr);
}

const char* FolderWalk::EnterFolderOf(const char* path) {
  const char* const slash = strrchr(path, '/');
  if (slash == nullptr) {
    return path;
  }
  return EnterEach(path, slash) ? slash + 1 : nullptr;
}

// Enters each component of the path between `path` and `end`, which points to a slash.
bool FolderWalk::EnterEach(const char* path, const char* end) {
  const char* rest = path + strspn(path, "/");
  while (rest < end) {
    const size_t length = strcspn(rest, "/");
    char name[NAME_MAX + 1];
    if (length > NAME_MAX) {
      errno = ENAMETOOLONG;
      return false;
    }
    memcpy(name, rest, length);
    name[length] = '\0';
    if (!Enter(name)) {
      return false;
    }
    rest += length;
    rest += strspn(rest, "/");
  }
  return true;
}

bool FolderWalk::Return(const FolderIdentity& parent) { return Go("..", 0, &parent); }

bool FolderWalk::Go(const char* path, int flags, const FolderIdentity* expected) {
  const int descriptor = OpenFolder(path, flags);
  if (descriptor < 0) {
    return false;
  }
  struct stat status = {};
  int error = CheckFolder(descriptor, expected, status);
  if (error == 0 && Uninterrupted([&] { return fchdir(descriptor); }) != 0) {
    error = errno;
  }
  close(descriptor);
  if (error != 0) {
    errno = error;
    return false;
  }
  here_ = {status.st_dev, status.st_ino};
  owner_ = status.st_uid;
  return true;
}
