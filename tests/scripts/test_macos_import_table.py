"""The script that keeps the table of imports in docs/macos.md, against clang's and nm's output."""

import pathlib
import stat
import subprocess
import sys

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

sys.path.insert(0, str(REPOSITORY / "scripts"))
import macos_import_table as made  # noqa: E402  pylint: disable=wrong-import-position

SCRIPT = REPOSITORY / "scripts/macos_import_table.py"
HEADER = "/sdk/usr/include/a.h"


def mark(indent, introduced, platform="macos", inherited=""):
    return (f"{indent}-AvailabilityAttr 0x2 </sdk/usr/include/Availability.h:234:39, col:80> "
            f'{inherited}{platform} {introduced} 0 0 "" "" 0')


def function(name, *parts):
    return [f"|-FunctionDecl 0x1 <{HEADER}:1:1, col:19> col:5 {name} 'int (FILE *)'",
            "| |-ParmVarDecl 0x1 <col:13, col:18> col:19 'FILE *'", *parts]


def interface(name, *parts):
    return [f"|-ObjCInterfaceDecl 0x1 <line:1:1, line:9:2> line:1:12 {name}",
            "| |-super ObjCInterface 0x1 'NSObject'", *parts]


def method(selector, *parts, scope="-"):
    return [f"| |-ObjCMethodDecl 0x1 <line:3:1, col:9> col:1 {scope} {selector} 'id'",
            "| | |-ParmVarDecl 0x1 <col:4, col:5> col:5 url 'NSURL *'", *parts]


def read(*nodes):
    return made.Declarations([line for node in nodes for line in node])


# --- Headers -------------------------------------------------------------------------

def test_headers_are_those_of_c_and_objective_c_that_sources_include():
    sources = ['#include <cstring>\n#  include <sys/stat.h>\n#include <new>\n#include "own.h"\n',
               "#import <Foundation/Foundation.h>\n// #include <comment.h>\n#include <string.h>\n"]
    assert made.system_headers(sources) == ["Foundation/Foundation.h", "string.h", "sys/stat.h"]


@pytest.mark.parametrize("text, expected", [
    ("10.6", (10, 6)), ("10.6.0", (10, 6)), ("10.13.4", (10, 13, 4)), ("11.0", (11, 0))])
def test_a_release_is_numbers(text, expected):
    assert made.release(text) == expected


@pytest.mark.parametrize("number, expected", [
    (1060, "10.6"), (1090, "10.9"), (101000, "10.10"), (101406, "10.14"), (140200, "14.2")])
def test_the_headers_release_is_counted_in_two_ways(number, expected):
    assert made.headers_release(number) == expected


# --- Declarations --------------------------------------------------------------------

def test_a_symbol_has_the_mark_of_macos_and_of_no_other_platform():
    declared = read(function("open", mark("| |", "2.0", "ios"), mark("| |", "10.5"),
                             mark("| `", "10.15", "maccatalyst")),
                    function("close", mark("| `", "2.0", "ios")))
    assert declared.symbols == {"_open": (10, 5), "_close": None}


def test_a_mark_without_a_release_is_none():
    assert read(function("gets", mark("| `", "0"))).symbols == {"_gets": None}


def test_a_mark_holds_for_every_declaration_and_the_latest_counts():
    declared = read(function("a"), function("a", mark("| `", "10.5", inherited="Inherited ")),
                    function("a"), function("b", mark("| `", "10.10")),
                    function("b", mark("| `", "10.5")))
    assert declared.symbols == {"_a": (10, 5), "_b": (10, 10)}


@pytest.mark.parametrize("label_first", [True, False])
def test_a_label_is_the_symbol(label_first):
    parts = ['| |-AsmLabelAttr 0x2 </sdk/usr/include/sys/cdefs.h:664:47> "_stat$INODE64" '
             "IsLiteralLabel", mark("| |", "10.5")]
    declared = read(function("stat", *(parts if label_first else reversed(parts))),
                    function("stat", parts[0]))
    assert declared.symbols == {"_stat$INODE64": (10, 5)}


def test_what_the_compiler_knows_by_itself_is_not_declared():
    line = "|-FunctionDecl 0x1 <col:1> col:5 implicit used printf 'int (const char *, ...)' extern"
    assert read([line]).symbols == {}


def test_variables_are_symbols_and_types_are_not():
    declared = read([f"|-VarDecl 0x1 <{HEADER}:1:1, col:9> col:9 environ 'char **' extern",
                     mark("| `", "10.4")],
                    ["|-TypedefDecl 0x1 <line:2:1, col:9> col:9 size_t 'unsigned long'",
                     mark("| `", "10.9")])
    assert declared.symbols == {"_environ": (10, 4)}


def test_a_class_has_its_own_mark_and_not_its_methods():
    declared = read(interface("NSURL", mark("| |", "10.2"), *method("path", mark("| | `", "10.9"))),
                    interface("NSTask", *method("launch")))
    assert declared.symbols == {"_OBJC_CLASS_$_NSURL": (10, 2), "_OBJC_CLASS_$_NSTask": None}


def test_a_method_has_its_own_mark_else_its_classs():
    declared = read(interface("NSURL", mark("| |", "10.2"), *method("path"),
                              *method("host", mark("| | `", "10.9"))),
                    interface("NSTask", *method("host", mark("| | `", "10.4"), scope="+"),
                              *method("launch:with:")))
    assert declared.methods == {"path": [(10, 2)], "host": [(10, 9), (10, 4)],
                                "launch:with:": [None]}


def test_a_marked_parameter_or_property_dates_no_method():
    declared = read(interface("NSTask", *method("launch"),
                              "| |-ObjCPropertyDecl 0x1 <line:5:1, col:3> col:3 icon 'id'",
                              mark("| | `", "10.9")))
    assert declared.methods == {"launch": [None]}


def test_a_class_is_dated_by_the_marks_of_members_in_it_and_in_its_categories():
    declared = read(interface("NSURL", *method("path", mark("| | `", "10.4"))),
                    ["|-ObjCCategoryDecl 0x1 <line:1:1, line:3:2> line:1:12 Extras",
                     "| |-ObjCInterface 0x1 'NSURL'", *method("host", mark("| | `", "10.3"))],
                    ["|-ObjCProtocolDecl 0x1 <line:1:1, line:3:2> line:1:11 NSCoding",
                     *method("encode", mark("| | `", "10.1"))])
    assert declared.members == {"_OBJC_CLASS_$_NSURL": {(10, 4), (10, 3)}}


# --- Objects -------------------------------------------------------------------------

DECLARED = read(function("marked", mark("| `", "10.5")), function("newer", mark("| `", "10.10")),
                function("of_10_6", mark("| `", "10.6")), function("plain"),
                interface("NSMarked", mark("| |", "10.2")),
                interface("NSPlain", *method("a"), *method("b", mark("| | `", "10.7"))),
                interface("NSOld", *method("c", mark("| | |", "10.6")),
                          *method("d", mark("| | `", "10.5"))),
                interface("NSOf10_6", *method("f", mark("| | `", "10.6"))),
                interface("NSOther", *method("b", mark("| | `", "10.10")),
                          *method("d", mark("| | `", "10.10"))))


@pytest.mark.parametrize("library, symbol, expected", [
    ("libSystem", "_marked", (10, 5)), ("libSystem", "_plain", made.UNMARKED),
    ("libSystem", "dyld_stub_binder", made.UNDECLARED), ("libobjc", "_gone", made.UNDECLARED),
    ("libstdc++", "__Znwm", made.CXX_RUNTIME), ("libstdc++", "_marked", (10, 5)),
    ("Foundation", "_OBJC_CLASS_$_NSMarked", (10, 2)),
    ("Foundation", "_OBJC_METACLASS_$_NSMarked", (10, 2)),
    ("Foundation", "_OBJC_EHTYPE_$_NSMarked", (10, 2)),
    ("Foundation", "_OBJC_CLASS_$_NSOld", "10.5 or earlier"),
    ("Foundation", "_OBJC_CLASS_$_NSOf10_6", "10.6 or earlier"),
    # A member that came after 10.6 says nothing of 10.6.
    ("Foundation", "_OBJC_CLASS_$_NSPlain", made.UNMARKED),
])
def test_an_import_has_a_release_or_the_reason_why_not(library, symbol, expected):
    assert made.since(library, symbol, DECLARED) == expected


def test_an_import_newer_than_10_6_is_refused():
    rows = made.grouped({"libSystem": ["_marked", "_of_10_6", "_newer", "_plain"]}, DECLARED)
    assert list(made.too_new(rows, set(), DECLARED.methods)) == [
        "_newer (from libSystem): since 10.10"]


def test_a_selector_is_refused_when_every_method_that_has_it_is_newer():
    # c is of 10.6, d is old in one class, a has no mark, nobody declares e.
    assert list(made.too_new({}, {"a", "b", "c", "d", "e"}, DECLARED.methods)) == [
        "method b (of any class): since 10.7"]


@pytest.mark.parametrize("function_name, strings, when, name", [
    ("_NSSelectorFromString", ["text", "b", "newer"], (10, 7), "b"),
    ("_NSSelectorFromString", ["a"], made.UNMARKED, "a"),
    ("_NSClassFromString", ["NSMarked", "b"], (10, 2), "NSMarked"),
    ("_dlsym", ["newer", "b", "NSMarked"], (10, 10), "newer"),
    ("_dlsym", ["plain"], made.UNMARKED, "plain"),
])
def test_names_looked_up_are_strings_that_the_function_can_find(function_name, strings, when, name):
    entries, wrong = made.looked_up([("dir/A.mm.o", function_name, strings)], DECLARED)
    assert (entries, wrong) == ({when: {f"`{name}` (`{function_name[1:]}` in A.mm)"}}, [])


def test_a_lookup_of_a_name_that_is_not_seen_is_refused():
    entries, wrong = made.looked_up([("dir/A.mm.o", "_dlsym", ["b", "text"])], DECLARED)
    assert not entries
    assert wrong == ["A.mm: what it looks up with dlsym is in no header"]


def test_the_table_sorts_by_library_release_and_name():
    rows = {("libSystem", made.UNMARKED): {"_plain"}, ("libSystem", (10, 10)): {"_newer"},
            ("libSystem", (10, 5)): {"_b", "_a_b", "_a"},
            ("Foundation", (10, 2)): {"_OBJC_METACLASS_$_NSMarked", "_OBJC_CLASS_$_NSMarked"}}
    entries = {made.UNMARKED: {"`y`"}, (10, 10): {"`x`", "`w`"}}
    assert made.table("14.2", rows, entries).splitlines() == [
        "Made with the headers of macOS 14.2.", "",
        "| library | since | imports |", "|---|---|---|",
        "| Foundation | 10.2 | `NSMarked` |", "| libSystem | 10.5 | `a`, `a_b`, `b` |",
        "| libSystem | 10.10 | `newer` |", "| libSystem | undated, declared | `plain` |",
        "| looked up at run time | 10.10 | `w`, `x` |",
        "| looked up at run time | undated, declared | `y` |"]


# --- The whole script ----------------------------------------------------------------

NM = """case $1 in
-m) echo '                 (undefined) external _marked (from libSystem)'
    echo '                 (undefined) external _OBJC_CLASS_$_NSOld (from Foundation)'
    cat "$0.more" ;;
-A) echo 'dir/A.mm.o: _marked'; echo 'dir/B C.mm.o: _NSSelectorFromString' ;;
-U) echo '-[Own b]'; echo '_main' ;;
esac"""

OBJDUMP = r"""case "$2 $3" in
*__objc_selrefs*product) printf '%s\n' 'product:' 'Contents of (__DATA,__objc_selrefs) section' \
    '000000000001f788  __TEXT:__cstring:a' '000000000001f790  __TEXT:__objc_methname:b'
    cat "$0.more" ;;
*"__cstring dir/B C.mm.o") printf '%s\n' '0000000000000510  b' '0000000000000527  two words' ;;
--dylibs-used*) printf '\t/usr/lib/%s (compatibility version 1.0.0)\n' libSystem.B.dylib ;;
*) exit 1 ;;
esac"""

CLANG = """case "$*" in
*' -E '*) echo '# 1'; echo 140200 ;;
*-ast-dump*) cat > "$0.unit"; echo "$*" > "$0.arguments"; cat "$0.more" ;;
esac"""

DUMP = "\n".join(line for node in (
    function("marked", mark("| `", "10.5")), function("newer", mark("| `", "10.10")),
    interface("NSOld", *method("a"), *method("b", mark("| | |", "10.7")),
              *method("c", mark("| | |", "10.9")), *method("d", mark("| | `", "10.5"))))
    for line in node)

ROWS = ("Made with the headers of macOS 14.2.\n\n| library | since | imports |\n|---|---|---|\n"
        "| Foundation | 10.5 or earlier | `NSOld` |\n| libSystem | 10.5 | `marked` |\n"
        "| looked up at run time | 10.7 | `b` (`NSSelectorFromString` in B C.mm) |\n")


class Check:
    """The script with tools that print what it is to see."""

    def __init__(self, folder):
        self.folder = folder
        self.page = folder / "page.md"
        self.write_page(ROWS)
        for name, script in (("nm", NM), ("objdump", OBJDUMP), ("clang", CLANG)):
            tool = folder / name
            tool.write_text(f"#!/bin/sh\n{script}\n")
            tool.chmod(tool.stat().st_mode | stat.S_IXUSR)
            self.add(name, "")
        self.add("clang", DUMP)

    def add(self, tool, more):
        (self.folder / f"{tool}.more").write_text(more)

    def write_page(self, table):
        self.page.write_text(f"before\n<!-- imports -->\n{table}<!-- /imports -->\nafter\n")

    def run(self, *arguments):
        tools = [f"--{name}={self.folder / name}" for name in ("nm", "objdump", "clang")]
        return subprocess.run([SCRIPT, *tools, "--sdk", "/sdk", "--image", "product",
                               "--include", "/lzma", "--page", self.page, *arguments,
                               "dir/A.mm.o", "dir/B C.mm.o"],
                              text=True, capture_output=True, check=False)


@pytest.fixture
def check(tmp_path):
    return Check(tmp_path)


def test_a_page_that_says_what_the_objects_say_passes(check):
    result = check.run()
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == ("product: 2 imports of 2 libraries as page.md lists them, "
                             "none newer than 10.6, 1 looked up at run time\n")


def test_clang_reads_the_products_headers_for_10_6(check):
    check.run()
    unit = (check.folder / "clang.unit").read_text()
    for header in ("Foundation/Foundation.h", "ServiceManagement/ServiceManagement.h", "libproc.h",
                   "LzmaDec.h", "string.h", "objc/message.h", "unwind.h"):
        assert f"#include <{header}>\n" in unit
    arguments = (check.folder / "clang.arguments").read_text()
    assert "--target=x86_64-apple-macosx10.6 -isysroot /sdk " in arguments
    assert f"-idirafter {REPOSITORY}/shared/platform/mac/compat " in arguments
    assert " -I/lzma " in arguments


@pytest.mark.parametrize("old, new", [
    ("`marked`", "`marked`, `gone`"), ("| libSystem | 10.5 | `marked` |\n", ""),
    ("| libSystem | 10.5 |", "| libSystem | 10.4 |"), ("| libSystem |", "| Security |"),
    ("`b`", "`c`")])
def test_a_page_that_says_something_else_fails(check, old, new):
    check.write_page(ROWS.replace(old, new))
    result = check.run()
    assert result.returncode == 1 and result.stdout == ""
    assert "page.md is out of date: run scripts/check-macos.sh with --write" in result.stderr
    assert "\n-" in result.stderr or "\n+" in result.stderr


def test_other_headers_may_date_and_place_differently_but_name_the_same(check):
    dated = ROWS.replace("macOS 14.2", "macOS 11.3")
    dated = dated.replace("| libSystem | 10.5 |", "| libm | 10.4 |")
    check.write_page(dated)
    assert check.run().returncode == 0
    check.write_page(dated.replace("`marked`", "`gone`"))
    result = check.run()
    assert result.returncode == 1
    assert "-`gone`\n" in result.stderr and "+`marked`\n" in result.stderr


def test_write_puts_the_table_between_the_marks(check):
    expected = check.page.read_text()
    check.write_page("old\n")
    assert check.run("--write").returncode == 0
    assert check.page.read_text() == expected


def test_a_page_without_marks_is_an_error_and_stays(check):
    check.page.write_text("before\n<!-- imports -->\n")
    result = check.run("--write")
    assert result.returncode == 1 and "lacks <!-- imports --> or <!-- /imports -->" in result.stderr
    assert check.page.read_text() == "before\n<!-- imports -->\n"


@pytest.mark.parametrize("tool, more, fault", [
    ("nm", "(undefined) external _newer (from libSystem)\n",
     "_newer (from libSystem): since 10.10"),
    # Undated, and known to be newer.
    ("nm", "(undefined) external _openat (from libSystem)\n",
     "_openat (from libSystem): newer than 10.6"),
    ("nm", "(undefined) external __ZdlPvm (from libstdc++)\n",
     "__ZdlPvm: not shared by the C++ libraries"),
    ("objdump", "000000000001f798  __TEXT:__cstring:c\n",
     "method c (of any class): since 10.9"),
    ("clang", DUMP.replace("- b 'id'", "- x 'id'"),
     "B C.mm: what it looks up with NSSelectorFromString is in no header"),
])
def test_what_10_6_lacks_fails_even_when_it_is_written_down(check, tool, more, fault):
    check.add(tool, more)
    result = check.run("--write")
    assert result.returncode == 1
    assert result.stderr == f"macos_import_table: {fault}\n"


def test_a_compiler_that_fails_is_an_error(check):
    (check.folder / "clang").write_text("#!/bin/sh\nexit 1\n")
    assert check.run().returncode == 1
