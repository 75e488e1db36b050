"""scripts/coverage.py with llvm-cov's segments and reasons in the source."""

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
    assert coverage.ranges([]) == []
    assert coverage.ranges([3, 4, 5, 9]) == [(3, 5), (9, 9)]


@pytest.mark.parametrize("first, last, expected", [
    (1, 1, False), (2, 2, True), (3, 3, True), (4, 6, False), (1, 2, True)])
def test_a_reason_stands_among_the_lines_or_just_before_them(first, last, expected):
    lines = ["if (self == nil) {", "  // Untested: it never is.", "  return nil;",
             "}", "// Untested: ", "return self;"]
    assert coverage.has_reason(lines, first, last) == expected
