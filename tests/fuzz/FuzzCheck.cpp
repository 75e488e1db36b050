#include "tests/fuzz/FuzzCheck.h"

#include <sanitizer/allocator_interface.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

bool s_isCounting;
size_t s_used;
size_t s_peak;

void CountAllocation(const volatile void* /*block*/, size_t size) {
  if (s_isCounting) {
    s_used += size;
    s_peak = std::max(s_peak, s_used);
  }
}

void CountRelease(const volatile void* block) {
  if (s_isCounting && block != nullptr) {
    s_used -= std::min(s_used, __sanitizer_get_allocated_size(const_cast<const void*>(block)));
  }
}

void RemoveFuzzFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(FuzzFolder(), ignored);
}

std::string MakeFuzzFolder() {
  const std::string parent = std::filesystem::is_directory("/dev/shm")
                                 ? "/dev/shm"
                                 : std::filesystem::temp_directory_path();
  std::string path = parent + "/kp-fuzz-XXXXXX";
  FUZZ_CHECK(mkdtemp(path.data()) != nullptr);
  (void)atexit(RemoveFuzzFolder);
  return path;
}

}  // namespace

void FuzzCheck(bool holds, const char* text, const char* file, int line) {
  if (!holds) {
    (void)fprintf(stderr, "%s:%d: not so: %s\n", file, line, text);
    abort();
  }
}

const std::string& FuzzFolder() {
  static const std::string& folder = *new std::string(MakeFuzzFolder());
  return folder;
}

void WriteFuzzFile(const std::string& path, const uint8_t* data, size_t size) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::string ReadFuzzFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

MemoryCount::MemoryCount() {
  static const int isInstalled =
      __sanitizer_install_malloc_and_free_hooks(CountAllocation, CountRelease);
  FUZZ_CHECK(isInstalled != 0);
  s_used = 0;
  s_peak = 0;
  s_isCounting = true;
}

MemoryCount::~MemoryCount() { s_isCounting = false; }

size_t MemoryCount::Peak() { return s_peak; }
