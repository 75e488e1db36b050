// MADV_FREE as on macOS: the contents of the pages are not needed any more, and the pages are
// released. Linux's own MADV_FREE leaves them with the process until memory is short; MADV_DONTNEED
// releases private pages at once (madvise(2) of both systems).
#pragma once

#include_next <sys/mman.h>

#undef MADV_FREE
#define MADV_FREE MADV_DONTNEED
