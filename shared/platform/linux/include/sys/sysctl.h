// Kernel values by name, the part of macOS's <sys/sysctl.h> that programs use for
// questions about the processor.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Reads the kernel value `name`, as sysctlbyname(3) of macOS does. Four names are known, each a
/// 32-bit integer that is derived from the machine name of uname(2): "hw.cputype" (a CPU_TYPE_
/// number of <mach/machine.h>), "hw.cpu64bit_capable", "hw.optional.x86_64" and
/// "hw.optional.64bitops" (0 or 1).
/// `oldp` receives the value and must not be NULL. `*oldlenp` is the size of that buffer in bytes
/// before the call, and the number of bytes written after it. `newp` must be NULL: no value can be
/// set. Returns 0, or -1 with errno set: EINVAL when `oldp` is NULL or `newp` is not; ENOENT for
/// any other name, and for every name on a machine that macOS never ran on; ENOMEM when the buffer
/// is too small (the bytes that fit are written). `name` and `oldlenp` must not be NULL.
int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

#ifdef __cplusplus
}
#endif
