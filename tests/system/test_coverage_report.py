"""What scripts/coverage.py makes of llvm-cov's segments and of the page with the reasons."""

import importlib.util

import pytest

from install_root import REPOSITORY

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


def test_only_the_table_of_reasons_counts():
    page = ("| `a.cpp` | other |\n\nWhat was not reached:\n\n| file | what |\n|---|---|\n"
            "| `b.cpp`, `c.mm` | `d.cpp` |\n\n## Next\n\n| `e.cpp` | x |\n")
    assert coverage.explained(page) == {"b.cpp", "c.mm"}


def test_the_real_page_has_reasons_for_files_that_exist():
    names = coverage.explained(coverage.REASONS.read_text(encoding="utf-8"))
    files = {path.name for folder in coverage.PRODUCT for path in (REPOSITORY / folder).rglob("*")}
    assert names and names <= files
