// Reading and writing as many bytes as asked for, and closing what was written.
#pragma once

#include <stddef.h>

/// Reads `count` bytes from `descriptor` to `bytes`, with as many calls as it takes. Stores in
/// `filled` how many bytes there were: fewer than `count` at the end of the file, and after an
/// error. Returns 0, also at the end of the file, or an errno value.
int ReadBytes(int descriptor, unsigned char* bytes, size_t count, size_t& filled);

/// Writes the `count` bytes at `bytes` to `descriptor`, with as many calls as it takes. Returns 0,
/// or an errno value after an error: EIO when the file takes no byte without saying why.
int WriteBytes(int descriptor, const unsigned char* bytes, size_t count);

/// Closes `descriptor`, to which bytes were written. Returns 0, or an errno value when they may be
/// lost. A close that a signal has interrupted has closed the file nevertheless and is not
/// repeated.
int CloseWritten(int descriptor);
