#include <fcntl.h>
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
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "shared/platform/linux/systemd/JobUnits.h"

namespace {

// macOS's kernel counts as many more when it is asked for the size.
constexpr size_t kProcessesToCome = 20;
// The kernel adds it to the path of an executable that is no longer there (proc(5)).
constexpr char kDeletedSuffix[] = " (deleted)";
// Field of /proc/PID/stat that holds the start time, counted from the state, which is the third.
constexpr int kStartTimeAfterState = 22 - 3;

/// Every process id of /proc, in no order. False with errno when it cannot be read.
bool ReadAllProcessIDs(std::vector<pid_t>& pids) {
  pids.clear();
  std::error_code error;
  std::filesystem::directory_iterator entry("/proc", error);
  for (; !error && entry != std::filesystem::end(entry); entry.increment(error)) {
    const std::string name = entry->path().filename();
    char* end = nullptr;
    const long pid = strtol(name.c_str(), &end, 10);
    if (*end == '\0' && pid > 0 && pid <= INT_MAX) {
      pids.push_back(static_cast<pid_t>(pid));
    }
  }
  errno = error.value();
  return !error;
}

/// When the process started, in clock ticks since the machine did; false when it has gone.
bool ReadStartTime(pid_t pid, unsigned long long& startTime) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string field;
  std::getline(file, field, '\0');
  // The program's name, in parentheses, may hold anything: blanks and parentheses, too.
  std::istringstream fields(field.substr(field.rfind(')') + 1));
  for (int i = 0; i < kStartTimeAfterState; ++i) {
    fields >> field;
  }
  return static_cast<bool>(fields >> startTime);
}

/// Start time and id of those of `pids` that still exist, the greatest first.
std::vector<std::pair<unsigned long long, pid_t>> NewestFirst(const std::vector<pid_t>& pids) {
  std::vector<std::pair<unsigned long long, pid_t>> processes;
  processes.reserve(pids.size());
  for (const pid_t pid : pids) {
    unsigned long long startTime = 0;
    if (ReadStartTime(pid, startTime)) {
      processes.emplace_back(startTime, pid);
    }
  }
  std::sort(processes.rbegin(), processes.rend());
  return processes;
}

/// Bytes of `count` ids; as many as an int holds.
int SizeOf(size_t count) {
  return static_cast<int>(std::min(count, INT_MAX / sizeof(int)) * sizeof(int));
}

/// Finds which file `path` leads to, and on which mount it is. No server is asked and nothing is
/// mounted: other users choose some of the paths, and must not make the caller wait.
bool Identify(const std::string& path, struct statx& file) {
  return statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
               STATX_INO | STATX_MNT_ID, &file) == 0;
}

/// Whether `path` leads the caller to `file`.
bool LeadsTo(const std::string& path, const struct statx& file) {
  struct statx found = {};
  return Identify(path, found) && found.stx_dev_major == file.stx_dev_major &&
         found.stx_dev_minor == file.stx_dev_minor && found.stx_ino == file.stx_ino;
}

/// Whether `file`, which has been removed, was at `path` for the caller: whether it is on the mount
/// that the caller finds there, in the nearest folder that is left. A mount belongs to one mount
/// namespace only.
bool WasAt(std::string path, const struct statx& file) {
  struct statx folder = {};
  do {
    path.resize(path.rfind('/'));
  } while (!Identify(path.empty() ? "/" : path, folder) && errno == ENOENT && !path.empty());
  return (file.stx_mask & folder.stx_mask & STATX_MNT_ID) != 0 &&
         file.stx_mnt_id == folder.stx_mnt_id;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The path of the executable that `link`, a /proc/PID/exe, leads to; empty with errno when it
/// cannot be read, or when the caller finds another file there. The link names the path in the
/// mount namespace where the file was opened, in which any user may have mounted anything over any
/// path.
std::string ReadExecutable(const char* link) {
  char buffer[PATH_MAX + sizeof(kDeletedSuffix)];
  const ssize_t length = readlink(link, buffer, sizeof(buffer));
  struct statx file = {};
  if (length < 0 || !Identify(link, file)) {
    return std::string();
  }
  std::string path(buffer, static_cast<size_t>(length));
  if (path[0] == '/' && LeadsTo(path, file)) {
    return path;
  }
  if (path[0] == '/' && EndsWith(path, kDeletedSuffix)) {
    path.resize(path.size() - strlen(kDeletedSuffix));
    if (WasAt(path, file)) {
      return path;
    }
  }
  errno = ENXIO;
  return std::string();
}

}  // namespace

int proc_listpids(uint32_t type, uint32_t /*typeinfo*/, void* buffer, int buffersize) {
  if (type != PROC_ALL_PIDS) {
    errno = EINVAL;
    return 0;
  }
  // The ids that the last call without a buffer counted. The next list holds no others, so that no
  // user can push a process out of the caller's buffer by starting many meanwhile.
  thread_local std::vector<pid_t> s_announced;
  std::vector<pid_t> pids;
  pids.swap(s_announced);
  if ((buffer == nullptr || pids.empty()) && !ReadAllProcessIDs(pids)) {
    return 0;
  }
  if (buffer == nullptr) {
    s_announced.swap(pids);
    return SizeOf(2 * (s_announced.size() + kProcessesToCome));
  }
  const auto processes = NewestFirst(pids);
  const size_t room = static_cast<size_t>(std::max(buffersize, 0)) / sizeof(int);
  const size_t count = std::min(2 * processes.size(), room);
  for (size_t i = 0; i < count; ++i) {
    static_cast<int*>(buffer)[i] = i < processes.size() ? processes[i].second : 0;
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
    // Only systemd reports the path of another user's process, and only if it started the process.
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
