#include "tools/kpim/InputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "tools/kpim/Disk.h"

namespace kpim {

InputFile::~InputFile() {
  if (descriptor_ >= 0) {
    (void)close(descriptor_);
  }
}

int InputFile::Open(const std::string& path) {
  descriptor_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  return descriptor_ < 0 || fstat(descriptor_, &status_) != 0 ? errno : 0;
}

int InputFile::OpenStandardInput() {
  descriptor_ = dup(STDIN_FILENO);
  return descriptor_ < 0 || fstat(descriptor_, &status_) != 0 ? errno : 0;
}

int InputFile::Read(unsigned char* buffer, size_t count, size_t& filled) {
  filled = 0;
  while (filled < count) {
    const ssize_t taken =
        read(descriptor_, buffer + filled, std::min(count - filled, kGreatestTransfer));
    if (taken < 0 && errno != EINTR) {
      return errno;
    }
    if (taken == 0) {
      return 0;
    }
    if (taken > 0) {
      filled += static_cast<size_t>(taken);
    }
  }
  return 0;
}

}  // namespace kpim
