// Shared by the fuzz targets: invariants, private files, and how much memory a call takes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

/// Ends the process with the place of the call, as a crash, unless `holds`.
#define FUZZ_CHECK(holds) FuzzCheck((holds), #holds, __FILE__, __LINE__)
void FuzzCheck(bool holds, const char* text, const char* file, int line);

/// The folder of this process, in memory where there is such a file system; removed at exit.
const std::string& FuzzFolder();

/// Replaces a file's content. The bytes of a file that is not there are the empty string.
void WriteFuzzFile(const std::string& path, const uint8_t* data, size_t size);
std::string ReadFuzzFile(const std::string& path);

/// Counts what is allocated while the object exists. Only one object may exist at a time.
class MemoryCount {
 public:
  MemoryCount();
  ~MemoryCount();
  MemoryCount(const MemoryCount&) = delete;
  MemoryCount& operator=(const MemoryCount&) = delete;

  /// The most bytes in use so far, beyond those at the start.
  static size_t Peak();
};
