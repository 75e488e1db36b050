// The C library's <sys/stat.h> and, of macOS's, the flags of files.
#pragma once

#include_next <sys/stat.h>

#include <stdint.h>

/// The item is left out of backups.
#define UF_NODUMP 0x00000001
/// The item may not be changed, renamed or removed; the owner may set the flag (chflags(1): uchg).
#define UF_IMMUTABLE 0x00000002
/// The item may only become longer; the owner may set the flag (uappnd).
#define UF_APPEND 0x00000004
/// As UF_IMMUTABLE and UF_APPEND; only root may set and clear them (schg, sappnd).
#define SF_IMMUTABLE 0x00020000
#define SF_APPEND 0x00040000

#ifdef __cplusplus
extern "C" {
#endif

/// Sets the flags of the file or folder at `path` to `flags`, a sum of those above, as lchflags(2)
/// of macOS does: flags that are not in the sum are cleared, and a link in the last component is
/// not followed. Linux has one flag for each pair of UF_ and SF_ flags (chattr(1): i and a, which
/// only root may change) and one for UF_NODUMP (d). Other flags of its file systems stay as they
/// are.
///
/// Returns 0, or -1 with errno set: EOPNOTSUPP for an item that is neither a file nor a folder, for
/// a file system without flags and for a flag that is not listed above; EPERM without the right;
/// otherwise an error of open(2), because Linux sets flags on an open file.
int lchflags(const char* path, uint32_t flags);

#ifdef __cplusplus
}
#endif
