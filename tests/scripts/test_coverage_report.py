"""What scripts/coverage.py makes of llvm-cov's segments and of the page with the reasons."""

import collections
import importlib.util
import pathlib

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

MODULE = importlib.util.spec_from_file_location("coverage", REPOSITORY / "scripts/coverage.py")
coverage = importlib.util.module_from_spec(MODULE)
MODULE.loader.exec_module(coverage)


def segment(line, column, count, has_count=True, is_gap=False):
    return [line, column, count, has_count, True, is_gap]


@pytest.mark.parametrize("segments, lines", [
    ([segment(1, 1, 5), segment(9, 2, 0, has_count=False)], []),
    # Up to the line before when the next begins at a line's first column, else that line, too.
    ([segment(1, 1, 5), segment(3, 4, 0), segment(5, 4, 5), segment(9, 1, 0, False)], [3, 4, 5]),
    ([segment(1, 1, 5), segment(3, 4, 0), segment(5, 1, 5), segment(9, 1, 0, False)], [3, 4]),
    ([segment(1, 1, 5), segment(3, 4, 0, is_gap=True), segment(5, 1, 5)], []),
    ([segment(1, 1, 5), segment(3, 4, 0, has_count=False), segment(5, 1, 5)], []),
])
def test_uncovered_lines(segments, lines):
    assert coverage.uncovered_lines({"segments": segments}) == lines


def test_ranges():
    assert coverage.ranges([]) == ""
    assert coverage.ranges([3, 4, 5, 9]) == "3-5, 9"


@pytest.mark.parametrize("name, plain", [
    ("main", "main"),
    ("SASM::ConfigFileManager::ProcessLine(char*)", "SASM::ConfigFileManager::ProcessLine"),
    ("kpim::(anonymous namespace)::Describe[abi:cxx11](kpim::Difference const&)", "kpim::Describe"),
    ("_i_KP_DECOMP_KPIMLogger__initWithPath_", "-[KP_DECOMP_KPIMLogger initWithPath:]"),
    ("_c_KPIMCommonUtil__getSystemOSVersion", "+[KPIMCommonUtil getSystemOSVersion]"),
    ("_i_KPIMDownload__connection_didReceiveData_", "-[KPIMDownload connection:didReceiveData:]"),
])
def test_plain_name(name, plain):
    assert coverage.plain_name(name) == plain


def test_plain_names_of_symbols():
    assert coverage.plain_names(["main", "_Z10getAllPIDsPPi", "a.cpp:_ZN12_GLOBAL__N_13RunEv",
                                 "a.mm:_i_Some__init"]) == [
        "main", "getAllPIDs", "Run", "-[Some init]"]


def test_a_line_belongs_to_the_innermost_function():
    def region(first, last, file=0, kind=0):
        return [first, 1, last, 2, 1, file, 0, kind]

    # A lambda in a function with an expanded macro of another file, and a gap.
    functions = [
        {"name": "outer", "filenames": ["a", "b"],
         "regions": [region(10, 30), region(90, 99, file=1), region(31, 40, kind=3)]},
        {"name": "inner", "filenames": ["a"], "regions": [region(15, 20)]},
    ]
    extents = coverage.extents_of_functions(functions)["a"]
    assert [coverage.function_of(line, extents) for line in (9, 10, 15, 20, 30, 31, 90)] == [
        "no function", "outer", "inner", "inner", "outer", "no function", "no function"]


def test_only_rows_with_a_reason_in_the_table_count():
    page = ("| `a.cpp` | `A` | 1 | why |\n\nWhat was not reached:\n\n"
            "| file | function | lines | why |\n|---|---|---|---|\n"
            "| `b.cpp` | `B::C` | 3 | why |\n| `b.cpp` | `B::C` | 1 | another |\n"
            "| `c.mm` | `-[D e:]` | 2 |  |\n\n## Next\n\n| `e.cpp` | `E` | 1 | why |\n")
    assert coverage.explained(page) == {("b.cpp", "B::C"): 4}


@pytest.mark.parametrize("unreached, known, told", [
    ({("a", "f"): 2}, {("a", "f"): 2}, []),
    ({("a", "f"): 2}, {}, ["names 0 lines of f in a that are never reached; there are 2"]),
    ({}, {("a", "f"): 2}, ["names 2 lines of f in a that are never reached; there are 0"]),
    ({("a", "f"): 3}, {("a", "f"): 2}, ["names 2 lines of f in a that are never reached; "
                                        "there are 3"]),
    ({("b", "f"): 1}, {("a", "f"): 1}, ["names 1 lines of f in a that are never reached; "
                                        "there are 0",
                                        "names 0 lines of f in b that are never reached; "
                                        "there are 1"]),
])
def test_every_line_has_a_row_and_every_row_its_lines(unreached, known, told):
    complaints = coverage.complaints(collections.Counter(unreached), collections.Counter(known))
    assert list(complaints) == [f"testing.md {text}" for text in told]


def test_the_real_page_has_reasons_for_files_that_exist():
    names = {file for file, _ in coverage.explained(coverage.REASONS.read_text(encoding="utf-8"))}
    files = {path.name for folder in coverage.PRODUCT for path in (REPOSITORY / folder).rglob("*")}
    assert names and names <= files
