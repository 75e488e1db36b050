// Writing a file that others must never see half written.
#pragma once

#include <stddef.h>

#include <string>

#include "tools/kpim/Disk.h"

namespace kpim {

/// A file that appears under its name whole or not at all. It is written under a temporary
/// name in the same directory, which is removed when the object goes or when SIGHUP, SIGINT,
/// SIGQUIT or SIGTERM ends the process. One at a time may be open. Every failure is reported on
/// standard error and gives false. Standard output can take the file's place.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Decides where the file called `path` will be; a link is followed. Refuses what exists
  /// and is not a regular file. Changes nothing on disk.
  bool Choose(const std::string& path);

  /// Decides for standard output, of which the functions below speak then. Refuses a terminal.
  bool ChooseStandardOutput();

  /// The directory that the file will be in, if it gets a name; valid after Choose.
  FileIdentity directory() const { return directory_; }

  /// The file that it will replace or be written to, if there is one; valid after Choose.
  FileIdentity replaced() const { return replaced_; }

  /// Creates the temporary file.
  bool Open();

  /// Appends `count` bytes.
  bool Write(const unsigned char* bytes, size_t count);

  /// Makes the contents durable and gives the file its name, replacing an earlier file, and
  /// mode 0644 as far as the umask allows. It may have its name already when it turns out that
  /// the disk cannot make that durable.
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
