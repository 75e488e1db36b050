#include "shared/platform/posix/Transfer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "shared/platform/posix/Uninterrupted.h"

namespace {

// The most bytes that one call is asked for: macOS refuses more than INT_MAX.
constexpr size_t kGreatestTransfer = 1UL << 30;

}  // namespace

int ReadBytes(int descriptor, unsigned char* bytes, size_t count, size_t& filled) {
  for (filled = 0; filled != count;) {
    const ssize_t taken = Uninterrupted([&] {
      return read(descriptor, bytes + filled, std::min(count - filled, kGreatestTransfer));
    });
    if (taken <= 0) {
      return taken < 0 ? errno : 0;
    }
    filled += static_cast<size_t>(taken);
  }
  return 0;
}

int WriteBytes(int descriptor, const unsigned char* bytes, size_t count) {
  while (count != 0) {
    const ssize_t written =
        Uninterrupted([&] { return write(descriptor, bytes, std::min(count, kGreatestTransfer)); });
    if (written <= 0) {
      return written < 0 ? errno : EIO;
    }
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return 0;
}

int CloseWritten(int descriptor) { return close(descriptor) != 0 && errno != EINTR ? errno : 0; }
