#!/usr/bin/python3
"""Lists what a macOS executable imports, and fails on what its oldest system does not have.

    scripts/macos_imports.py [--arch x86_64|arm64] [--tool] [--table] EXECUTABLE

The oldest system is macOS 10.6 for Intel processors and 11.0 for Apple's. With --tool EXECUTABLE is
kpim: it may use libc++'s own functions, and asks for 10.15 on Intel processors. Availability marks in the
SDK's headers let the compiler refuse newer functions, classes and methods. This looks at what no
mark covers: symbols that the compiler or the C++ headers bring in by themselves, functions that
headers declare without a mark, and libraries.
"""

import argparse
import collections
import re
import shutil
import subprocess
import sys

# The libraries that the product may load on every processor.
LIBRARIES = {
    "/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation",
    "/System/Library/Frameworks/Foundation.framework/Versions/C/Foundation",
    "/System/Library/Frameworks/Security.framework/Versions/A/Security",
    "/System/Library/Frameworks/ServiceManagement.framework/Versions/A/ServiceManagement",
    "/System/Library/Frameworks/SystemConfiguration.framework/Versions/A/SystemConfiguration",
    "/usr/lib/libSystem.B.dylib",
    "/usr/lib/libobjc.A.dylib",
}

# The names that are in both C++ libraries, GCC's of 10.6 and the one whose headers are compiled:
# memory operators without size or alignment, exception handling, run-time types. The product uses
# no more on Apple's processors either, because the source is the same.
CXX_RUNTIME = re.compile(
    r"__Zn[wa]m(RKSt9nothrow_t)?|__Zd[la]Pv(RKSt9nothrow_t)?|__ZSt7nothrow|__ZSt9terminatev"
    r"|___cxa_(allocate_exception|free_exception|throw|rethrow|begin_catch|end_catch"
    r"|get_exception_ptr|guard_acquire|guard_release|guard_abort|pure_virtual|call_unexpected"
    r"|bad_cast|bad_typeid)"
    r"|___gxx_personality_v0|___dynamic_cast|__ZTVN10__cxxabiv1\w+"
    r"|__ZT[IVS]St(9exception|9bad_alloc)|__ZNK?St(9exception|9bad_alloc)(D[012]Ev|4whatEv)")

# Names that came after 10.6: from the compiler, or undated in headers.
NEWER_THAN_10_6 = re.compile(
    # Reference counting by the compiler (10.7), its allocation shortcuts (10.14.4 and later).
    r"_objc_(retain|release|autorelease|store|load|copyWeak|moveWeak|initWeak|destroyWeak)\w*"
    r"|_objc_(alloc|allocWithZone|alloc_init|opt_\w+|unsafeClaim\w+)"
    r"|_objc_setProperty_\w+"
    # Boxed and constant literals.
    r"|_OBJC_CLASS_\$_NSConstant\w+"
    r"|___chkstk_darwin|___darwin_check_fd_set_overflow|__tlv_\w+|___ubsan\w*|___asan\w*"
    # The C library since 10.7.
    r"|_(getline|getdelim|strnlen|strndup|stpncpy|memmem|dprintf|vdprintf|wcsdup|wcsnlen"
    r"|memset_s|clock_gettime\w*|clock_getres|fdopendir\S*|openat|fstatat\S*|unlinkat|mkdirat"
    r"|renameat\w*|renamex_np|linkat|symlinkat|readlinkat|fchmodat|fchownat|faccessat"
    r"|getattrlistat|utimensat|futimens|mkostemps?|mkstempsat_np|open_memstream|fmemopen"
    r"|getentropy|timingsafe_bcmp|os_log\w*|__os_log\w*|qsort_s|aligned_alloc|timespec_get"
    r"|at_quick_exit|quick_exit|pthread_setname_np|pthread_getname_np|sysdir_\w+)")

# The same for 11.0.
NEWER_THAN_11_0 = re.compile(
    # Shortcuts for messages, reference counting by register (13) and autoreleased results (13).
    r"_objc_msgSend\$\S+|_objc_(retain|release)_x\d+|_objc_claimAutoreleasedReturnValue"
    r"|___ubsan\w*|___asan\w*"
    r"|_(mkfifoat|mknodat|freadlink|strchrnul|at_quick_exit|quick_exit|os_sync_\w+)")

# Names of libc++ that came after 11.0: its own abort, text from and to floating-point numbers (both
# 13.3), polymorphic memory resources (14), hashing of bytes, printing.
NEWER_CXX_THAN_11_0 = re.compile(
    r".*22__libcpp_verbose_abort.*|.*8to_charsEPcS\d*_[fde].*"
    r"|.*10from_charsEPKcS\d*_R?[fde].*|.*__from_chars_floating_point.*"
    r"|.*St3__13pmr.*|.*13__hash_memory.*|.*19__is_posix_terminal.*")
# The same for 10.15: waiting for atomics, latches, barriers and semaphores came with 11.0.
NEWER_CXX_THAN_10_15 = re.compile(
    NEWER_CXX_THAN_11_0.pattern
    + r"|.*(__libcpp_atomic_|__cxx_atomic_notify_|barrier_algorithm_base).*")
NEWER_THAN_10_15 = re.compile(NEWER_THAN_11_0.pattern
                              + r"|___darwin_check_fd_set_overflow|_OBJC_CLASS_\$_NSConstant\w+")

# What executables for one architecture may import. `newer_cxx` is None if they may import only
# CXX_RUNTIME from the C++ library.
Rules = collections.namedtuple("Rules", "oldest cxx_library newer newer_cxx")
LIBSTDCXX, LIBCXX = "/usr/lib/libstdc++.6.dylib", "/usr/lib/libc++.1.dylib"
ARCHITECTURES = {
    "x86_64": Rules("10.6", LIBSTDCXX, NEWER_THAN_10_6, None),
    "arm64": Rules("11.0", LIBCXX, NEWER_THAN_11_0, None),
}
TOOL = {
    "x86_64": Rules("10.15", LIBCXX, NEWER_THAN_10_15, NEWER_CXX_THAN_10_15),
    "arm64": Rules("11.0", LIBCXX, NEWER_THAN_11_0, NEWER_CXX_THAN_11_0),
}
CXX_LIBRARIES = {"libstdc++", "libc++"}

LOAD = re.compile(r"\s+(/.*) \(compatibility version .*\)")
IMPORT = re.compile(r"\(undefined\).*? external (\S+) \(from (\S+)\)")


def output_of(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout


def loads(objdump, executable, architecture):
    """The install names of the libraries that the executable loads."""
    lines = output_of(objdump, "--macho", f"--arch={architecture}", "--dylibs-used",
                      executable).splitlines()
    return [match.group(1) for match in map(LOAD.fullmatch, lines) if match]


def imports(nm, executable, architecture):
    """The imported symbols by library, as nm prints both."""
    table = collections.defaultdict(list)
    for line in output_of(nm, "-m", "-u", f"--arch={architecture}", executable).splitlines():
        if not line.strip():
            continue
        match = IMPORT.search(line)
        if not match:
            raise SystemExit(f"macos_imports: {executable}: not understood: {line.strip()}")
        table[match.group(2)].append(match.group(1))
    return table


def faults(loaded, table, rules):
    """The imports that the oldest system lacks, one line each."""
    for library in loaded:
        if library not in LIBRARIES | {rules.cxx_library}:
            yield f"{library}: not a library that the product may load"
    for library, symbols in sorted(table.items()):
        for symbol in symbols:
            is_cxx = library in CXX_LIBRARIES
            if is_cxx and not rules.newer_cxx and not CXX_RUNTIME.fullmatch(symbol):
                yield f"{symbol}: not shared by the C++ libraries"
            elif rules.newer.fullmatch(symbol) or (
                    is_cxx and rules.newer_cxx and rules.newer_cxx.fullmatch(symbol)):
                yield f"{symbol} (from {library}): newer than {rules.oldest}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("executable")
    parser.add_argument("--nm", default=shutil.which("llvm-nm") or "llvm-nm-14",
                        help="LLVM's nm")
    parser.add_argument("--objdump",
                        default=shutil.which("llvm-objdump") or "llvm-objdump-14",
                        help="LLVM's objdump")
    parser.add_argument("--arch", choices=ARCHITECTURES, default="x86_64")
    parser.add_argument("--tool", action="store_true", help="the executable is kpim")
    parser.add_argument("--table", action="store_true", help="print every import")
    arguments = parser.parse_args()

    rules = (TOOL if arguments.tool else ARCHITECTURES)[arguments.arch]
    loaded = loads(arguments.objdump, arguments.executable, arguments.arch)
    table = imports(arguments.nm, arguments.executable, arguments.arch)
    if not loaded or not table:
        raise SystemExit(f"macos_imports: {arguments.executable}: imports nothing")
    if arguments.table:
        print("| library | imports |\n|---|---|")
        for library, symbols in sorted(table.items()):
            names = ", ".join(f"`{symbol.removeprefix('_')}`" for symbol in sorted(symbols))
            print(f"| {library} | {names} |")
    found = list(faults(loaded, table, rules))
    for fault in found:
        print(f"macos_imports: {arguments.executable}: {fault}", file=sys.stderr)
    if found:
        return 1
    print(f"  {arguments.arch}: imports {sum(map(len, table.values()))} symbols of {len(table)} "
          f"libraries, none newer than {rules.oldest}", file=sys.stderr if arguments.table else sys.stdout)
    return 0


if __name__ == "__main__":
    sys.exit(main())
