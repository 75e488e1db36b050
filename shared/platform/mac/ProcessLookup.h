// Questions about the process table, in the order in which the system lists it: newest first.
#pragma once

#include <stdint.h>
#include <sys/types.h>

/// Stores a list of process ids, newest first, in `*pids`, which the caller gives back with
/// free(), and returns how many of them count: the first half of the list. The half is kept because
/// the callers look for processes that are younger than their own, which the rest does not have. 0
/// when the system does not tell; `*pids` is then a list all the same, or null without memory for
/// one.
int32_t getAllPIDs(pid_t** pids);

/// Whether process `pid` is among those that getAllPIDs() counts and that are listed before the
/// calling process: alive, and younger than the caller. False for the caller itself.
bool isPIDAlive(int pid);

/// The first process, among those that isPIDAlive() would find, whose executable's path is, byte
/// for byte, `executablePath`: an absolute path without links. 0 when there is none, and for null.
pid_t findPID(const char* executablePath);
