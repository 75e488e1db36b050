#!/usr/bin/env python3
"""Keeps the table of docs/macos.md: what the product imports, since which release each exists.

    scripts/macos_import_table.py --sdk DIR --image IMAGE [--write] OBJECT...

OBJECT are the product's object files, IMAGE is what they link to. Symbols and their libraries
come from IMAGE, names that are looked up at run time from the objects, releases from the
availability marks of the SDK's headers, as clang reads them. Fails when the page's table is
another one, and when something is newer than 10.6. scripts/check-macos.sh calls this.
"""

import argparse
import collections
import difflib
import pathlib
import re
import shutil
import subprocess
import sys

import macos_imports
from macos_imports import output_of

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
PAGE = REPOSITORY / "docs/macos.md"
PRODUCT = ("player", "shared/platform/mac", "shared/platform/posix")
TARGET = "x86_64-apple-macosx10.6"
OLDEST = (10, 6)
NEVER = (sys.maxsize,)

BEGIN, END = "<!-- imports -->\n", "<!-- /imports -->\n"

# What the table says instead of a release. The page explains them.
AT_LATEST = "{} or earlier"
UNMARKED = "undated, declared"
UNDECLARED = "undated, compiler"
CXX_RUNTIME = "undated, C++ runtime"
LOOKED_UP = "looked up at run time"

# These declare what the compiler calls by itself.
COMPILER_HEADERS = ("objc/message.h", "objc/objc-exception.h", "objc/runtime.h", "unwind.h")

CLASS = "_OBJC_CLASS_$_"

# Functions that look a name up at run time, and the symbol that it stands for; None: a selector.
LOOKUPS = {
    "_NSSelectorFromString": None,
    "_sel_registerName": None,
    "_sel_getUid": None,
    "_NSClassFromString": CLASS + "{}",
    "_objc_getClass": CLASS + "{}",
    "_objc_lookUpClass": CLASS + "{}",
    "_dlsym": "_{}",
    "_CFBundleGetFunctionPointerForName": "_{}",
}

INCLUDE = re.compile(r"^\s*#\s*(?:include|import)\s*<([^>]+)>", re.MULTILINE)
C_HEADER_OF_CXX = re.compile(r"c([a-z]+)")

# A line of clang's dump: indentation by two characters per level, kind, address, the rest.
NODE = re.compile(r"([ |`-]+)(\w+) 0x[0-9a-f]+ (.*)")
MARK = re.compile(r"> (?:Inherited |Implicit )*macos (\d+\.[\d.]+) ")
LABEL = re.compile(r'> (?:Inherited )?"([^"]+)"')
NAME = re.compile(r" (\S+) '")
METHOD = re.compile(r" [-+] (\S+) '")

EXTENDED = re.compile(r"'([^']+)'")

SECTION_LINE = re.compile(r"[0-9a-f]{16}  (.*)")
SELECTOR_LINE = re.compile(r"[0-9a-f]{16}  __TEXT:__\w+:(\S+)")
OWN_METHOD = re.compile(r"[-+]\[\S+ (\S+)\]")
UNDEFINED_LINE = re.compile(r"(.*): (\S+)")


# --- Headers -------------------------------------------------------------------------

def system_headers(texts):
    """The C and Objective-C headers that sources include, each once."""
    found = {name for text in texts for name in INCLUDE.findall(text)}
    return sorted({C_HEADER_OF_CXX.sub(r"\1.h", name) if "." not in name else name
                   for name in found if "." in name or C_HEADER_OF_CXX.fullmatch(name)})


def release(mark):
    """(10, 6) for "10.6" and "10.6.0"."""
    numbers = [int(number) for number in mark.split(".")]
    while len(numbers) > 2 and numbers[-1] == 0:
        numbers.pop()
    return tuple(numbers)


def declared_symbol(kind, rest):
    """The symbol of a top-level declaration in clang's dump, None for what has none."""
    if kind == "ObjCInterfaceDecl":
        return CLASS + rest.split()[-1]
    if kind in ("FunctionDecl", "VarDecl") and " implicit " not in rest:
        return "_" + NAME.search(rest)[1]
    return None


class Declarations:
    """What headers declare.

    symbols  the release of each symbol, None when no declaration of it has a mark
    methods  for each selector the releases of the methods that have it, None for one without a mark
    members  for each class the releases of its marked members: it is as old as the oldest of them
    """

    def __init__(self, dump):
        self.symbols = {}
        self.methods = collections.defaultdict(list)
        self.members = collections.defaultdict(set)
        self._symbol = self._owner = self._owner_release = self._method = None
        for line in dump:
            node = NODE.match(line)
            if node:
                self._read(len(node[1]) // 2, node[2], node[3])

    def _read(self, level, kind, rest):
        if level == 1:
            self._begin(kind, rest)
        elif level == 2 and kind == "ObjCMethodDecl":
            self._method = METHOD.search(rest)[1]
            self.methods[self._method].append(self._owner_release)
        elif level == 2:
            self._method = None
            self._read_part(kind, rest)
        elif level == 3 and kind == "AvailabilityAttr" and (mark := MARK.search(rest)):
            if self._method:
                self.methods[self._method][-1] = release(mark[1])
            if self._owner:
                self.members[self._owner].add(release(mark[1]))

    def _begin(self, kind, rest):
        self._symbol = self._owner = declared_symbol(kind, rest)
        self._owner_release = self._method = None
        if self._symbol:
            self.symbols.setdefault(self._symbol, None)

    def _read_part(self, kind, rest):
        if kind == "AvailabilityAttr" and (mark := MARK.search(rest)):
            self._owner_release = release(mark[1])
            if self._symbol:
                self.symbols[self._symbol] = max(self.symbols[self._symbol] or (),
                                                 self._owner_release)
        elif kind == "AsmLabelAttr" and self._symbol:
            plain, self._symbol = self._symbol, LABEL.search(rest)[1]
            self.symbols[self._symbol] = (self.symbols.pop(plain)
                                          or self.symbols.get(self._symbol))
        elif kind == "ObjCInterface" and not self._symbol:
            # The class that a category extends.
            self._owner = CLASS + EXTENDED.search(rest)[1]


def headers_release(number):
    """ "14.2" for 140200 and "10.6" for 1060, the two ways in which headers count releases."""
    if number < 100000:
        return f"{number // 100}.{number // 10 % 10}"
    return f"{number // 10000}.{number // 100 % 100}"


class Headers:
    """The SDK's headers, read by clang as the product's are."""

    def __init__(self, clang, sdk, folders):
        self.command = [clang, f"--target={TARGET}", "-isysroot", sdk, "-x", "objective-c", "-w",
                        "-idirafter", REPOSITORY / "shared/platform/mac/compat"]
        self.command += [f"-I{folder}" for folder in folders]

    def run(self, unit, *arguments):
        return subprocess.run([*self.command, *arguments, "-"], input=unit, check=True, text=True,
                              stdout=subprocess.PIPE).stdout

    def release(self):
        unit = "#include <Availability.h>\n__MAC_OS_X_VERSION_MAX_ALLOWED\n"
        return headers_release(int(self.run(unit, "-E", "-P").split()[-1]))

    def declarations(self, names):
        unit = "".join(f"#include <{name}>\n" for name in names)
        dump = self.run(unit, "-fsyntax-only", "-Xclang", "-ast-dump", "-fno-color-diagnostics")
        return Declarations(dump.splitlines())


# --- Objects -------------------------------------------------------------------------

def matches(pattern, text):
    return [match[1] for match in map(pattern.fullmatch, text.splitlines()) if match]


def section(objdump, file, name):
    return output_of(objdump, "--macho", f"--section={name}", file)


def messages(nm, objdump, image):
    """The selectors that the image sends and has no method for."""
    sent = matches(SELECTOR_LINE, section(objdump, image, "__DATA,__objc_selrefs"))
    if not sent:
        raise SystemExit(f"macos_import_table: {image}: no selectors found")
    return set(sent) - set(matches(OWN_METHOD, output_of(nm, "-U", "-j", image)))


def lookups(nm, objdump, objects):
    """(object, function, strings of the object) for each object that looks names up."""
    for line in output_of(nm, "-A", "-u", "-j", *objects).splitlines():
        match = UNDEFINED_LINE.fullmatch(line)
        if match and match[2] in LOOKUPS:
            strings = matches(SECTION_LINE, section(objdump, match[1], "__TEXT,__cstring"))
            yield match[1], match[2], strings


# --- What it comes to ----------------------------------------------------------------

def looked_up(found, declared):
    """Row entries by release for the names that `found` lookups are for, and what is wrong."""
    entries, wrong = collections.defaultdict(set), []
    for file, function, strings in found:
        source = pathlib.Path(file).name.removesuffix(".o")
        pattern = LOOKUPS[function]
        named = {}
        for string in strings:
            if pattern is None and string in declared.methods:
                named[string] = earliest(declared.methods[string]) or UNMARKED
            elif pattern and pattern.format(string) in declared.symbols:
                named[string] = declared.symbols[pattern.format(string)] or UNMARKED
        if not named:
            wrong.append(f"{source}: what it looks up with {function[1:]} is in no header")
        for name, when in named.items():
            entries[when].add(f"`{name}` (`{function[1:]}` in {source})")
    return entries, wrong


def earliest(releases):
    """The release that first had one of several methods; None when one of them has no mark."""
    return None if None in releases else min(releases)


def header_symbol(symbol):
    """The symbol that a header declares for an imported one: a class stands for its parts."""
    return re.sub(r"^_OBJC_(METACLASS|EHTYPE)_\$_", lambda _: CLASS, symbol)


def since(library, symbol, declared):
    """The release of an import, or why it has none."""
    name = header_symbol(symbol)
    if declared.symbols.get(name):
        return declared.symbols[name]
    oldest_member = min(declared.members.get(name, {NEVER}))
    if oldest_member <= OLDEST:
        return AT_LATEST.format(dotted(oldest_member))
    if library == "libstdc++":
        return CXX_RUNTIME
    return UNMARKED if name in declared.symbols else UNDECLARED


def shown(symbol):
    """A symbol as sources write it."""
    return header_symbol(symbol).removeprefix(CLASS).removeprefix("_")


def dotted(when):
    return ".".join(map(str, when)) if isinstance(when, tuple) else when


def by_release(when):
    """Sorts releases by number, before what has none."""
    return isinstance(when, str), when


def too_new(rows, sent, methods):
    """What 10.6 lacks by the headers' marks, one line each."""
    for (library, when), symbols in rows.items():
        if isinstance(when, tuple) and when > OLDEST:
            for symbol in sorted(symbols):
                yield f"{symbol} (from {library}): since {dotted(when)}"
    for selector in sorted(sent):
        releases = methods.get(selector)
        if releases and (first := earliest(releases)) and first > OLDEST:
            yield f"method {selector} (of any class): since {dotted(first)}"


def grouped(imports, declared):
    """Imports by library and release."""
    rows = collections.defaultdict(set)
    for library, names in imports.items():
        for name in names:
            rows[library, since(library, name, declared)].add(name)
    return rows


def table(made_with, rows, entries):
    """The table, as the page has it."""
    lines = [f"Made with the headers of macOS {made_with}.", "",
             "| library | since | imports |", "|---|---|---|"]
    for library, when in sorted(rows, key=lambda row: (row[0], by_release(row[1]))):
        names = sorted({shown(symbol) for symbol in rows[library, when]})
        lines.append(f"| {library} | {dotted(when)} | {', '.join(f'`{name}`' for name in names)} |")
    for when in sorted(entries, key=by_release):
        lines.append(f"| {LOOKED_UP} | {dotted(when)} | {', '.join(sorted(entries[when]))} |")
    return "\n".join(lines) + "\n"


# --- The page ------------------------------------------------------------------------

def split_page(text):
    """The page before, in and after the table."""
    parts = re.fullmatch(f"(.*{BEGIN})(.*)({END}.*)", text, re.DOTALL)
    if not parts:
        raise SystemExit(f"macos_import_table: the page lacks {BEGIN.strip()} or {END.strip()}")
    return parts.groups()


def comparable(first, second):
    """Two tables as far as they must agree. Headers of different releases may date a symbol, and
    their stubs place it, differently; what is imported is the same with both."""
    if first.split("\n", 1)[0] == second.split("\n", 1)[0]:
        return first.splitlines(), second.splitlines()
    return tuple(sorted({name for line in text.splitlines() if line.startswith("| ")
                         for name in line.rsplit("|", 2)[1].strip().split(", ")})
                 for text in (first, second))


def check_page(page, made, write):
    """Compares the page's table with the one made, or puts it there; returns whether they agree."""
    before, old, after = split_page(page.read_text(encoding="utf-8"))
    if write:
        page.write_text(before + made + after, encoding="utf-8")
        return True
    difference = list(difflib.unified_diff(*comparable(old, made), f"{page.name} says",
                                           "the objects say", lineterm="", n=0))
    if difference:
        print("\n".join(difference), file=sys.stderr)
        print(f"macos_import_table: {page.name} is out of date: "
              "run scripts/check-macos.sh with --write-imports", file=sys.stderr)
    return not difference


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("objects", nargs="+", metavar="OBJECT")
    parser.add_argument("--sdk", required=True, help="the SDK's folder")
    parser.add_argument("--image", required=True, help="what the objects link to")
    parser.add_argument("--include", action="append", default=[], metavar="DIR",
                        help="another folder with headers that the product includes")
    parser.add_argument("--page", type=pathlib.Path, default=PAGE)
    parser.add_argument("--write", action="store_true", help="put the table into the page")
    for tool in ("nm", "objdump"):
        parser.add_argument(f"--{tool}", default=shutil.which(f"llvm-{tool}") or f"llvm-{tool}-14",
                            help=f"LLVM's {tool}")
    parser.add_argument("--clang", default="clang")
    arguments = parser.parse_args()
    nm, objdump, image = arguments.nm, arguments.objdump, arguments.image

    sources = [path.read_text(encoding="utf-8") for folder in PRODUCT
               for path in (REPOSITORY / folder).rglob("*") if path.suffix in (".h", ".cpp", ".mm")]
    headers = Headers(arguments.clang, arguments.sdk, arguments.include)
    declared = headers.declarations([*system_headers(sources), *COMPILER_HEADERS])

    imports = macos_imports.imports(nm, image)
    rows = grouped(imports, declared)
    entries, wrong = looked_up(lookups(nm, objdump, arguments.objects), declared)
    wrong += macos_imports.faults(macos_imports.loads(objdump, image), imports)
    wrong += too_new(rows, messages(nm, objdump, image), declared.methods)
    for fault in wrong:
        print(f"macos_import_table: {fault}", file=sys.stderr)
    made = table(headers.release(), rows, entries)
    if not check_page(arguments.page, made, arguments.write) or wrong:
        return 1
    print(f"product: {sum(map(len, imports.values()))} imports of {len(imports)} libraries as "
          f"{arguments.page.name} lists them, none newer than 10.6, "
          f"{sum(map(len, entries.values()))} looked up at run time")
    return 0


if __name__ == "__main__":
    sys.exit(main())
