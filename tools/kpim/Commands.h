// The commands of kpim. Each has a file of its own; CommandLine.cpp describes them to the user.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kpim {

/// Exit status: the command succeeded and found nothing wrong.
constexpr int kExitOK = 0;
/// Exit status: the command failed, or it found differences, a malformed blob or a failed check.
constexpr int kExitFailed = 1;
/// Exit status: the command line is wrong.
constexpr int kExitUsage = 2;

/// Means standard output or standard input in place of the path of a file.
constexpr char kStandardStream[] = "-";

/// Runs the command that the command line chooses, and returns its exit status. Usage errors are
/// reported on standard error, with kExitUsage.
int Run(int argc, char** argv);

/// The largest argument of --threads. More than 2 is the same as 2.
constexpr unsigned int kMostThreads = 1024;

// Each function below runs one command and returns its exit status. It reports failures on standard
// error. A blob named "-" is read from standard input.

/// The arguments of "kpim pack".
struct PackOptions {
  std::string bundle;
  std::optional<std::string> output;
  std::vector<std::string> excluded;
  unsigned int threads = 1;
  bool unsorted = false;
  bool verify = false;
  bool quiet = false;
  bool strict = false;
  bool json = false;
};

/// Packs the directory `bundle` into a blob and writes it to `output`, by default beside the
/// bundle, or to standard output if that is kStandardStream. Entries that match a pattern of
/// `excluded` are left out. `threads` is passed to PrepareFileChunk. Entries are ordered by name
/// unless `unsorted` is true. With `verify` the blob is decoded and compared with the bundle before
/// it is written. `quiet` suppresses warnings and progress, `strict` turns warnings into errors.
/// The result is printed as JSON if `json` is true.
int Pack(const PackOptions& options);

/// The arguments of "kpim list".
struct ListOptions {
  std::string blob;
  bool json = false;
};

/// Prints the tree of the blob `blob`, as JSON when `json` is true.
int List(const ListOptions& options);

/// The arguments of "kpim verify".
struct VerifyOptions {
  std::string blob;
  std::optional<std::string> bundle;
  bool json = false;
};

/// Checks that the blob `blob` is well formed and, with `bundle`, that it has the same contents as
/// the directory `bundle`. Prints the result as JSON when `json` is true.
int VerifyBlob(const VerifyOptions& options);

/// The arguments of "kpim diff".
struct DiffOptions {
  std::string left;
  std::string right;
  bool json = false;
};

/// Compares the contents of two blobs, or of a blob and a directory. Prints the result as JSON when
/// `json` is true.
int Diff(const DiffOptions& options);

/// The arguments of "kpim unpack".
struct UnpackOptions {
  std::string blob;
  std::string directory;
  /// The entries to write; all entries if it is empty.
  std::vector<std::string> paths;
  bool json = false;
};

/// Writes the tree of the blob `blob` below `directory`, which is empty or can be created. Prints
/// the result as JSON when `json` is true.
int Unpack(const UnpackOptions& options);

/// The arguments of "kpim check".
struct CheckOptions {
  bool json = false;
};

/// Runs the install checks and prints their verdicts, as JSON when `json` is true.
int Check(const CheckOptions& options);

/// The player's flavours: the arguments of --kind.
constexpr char kPepperKind[] = "pep";
constexpr char kPluginKind[] = "pl";
/// The default and the largest argument of --time-limit, in seconds.
constexpr int kDefaultTimeLimit = 90;
constexpr int kLongestTimeLimit = 24 * 60 * 60;

/// The arguments of "kpim latest".
struct LatestOptions {
  std::string kind = kPepperKind;
  /// The locale in the address; by default, that of the strings table.
  std::optional<std::string> locale;
  /// A PEM file with the authorities to trust instead of the system's.
  std::optional<std::string> authorities;
  int timeLimit = kDefaultTimeLimit;
  bool json = false;
};

/// Fetches the version description of the flavour `kind` and prints it, as JSON if `json` is true.
/// The whole request may take `timeLimit` seconds.
int Latest(const LatestOptions& options);

}  // namespace kpim
