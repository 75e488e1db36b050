// Finding processes in the process table, which the system lists with the newest process first.
#pragma once

#include <stdint.h>
#include <sys/types.h>

/// Stores a list of process ids, newest first, in `*pids`, which the caller frees with free().
/// Returns half of the length of the list: only the ids in its first half count, so on macOS the
/// older half of the processes is missing. (The Linux port fills the second half with zeros.) This
/// is kept on purpose: callers look for a process that has just started, and rely on this count.
/// Returns 0 when the system does not report the list; `*pids` is then a valid array, or null when
/// memory runs out.
int32_t getAllPIDs(pid_t** pids);

/// Returns whether the process `pid` is alive and younger than the calling process: among the ids
/// that getAllPIDs() counts, and before the caller's. False for the caller itself.
bool isPIDAlive(int pid);

/// Returns the id of the first process, among those that isPIDAlive() finds, whose executable has
/// the path `executablePath`, byte for byte: an absolute path without links. Returns 0 when there
/// is none, and for null.
pid_t findPID(const char* executablePath);
