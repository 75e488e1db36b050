#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/BlobLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

bool IsAt(const char* path, const struct stat& file) {
  struct stat status = {};
  return stat(path, &status) == 0 && status.st_dev == file.st_dev && status.st_ino == file.st_ino;
}

}  // namespace

BlobLock::~BlobLock() { Close(); }

BlobLockResult BlobLock::Take(const char* path) {
  BlobLockResult result = Try(path);
  for (unsigned int attempt = 1; attempt < kAttempts && error_ == EWOULDBLOCK; ++attempt) {
    (void)usleep(kPause);
    result = Try(path);
  }
  return result;
}

// Error() is EWOULDBLOCK when another attempt may succeed.
BlobLockResult BlobLock::Try(const char* path) {
  Close();
  struct stat file = {};
  descriptor_ = OpenRegularFile(path, O_RDONLY, 0, FileNames::kAny, &file);
  if (descriptor_ < 0) {
    error_ = errno;
    return error_ == ENOENT || error_ == ENOTDIR ? BlobLockResult::kMissing
                                                 : BlobLockResult::kUnreadable;
  }
  if (Uninterrupted([&] { return flock(descriptor_, LOCK_EX | LOCK_NB); }) != 0) {
    error_ = errno;
    return BlobLockResult::kNotLocked;
  }
  // The process that held the lock may have removed the blob, and there may be another one at its
  // path now.
  if (!IsAt(path, file)) {
    error_ = EWOULDBLOCK;
    return BlobLockResult::kNotLocked;
  }
  error_ = 0;
  return BlobLockResult::kLocked;
}

void BlobLock::Close() {
  if (descriptor_ >= 0) {
    close(descriptor_);
    descriptor_ = -1;
  }
}
