// The two questions about the process table that the product asks of macOS's <libproc.h>,
// answered from /proc: proc(5).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// All processes; the only kind of list that is supported here.
#define PROC_ALL_PIDS 1

/// Writes the ids of all processes to `buffer`, each an `int`, the newest process first, followed
/// by as many zeros. (Some programs for macOS divide the size by 8 bytes; with the zeros they still
/// count every process.) `type` must be PROC_ALL_PIDS; `typeinfo` is ignored. Returns the number of
/// bytes written, at most `buffersize`: a longer list is cut. If `buffer` is NULL, returns the size
/// of the list in bytes plus room for 20 more processes. The calling thread's next list then has
/// only processes that existed at this call, so that it fits. Returns 0 with errno set on failure:
/// EINVAL for another type, otherwise why /proc cannot be read.
int proc_listpids(uint32_t type, uint32_t typeinfo, void* buffer, int buffersize);

/// Writes the absolute path of the executable of process `pid`, with a zero byte after it, to
/// `buffer` of `buffersize` bytes. Returns the path's length without that byte; 0 with errno set on
/// failure: ESRCH when the process does not exist or has no executable, EPERM when the caller may
/// not inspect it, ENXIO when the caller does not find the executable at its path, ENOMEM when the
/// buffer is too small, EFAULT when it is NULL.
///
/// An executable that has been removed has the path that it had. A process in another mount
/// namespace has a path only if that leads the caller to the same file: any user can mount a file
/// of theirs over any path in a namespace of their own. For another user's process, the path is
/// reported only if it is the main process of a launch job (SMJobSubmit): the path that systemd
/// executed, unless that is a script.
int proc_pidpath(int pid, void* buffer, uint32_t buffersize);

#ifdef __cplusplus
}
#endif
