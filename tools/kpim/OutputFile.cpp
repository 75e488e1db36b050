#include "tools/kpim/OutputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "tools/kpim/Report.h"
#include "tools/kpim/SignalBlock.h"

namespace kpim {

namespace {

constexpr char kTemporaryName[] = ".kpim-XXXXXX";
constexpr mode_t kMode = 0644;
constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

/// What a signal handler removes; absent when there is nothing to remove.
std::atomic<const char*> temporaryToRemove{nullptr};
static_assert(std::atomic<const char*>::is_always_lock_free, "read by a signal handler");

/// Installed with SA_RESETHAND: raised again, the signal ends the process as it would have.
void RemoveTemporary(int signal) {
  // Untested: a process that a signal ends writes no counts.
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

/// Makes the names in the directory at `path` durable, as far as the system can: a directory
/// may be closed to readers, and a file system need not know the operation (EINVAL). Returns 0
/// or an errno value.
int SynchronizeDirectory(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY);
  if (descriptor < 0) {
    return 0;
  }
  const int error = fsync(descriptor) != 0 && errno != EINVAL ? errno : 0;
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
  temporaryPath_ = JoinPath(DirectoryOf(path_), kTemporaryName);
  InstallSignalHandlers();
  const SignalBlock block;
  descriptor_ = mkstemp(temporaryPath_.data());
  if (descriptor_ < 0) {
    return Fail(errno);
  }
  temporaryToRemove = temporaryPath_.c_str();
  return true;
}

bool OutputFile::Write(const unsigned char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = write(descriptor_, bytes, std::min(count, kGreatestTransfer));
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      // A file that takes nothing and does not say why would take nothing for ever.
      return Fail(written < 0 ? errno : EIO);
    }
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return true;
}

bool OutputFile::Commit() {
  if (isStandardOutput_) {
    return true;
  }
  if (fchmod(descriptor_, kMode & ~CurrentUmask()) != 0 || fsync(descriptor_) != 0) {
    return Fail(errno);
  }
  const int closed = close(descriptor_);
  descriptor_ = -1;
  if (closed != 0) {
    return Fail(errno);
  }
  if (!GiveName()) {
    return false;
  }
  const int error = SynchronizeDirectory(DirectoryOf(path_));
  return error == 0 || Fail(error);
}

bool OutputFile::GiveName() {
  // The temporary file and the note of it go together.
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
