#include "shared/platform/mac/ProcessLookup.h"

#include <libproc.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

// Size of the buffer for proc_pidpath(), in bytes.
constexpr uint32_t kPathCapacity = 4096;

// Shifts the size of the list in bytes to the count. An id has 4 bytes, so half of the ids are left
// out: see getAllPIDs().
constexpr int kCountShift = 3;

}  // namespace

int32_t getAllPIDs(pid_t** pids) {
  const int needed = proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0);
  const int capacity = needed > 0 ? needed : 1;
  *pids = static_cast<pid_t*>(malloc(static_cast<size_t>(capacity)));
  if (*pids == nullptr) {
    // Untested: it takes a failed allocation of some ten kilobytes.
    return 0;
  }
  const int filled = proc_listpids(PROC_ALL_PIDS, 0, *pids, capacity);
  return filled > 0 ? filled >> kCountShift : 0;
}

bool isPIDAlive(int pid) {
  pid_t* pids = nullptr;
  const int32_t count = getAllPIDs(&pids);
  const pid_t caller = getpid();
  bool isAlive = false;
  for (int32_t i = 0; i < count && pids[i] != caller && !isAlive; ++i) {
    isAlive = pids[i] == pid;
  }
  free(pids);
  return isAlive;
}

pid_t findPID(const char* executablePath) {
  if (executablePath == nullptr) {
    return 0;
  }
  pid_t* pids = nullptr;
  const int32_t count = getAllPIDs(&pids);
  const pid_t caller = getpid();
  pid_t found = 0;
  char path[kPathCapacity];
  for (int32_t i = 0; i < count && pids[i] != caller && found == 0; ++i) {
    if (pids[i] != 0 && proc_pidpath(pids[i], path, sizeof(path)) > 0 &&
        strcmp(path, executablePath) == 0) {
      found = pids[i];
    }
  }
  free(pids);
  return found;
}
