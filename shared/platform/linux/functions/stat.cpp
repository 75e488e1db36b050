// lchflags(2) of macOS over the inode flags of Linux's file systems.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr uint32_t kImmutable = UF_IMMUTABLE | SF_IMMUTABLE;
constexpr uint32_t kAppend = UF_APPEND | SF_APPEND;
constexpr unsigned int kKnownToMacOS = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL;

bool HasFlags(mode_t mode) { return S_ISREG(mode) || S_ISDIR(mode); }

unsigned int LinuxFlags(uint32_t flags) {
  unsigned int result = 0;
  result |= (flags & kImmutable) != 0 ? FS_IMMUTABLE_FL : 0u;
  result |= (flags & kAppend) != 0 ? FS_APPEND_FL : 0u;
  result |= (flags & UF_NODUMP) != 0 ? FS_NODUMP_FL : 0u;
  return result;
}

// 0 or an errno value.
int SetFlags(int descriptor, uint32_t flags) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) {
    return errno;
  }
  // For a device, the request number means whatever its driver defines.
  if (!HasFlags(status.st_mode)) {
    return EOPNOTSUPP;
  }
  unsigned int current = 0;
  if (ioctl(descriptor, FS_IOC_GETFLAGS, &current) == 0) {
    current = (current & ~kKnownToMacOS) | LinuxFlags(flags);
    if (ioctl(descriptor, FS_IOC_SETFLAGS, &current) == 0) {
      return 0;
    }
  }
  return errno == ENOTTY ? EOPNOTSUPP : errno;
}

}  // namespace

int lchflags(const char* path, uint32_t flags) {
  if ((flags & ~(kImmutable | kAppend | UF_NODUMP)) != 0) {
    errno = EOPNOTSUPP;
    return -1;
  }
  // Checked before the item is opened, because opening a device may have effects.
  struct stat status = {};
  if (lstat(path, &status) != 0) {
    return -1;
  }
  if (!HasFlags(status.st_mode)) {
    errno = EOPNOTSUPP;
    return -1;
  }
  const int descriptor = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) {
    return -1;
  }
  const int error = SetFlags(descriptor, flags);
  close(descriptor);
  errno = error;
  return error == 0 ? 0 : -1;
}
