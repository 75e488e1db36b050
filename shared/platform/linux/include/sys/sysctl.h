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
/// `oldp` receives the value, or is NULL to ask for the size alone. `oldlenp` holds the size of
/// that buffer before the call and the number of bytes supplied, or needed, after it. `newp` must
/// be NULL: none of the values can be set. Returns 0, or -1 with errno: ENOENT for any other name,
/// and for every name on a machine that macOS never ran on; ENOMEM when the buffer is too small (as
/// much as fits is supplied); EPERM for an attempt to set a value; EFAULT for a NULL name, or a
/// buffer without a size.
int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

#ifdef __cplusplus
}
#endif
