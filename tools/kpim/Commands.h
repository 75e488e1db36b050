// The commands of kpim. Each has a file of its own; CommandLine.cpp describes them to the user.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kpim {

/// Exit statuses.
constexpr int kExitOK = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

/// Stands for standard output or standard input where the command line names a file.
constexpr char kStandardStream[] = "-";

/// Runs the command that the command line chooses, and returns its exit status. Usage errors are
/// reported on standard error, with kExitUsage.
int Run(int argc, char** argv);

// Each of these runs one command and returns its exit status. A failure has been reported on
// standard error. A blob called "-" is read from standard input.

/// The most that --threads takes. What is beyond two makes no difference.
constexpr unsigned int kMostThreads = 1024;

/// What the command line says for "kpim pack".
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

/// Builds a blob out of the directory `bundle` and writes it to `output`, by default beside the
/// bundle, or to standard output when that is kStandardStream. `excluded` has the patterns of what
/// is left out. Entries are ordered by name unless `unsorted` is true; with `verify` the blob is
/// decoded and compared before it is written. `quiet` drops warnings and progress, `strict` makes
/// errors of the warnings. The result is printed as JSON when `json` is true.
int Pack(const PackOptions& options);

/// What the command line says for "kpim list".
struct ListOptions {
  std::string blob;
  bool json = false;
};

/// Prints the tree of the blob `blob`, as JSON when `json` is true.
int List(const ListOptions& options);

/// What the command line says for "kpim verify".
struct VerifyOptions {
  std::string blob;
  std::optional<std::string> bundle;
  bool json = false;
};

/// Checks that the blob `blob` is well formed and, with `bundle`, that it has the same contents.
/// Prints the result as JSON when `json` is true.
int VerifyBlob(const VerifyOptions& options);

/// What the command line says for "kpim diff".
struct DiffOptions {
  std::string left;
  std::string right;
  bool json = false;
};

/// Compares the contents of two blobs, or of a blob and a directory. Prints the result as JSON when
/// `json` is true.
int Diff(const DiffOptions& options);

/// What the command line says for "kpim unpack".
struct UnpackOptions {
  std::string blob;
  std::string directory;
  /// The entries to write; all when there are none.
  std::vector<std::string> paths;
  bool json = false;
};

/// Writes the tree of the blob `blob` below `directory`, which is empty or can be created. Prints
/// the result as JSON when `json` is true.
int Unpack(const UnpackOptions& options);

/// What the command line says for "kpim check".
struct CheckOptions {
  bool json = false;
};

/// Runs the install checks and prints their verdicts, as JSON when `json` is true.
int Check(const CheckOptions& options);

/// The player's flavours, and time limits of a request in seconds.
constexpr char kPepperKind[] = "pep";
constexpr char kPluginKind[] = "pl";
constexpr int kDefaultTimeLimit = 90;
constexpr int kLongestTimeLimit = 24 * 60 * 60;

/// What the command line says for "kpim latest".
struct LatestOptions {
  std::string kind = kPepperKind;
  /// The locale in the address; by default, that of the strings table.
  std::optional<std::string> locale;
  /// A PEM file with the authorities to trust instead of the system's.
  std::optional<std::string> authorities;
  int timeLimit = kDefaultTimeLimit;
  bool json = false;
};

/// Fetches and prints the version description of `kind`, one of the two above, within `timeLimit`
/// seconds altogether; as JSON when `json` is true.
int Latest(const LatestOptions& options);

}  // namespace kpim
