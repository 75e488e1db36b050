// Reading a file, with an errno value for every failure.
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

  /// Opens the item at `path`, of any type, without waiting for the other end of a FIFO. Returns 0
  /// or an errno value. Call it once per object.
  int Open(const std::string& path);

  /// Opens standard input instead of a file. Returns 0 or an errno value. Call it once per object.
  int OpenStandardInput();

  /// Returns the result of fstat(2) for the open file.
  const struct stat& status() const { return status_; }

  /// Reads the next `count` bytes of a regular file or standard input into `buffer`. Stores in
  /// `filled` how many bytes there were: fewer at the end of the file, and after an error. Returns
  /// 0 or an errno value.
  int Read(unsigned char* buffer, size_t count, size_t& filled);

 private:
  int descriptor_ = -1;
  struct stat status_ = {};
};

}  // namespace kpim
