// Paths and leaves of any text in arrays of any size: the first two bytes are the capacity, then
// come the path and, after a zero byte, the leaf.
#include <string.h>

#include <memory>
#include <string>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

constexpr size_t kCapacityBytes = 2;
constexpr size_t kLargestCapacity = 1024;

/// If the path ends and the leaf begins with a slash, one of them is dropped. Then the separator
/// and the leaf are appended, each if it fits.
std::string Expect(std::string path, std::string leaf, size_t capacity) {
  const bool endsInSlash = !path.empty() && path.back() == '/';
  const bool beginsWithSlash = !leaf.empty() && leaf.front() == '/';
  if (endsInSlash && beginsWithSlash) {
    leaf.erase(0, 1);
  }
  if (!path.empty() && !leaf.empty() && !endsInSlash && !beginsWithSlash &&
      path.size() + 1 < capacity) {
    path += '/';
  }
  return path.size() + leaf.size() < capacity ? path + leaf : path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kCapacityBytes) {
    return 0;
  }
  const size_t capacity = 1 + ((static_cast<size_t>(data[0]) << 8) + data[1]) % kLargestCapacity;
  const std::string text(data + kCapacityBytes, data + size);
  const size_t end = std::min(text.find('\0'), text.size());
  const std::string path = text.substr(0, std::min(end, capacity - 1));
  const std::string leaf = end < text.size() ? std::string(text.c_str() + end + 1) : std::string();

  const std::unique_ptr<char[]> buffer(new char[capacity]);
  memset(buffer.get(), '?', capacity);
  memcpy(buffer.get(), path.c_str(), path.size() + 1);
  PlatformAppendPathLeaf(buffer.get(), static_cast<unsigned int>(capacity), leaf.c_str());
  FUZZ_CHECK(strnlen(buffer.get(), capacity) < capacity);
  FUZZ_CHECK(Expect(path, leaf, capacity) == buffer.get());
  return 0;
}
