#include "tools/kpim/InputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "shared/platform/posix/Transfer.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace kpim {

InputFile::~InputFile() {
  if (descriptor_ >= 0) {
    (void)close(descriptor_);
  }
}

int InputFile::Open(const std::string& path) {
  descriptor_ = Uninterrupted([&] { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY); });
  return descriptor_ < 0 || fstat(descriptor_, &status_) != 0 ? errno : 0;
}

int InputFile::OpenStandardInput() {
  descriptor_ = dup(STDIN_FILENO);
  return descriptor_ < 0 || fstat(descriptor_, &status_) != 0 ? errno : 0;
}

int InputFile::Read(unsigned char* buffer, size_t count, size_t& filled) {
  return ReadBytes(descriptor_, buffer, count, filled);
}

}  // namespace kpim
