#include <dirent.h>
#include <libproc.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "shared/platform/linux/JobUnits.h"

namespace {

// macOS's kernel counts as many more when it is asked for the size.
constexpr size_t kProcessesToCome = 20;
// The kernel adds it to the path of an executable that is no longer there (proc(5)).
constexpr char kDeletedSuffix[] = " (deleted)";
// Field of /proc/PID/stat that holds the start time, counted from the state, which is the third.
constexpr int kStartTimeAfterState = 22 - 3;

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};
struct FileCloser {
  void operator()(FILE* file) const { (void)fclose(file); }
};

struct Process {
  pid_t pid;
  /// Clock ticks since the machine started.
  unsigned long long startTime;
};

/// Every process id of /proc, in no order. False with errno when it cannot be read.
bool ReadProcessIDs(std::vector<pid_t>& pids) {
  const std::unique_ptr<DIR, FolderCloser> folder(opendir("/proc"));
  if (folder == nullptr) {
    return false;
  }
  errno = 0;
  while (const dirent* entry = readdir(folder.get())) {
    char* end = nullptr;
    const long pid = strtol(entry->d_name, &end, 10);
    if (*end == '\0' && pid > 0 && pid <= INT_MAX) {
      pids.push_back(static_cast<pid_t>(pid));
    }
    errno = 0;
  }
  return errno == 0;
}

/// False when the process has gone.
bool ReadStartTime(pid_t pid, unsigned long long& startTime) {
  char path[64];
  (void)snprintf(path, sizeof(path), "/proc/%d/stat", pid);
  const std::unique_ptr<FILE, FileCloser> file(fopen(path, "re"));
  char line[1024];
  const size_t length = file == nullptr ? 0 : fread(line, 1, sizeof(line) - 1, file.get());
  line[length] = '\0';
  // The program's name, in parentheses, may hold anything: blanks and parentheses, too.
  const char* field = strrchr(line, ')');
  if (field == nullptr) {
    return false;
  }
  ++field;
  for (int i = 0; i < kStartTimeAfterState; ++i) {
    field = strchr(field + 1, ' ');
    if (field == nullptr) {
      return false;
    }
  }
  startTime = strtoull(field, nullptr, 10);
  return true;
}

bool IsNewer(const Process& left, const Process& right) {
  return left.startTime != right.startTime ? left.startTime > right.startTime
                                           : left.pid > right.pid;
}

/// Bytes of `count` ids; as many as an int can tell.
int SizeOf(size_t count) {
  return static_cast<int>(std::min(count, INT_MAX / sizeof(int)) * sizeof(int));
}

/// Whether `path` names the very file behind `link`.
bool IsSameFile(const char* path, const char* link) {
  struct stat named = {};
  struct stat linked = {};
  return stat(path, &named) == 0 && stat(link, &linked) == 0 && named.st_dev == linked.st_dev &&
         named.st_ino == linked.st_ino;
}

/// The path of the executable behind /proc/PID/exe, `link`; empty with errno when it cannot be
/// read.
std::string ReadExecutable(const char* link) {
  char path[PATH_MAX + sizeof(kDeletedSuffix)];
  const ssize_t length = readlink(link, path, sizeof(path) - 1);
  if (length < 0) {
    return std::string();
  }
  std::string executable(path, static_cast<size_t>(length));
  const size_t suffixLength = strlen(kDeletedSuffix);
  // A file may be called so, too.
  if (executable.size() > suffixLength &&
      executable.compare(executable.size() - suffixLength, suffixLength, kDeletedSuffix) == 0 &&
      !IsSameFile(executable.c_str(), link)) {
    executable.resize(executable.size() - suffixLength);
  }
  return executable;
}

}  // namespace

int proc_listpids(uint32_t type, uint32_t /*typeinfo*/, void* buffer, int buffersize) {
  if (type != PROC_ALL_PIDS) {
    errno = EINVAL;
    return 0;
  }
  std::vector<pid_t> pids;
  if (!ReadProcessIDs(pids)) {
    return 0;
  }
  if (buffer == nullptr) {
    return SizeOf(pids.size() + kProcessesToCome);
  }
  std::vector<Process> processes;
  processes.reserve(pids.size());
  for (const pid_t pid : pids) {
    Process process = {pid, 0};
    if (ReadStartTime(pid, process.startTime)) {
      processes.push_back(process);
    }
  }
  std::sort(processes.begin(), processes.end(), IsNewer);
  const size_t room = static_cast<size_t>(std::max(buffersize, 0)) / sizeof(int);
  const size_t count = std::min(processes.size(), room);
  for (size_t i = 0; i < count; ++i) {
    static_cast<int*>(buffer)[i] = processes[i].pid;
  }
  return SizeOf(count);
}

int proc_pidpath(int pid, void* buffer, uint32_t buffersize) {
  if (buffer == nullptr) {
    errno = EFAULT;
    return 0;
  }
  char link[64];
  (void)snprintf(link, sizeof(link), "/proc/%d/exe", pid);
  std::string path = ReadExecutable(link);
  if (path.empty() && (errno == EACCES || errno == EPERM)) {
    // Of another user's process only systemd tells it, and only of those that it started.
    path = JobExecutable(pid);
    errno = EPERM;
  } else if (path.empty() && errno == ENOENT) {
    errno = ESRCH;
  }
  if (path.empty()) {
    return 0;
  }
  if (path.size() >= buffersize) {
    errno = ENOMEM;
    return 0;
  }
  memcpy(buffer, path.c_str(), path.size() + 1);
  return static_cast<int>(path.size());
}
