#!/usr/bin/python3
"""Writes a link stub with the symbols that the unit tests import from the system.

    scripts/macos_test_stub.py --nm NM --sdk DIR --output STUB FILE...

FILE are the objects that the tests are linked from. A name that none of them defines must be the C++
library's, a class of the system's, or in a stub or header of the SDK; anything else is missing from
the tests themselves, and fails. The SDK's own stubs need not list what only tests use.
"""

import argparse
import pathlib
import re
import subprocess
import sys

# The C++ library's names, and those of its run-time support that the compiler uses.
CXX_LIBRARY = re.compile(r"__ZN?K?S[a-z].*|__ZT[ISVTC]+N?K?St.*|__ZTVN10__cxxabiv1.*"
                         r"|__Z(n|d)[wal].*|___cxa_\w+|___gxx_personality_v0|___dynamic_cast")
SYSTEM_CLASS = re.compile(r"_OBJC_(CLASS|METACLASS|EHTYPE|IVAR)_\$_NS\w+(\.\w+)?")
# Names that the C library's macros and the compiler use without a declaration.
COMPILER = re.compile(r"___(\w+_chk|bzero|stack_chk_\w+|error)|_memset_pattern\d+|dyld_stub_binder")
STUB_WORD = re.compile(r"[\w$.]+")
COMMENT = re.compile(rb"/\*.*?\*/|//[^\n]*", re.DOTALL)
# A function's name is followed by its parameters, a variable's by the end of its declaration or by an
# attribute, which is a macro in capitals.
DECLARED = re.compile(rb"\b(\w+)\s*(?:[(;\[]|_*[A-Z]{2}[A-Z_0-9]+\b)")
HEADERS = ("usr/include", "System/Library/Frameworks/Foundation.framework",
           "System/Library/Frameworks/CoreFoundation.framework",
           "System/Library/Frameworks/Security.framework",
           "System/Library/Frameworks/SystemConfiguration.framework")


def symbols(nm, which, files):
    """The undefined ("-u") or defined ("-U") symbols of the files."""
    result = subprocess.run([nm, "-g", "-j", which, *files], check=False, text=True,
                            stdout=subprocess.PIPE)
    if result.returncode != 0:
        raise SystemExit("macos_test_stub: the symbols cannot be listed")
    lines = result.stdout.splitlines()
    return {line.strip() for line in lines if line.strip() and not line.endswith(":")}


def listed(sdk):
    """The names that the SDK's own stubs list."""
    words = set()
    for stub in sdk.rglob("*.tbd"):
        words.update(STUB_WORD.findall(stub.read_text(encoding="utf-8", errors="replace")))
    return words


def declared(sdk):
    """The words of the SDK's headers that may be the name of a function or a variable."""
    words = set()
    for folder in HEADERS:
        for header in (sdk / folder).rglob("*.h"):
            words.update(DECLARED.findall(COMMENT.sub(b" ", header.read_bytes())))
    return {word.decode("ascii", "replace") for word in words}


def is_systems(symbol, words):
    plain = symbol.removeprefix("_").split("$")[0]
    return (CXX_LIBRARY.fullmatch(symbol) or SYSTEM_CLASS.fullmatch(symbol)
            or COMPILER.fullmatch(symbol) or plain in words)


def stub(names):
    quoted = ",\n                       ".join(f"'{name}'" for name in sorted(names))
    return ("--- !tapi-tbd\ntbd-version:     4\ntargets:         [ x86_64-macos, arm64-macos ]\n"
            "install-name:    '/usr/lib/what-the-tests-ask-for.dylib'\nexports:\n"
            f"  - targets:         [ x86_64-macos, arm64-macos ]\n    symbols:         [ {quoted} ]\n"
            "...\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("files", nargs="+", metavar="FILE")
    parser.add_argument("--nm", default="llvm-nm", help="LLVM's nm")
    parser.add_argument("--sdk", required=True, type=pathlib.Path, help="the SDK's folder")
    parser.add_argument("--output", required=True, type=pathlib.Path, help="the stub to write")
    arguments = parser.parse_args()

    missing = (symbols(arguments.nm, "-u", arguments.files)
               - symbols(arguments.nm, "-U", arguments.files))
    words = declared(arguments.sdk)
    unknown = sorted(name for name in missing - listed(arguments.sdk)
                     if not is_systems(name, words))
    for name in unknown:
        print(f"macos_test_stub: {name}: not defined, and not of the system", file=sys.stderr)
    arguments.output.write_text(stub(missing), encoding="utf-8")
    return 1 if unknown else 0


if __name__ == "__main__":
    sys.exit(main())
