// Reading a file, with every failure told.
#pragma once

#include <stddef.h>
#include <sys/stat.h>

#include <string>

namespace kpim {

/// A file or a stream that is read from its start to its end.
class InputFile {
 public:
  InputFile() = default;
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// Opens what is at `path`, whatever it is, without waiting for the other end of a FIFO.
  /// Returns 0 or an errno value. Once per object.
  int Open(const std::string& path);

  /// Reads standard input instead of a file. Returns 0 or an errno value. Once per object.
  int OpenStandardInput();

  /// What fstat(2) reported of the open file; Read is for regular files and standard input.
  const struct stat& status() const { return status_; }

  /// Reads the next `count` bytes into `buffer`, and tells in `filled` how many there were:
  /// fewer only at the end of the file. Returns 0 or an errno value.
  int Read(unsigned char* buffer, size_t count, size_t& filled);

 private:
  int descriptor_ = -1;
  struct stat status_ = {};
};

}  // namespace kpim
