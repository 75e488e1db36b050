#include "tools/kpim/OutputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "shared/platform/posix/Transfer.h"
#include "shared/platform/posix/Uninterrupted.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/SignalBlock.h"

namespace kpim {

namespace {

constexpr char kTemporaryName[] = ".kpim-XXXXXX";
constexpr mode_t kMode = 0644;
constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// The path that the signal handler removes; null when there is nothing to remove.
std::atomic<const char*> temporaryToRemove{nullptr};
static_assert(std::atomic<const char*>::is_always_lock_free, "read by a signal handler");

// Installed with SA_RESETHAND: the signal that is raised here ends the process, as without a
// handler.
void RemoveTemporary(int signal) {
  // Untested: a process that a signal ends writes no coverage data.
  if (const char* path = temporaryToRemove.load()) {
    (void)unlink(path);
  }
  (void)raise(signal);
}

void InstallSignalHandlers() {
  for (const int signal : kEndingSignals) {
    struct sigaction action = {};
    // A signal that is ignored, as under nohup, stays ignored.
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) {
      continue;
    }
    action.sa_handler = RemoveTemporary;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)sigaction(signal, &action, nullptr);
  }
}

mode_t CurrentUmask() {
  const mode_t mask = umask(0);
  (void)umask(mask);
  return mask;
}

// Flushes the names in the directory at `path` to the disk, if possible: the process may not have
// permission to read the directory, and a file system may lack the operation (EINVAL). Returns 0,
// also in these cases, or an errno value.
int SynchronizeDirectory(const std::string& path) {
  const int descriptor = Uninterrupted([&] { return open(path.c_str(), O_RDONLY); });
  if (descriptor < 0) {
    return 0;
  }
  const bool isFlushed = Uninterrupted([&] { return fsync(descriptor); }) == 0;
  const int error = isFlushed || errno == EINVAL ? 0 : errno;
  (void)close(descriptor);
  return error;
}

}  // namespace

OutputFile::~OutputFile() {
  if (descriptor_ >= 0 && !isStandardOutput_) {
    (void)close(descriptor_);
  }
  const SignalBlock block;
  if (temporaryToRemove.exchange(nullptr)) {
    (void)unlink(temporaryPath_.c_str());
  }
}

bool OutputFile::Choose(const std::string& path) {
  path_ = path;
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    char target[PATH_MAX];
    if (!realpath(path.c_str(), target)) {
      return Fail(errno);
    }
    path_ = target;
  }
  if (stat(path_.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) {
      ReportError(path, S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)
                            ? "exists and is not a regular file; -o - writes to a pipe or a device"
                            : "exists and is not a regular file");
      return false;
    }
    replaced_ = IdentityOf(status);
  }
  if (LeafOf(path_).empty()) {
    ReportError(path, "not the name of a file");
    return false;
  }
  if (stat(DirectoryOf(path_).c_str(), &status) != 0) {
    return Fail(errno);
  }
  directory_ = IdentityOf(status);
  return true;
}

bool OutputFile::ChooseStandardOutput() {
  isStandardOutput_ = true;
  path_ = "standard output";
  if (isatty(STDOUT_FILENO) != 0) {
    ReportError(path_, "a terminal: a blob can go to a file or a pipe");
    return false;
  }
  struct stat status = {};
  if (fstat(STDOUT_FILENO, &status) != 0) {
    return Fail(errno);
  }
  if (S_ISREG(status.st_mode)) {
    replaced_ = IdentityOf(status);
  }
  return true;
}

bool OutputFile::Open() {
  if (isStandardOutput_) {
    descriptor_ = STDOUT_FILENO;
    return true;
  }
  InstallSignalHandlers();
  const SignalBlock block;
  descriptor_ = Uninterrupted([&] {
    temporaryPath_ = JoinPath(DirectoryOf(path_), kTemporaryName);
    return mkstemp(temporaryPath_.data());
  });
  if (descriptor_ < 0) {
    return Fail(errno);
  }
  temporaryToRemove = temporaryPath_.c_str();
  return true;
}

bool OutputFile::Write(const unsigned char* bytes, size_t count) {
  const int error = WriteBytes(descriptor_, bytes, count);
  return error == 0 || Fail(error);
}

bool OutputFile::Commit() {
  if (isStandardOutput_) {
    return true;
  }
  const mode_t mode = kMode & ~CurrentUmask();
  if (Uninterrupted([&] { return fchmod(descriptor_, mode); }) != 0 ||
      Uninterrupted([&] { return fsync(descriptor_); }) != 0) {
    return Fail(errno);
  }
  if (const int error = CloseWritten(std::exchange(descriptor_, -1))) {
    return Fail(error);
  }
  if (!GiveName()) {
    return false;
  }
  const int error = SynchronizeDirectory(DirectoryOf(path_));
  return error == 0 || Fail(error);
}

bool OutputFile::GiveName() {
  // No signal may arrive between the renaming and the change of the variable.
  const SignalBlock block;
  if (rename(temporaryPath_.c_str(), path_.c_str()) != 0) {
    return Fail(errno);
  }
  temporaryToRemove = nullptr;
  return true;
}

bool OutputFile::Fail(int error) {
  ReportSystemError(path_, error);
  return false;
}

}  // namespace kpim
