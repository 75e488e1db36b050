// The two questions about the process table that the product asks of macOS's <libproc.h>,
// answered from /proc: proc(5).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Every process: the only kind of list that is known here.
#define PROC_ALL_PIDS 1

/// Lists process ids, each an `int`, the newest process first, and after them as many zeros. A
/// caller that takes the size for one of 8-byte ids, as some programs for macOS do, so counts every
/// process. `type` must be PROC_ALL_PIDS; `typeinfo` is ignored. Returns the number of bytes
/// written to `buffer`, which is never more than `buffersize`: a list that is longer is cut. With a
/// NULL buffer, returns how many bytes the list takes, and some more; the thread's next list then
/// holds no process that has started meanwhile, so that it fits. 0 with errno on failure: EINVAL
/// for another type, or why /proc cannot be read.
int proc_listpids(uint32_t type, uint32_t typeinfo, void* buffer, int buffersize);

/// Writes the absolute path of the executable that process `pid` runs to `buffer`, and a zero byte
/// after it. Returns the path's length without that byte; 0 with errno on failure: ESRCH when
/// there is no such process or it runs no file, EPERM when it may not be looked at, ENXIO when the
/// caller does not find the executable at its path, ENOMEM when the buffer of `buffersize` bytes is
/// too small, EFAULT when it is NULL.
///
/// An executable that has been removed has the path that it had. A process in another mount
/// namespace has a path only if that leads the caller to the same file: any user can mount a file
/// of theirs over any path in a namespace of their own. Of another user's process only a launch
/// job's path is reported (SMJobSubmit), as systemd executed it, unless that is a script.
int proc_pidpath(int pid, void* buffer, uint32_t buffersize);

#ifdef __cplusplus
}
#endif
