// Writing a file that must never be visible half written.
#pragma once

#include <stddef.h>

#include <string>

#include "tools/kpim/Disk.h"

namespace kpim {

/// A file that appears under its name complete or not at all. It is written to a temporary file in
/// the same directory, which is removed by the destructor and when SIGHUP, SIGINT, SIGQUIT or
/// SIGTERM ends the process. Standard output can take the file's place. Only one object may be open
/// at a time. The functions report a failure on standard error and return false.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Sets the path of the file; a link is followed. Fails if something other than a regular file
  /// exists there, if the directory is missing, or if `path` ends in a slash. Changes nothing on
  /// disk.
  bool Choose(const std::string& path);

  /// Selects standard output, which the functions below then use. Fails for a terminal.
  bool ChooseStandardOutput();

  /// Returns the directory that will contain the file; none for standard output. Valid after
  /// Choose.
  FileIdentity directory() const { return directory_; }

  /// Returns the existing file that will be replaced, or the regular file that standard output is;
  /// otherwise none. Valid after Choose or ChooseStandardOutput.
  FileIdentity replaced() const { return replaced_; }

  /// Creates the temporary file.
  bool Open();

  /// Appends `count` bytes.
  bool Write(const unsigned char* bytes, size_t count);

  /// Sets mode 0644 less the umask, flushes the contents to the disk, renames the file to its name
  /// (replacing an existing file), and flushes the directory. If only flushing the directory fails,
  /// the file already has its name. Does nothing for standard output.
  bool Commit();

 private:
  bool GiveName();
  bool Fail(int error);

  bool isStandardOutput_ = false;
  std::string path_;
  std::string temporaryPath_;
  FileIdentity directory_;
  FileIdentity replaced_;
  int descriptor_ = -1;
};

}  // namespace kpim
