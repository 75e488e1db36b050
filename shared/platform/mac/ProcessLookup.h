// Questions about the process table, in the order in which the system lists it: newest first.
#pragma once

#include <stdint.h>
#include <sys/types.h>

/// Stores a list of process ids, newest first, in `*pids`, which the caller gives back with
/// free(), and returns how many of them count: the first half of the list. On macOS a process
/// that most others are younger than is therefore not among them; the Linux port lists as many
/// zeros after the processes. Callers that look for one that has just started do not miss the other
/// half, and it is relied on that the count stays as it is. 0 when the system does not tell;
/// `*pids` is then a list all the same, or null without memory for one.
int32_t getAllPIDs(pid_t** pids);

/// Whether process `pid` is among those that getAllPIDs() counts and that are listed before the
/// calling process: alive, and younger than the caller. False for the caller itself.
bool isPIDAlive(int pid);

/// The first process, among those that isPIDAlive() would find, whose executable's path is, byte
/// for byte, `executablePath`: an absolute path without links. 0 when there is none, and for null.
pid_t findPID(const char* executablePath);
