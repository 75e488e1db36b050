#include "shared/platform/posix/RegularFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "shared/platform/posix/Uninterrupted.h"

namespace {

// Returns 0 when the file may be used, otherwise an errno value.
int Check(int descriptor, FileNames names, struct stat& status) {
  if (fstat(descriptor, &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return ENOTSUP;
  }
  return names == FileNames::kOne && status.st_nlink != 1 ? EMLINK : 0;
}

int Prepare(int descriptor, int flags, FileNames names, struct stat& status) {
  const int refusal = Check(descriptor, names, status);
  if (refusal != 0) {
    return refusal;
  }
  (void)fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  const bool isToBeEmptied = (flags & O_TRUNC) != 0 && status.st_size != 0;
  if (isToBeEmptied && Uninterrupted([&] { return ftruncate(descriptor, 0); }) != 0) {
    // Untested: it takes a file that can be opened for writing and not be emptied.
    return errno;
  }
  return 0;
}

}  // namespace

int OpenRegularFile(const char* path, int flags, mode_t mode, FileNames names,
                    struct stat* status) {
  // Without O_NONBLOCK, opening a FIFO would wait for its other end; without O_NOCTTY, a terminal
  // could become the controlling terminal of the process.
  const int openFlags = (flags & ~O_TRUNC) | O_NONBLOCK | O_NOCTTY;
  const int descriptor = Uninterrupted([&] { return open(path, openFlags, mode); });
  if (descriptor < 0) {
    return -1;
  }
  struct stat ownStatus = {};
  const int error = Prepare(descriptor, flags, names, status != nullptr ? *status : ownStatus);
  if (error != 0) {
    close(descriptor);
    errno = error;
    return -1;
  }
  return descriptor;
}

bool IsRegularFile(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}
