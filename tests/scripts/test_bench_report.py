"""What the benchmarks make of their samples: ratios, exponents and verdicts."""

import pathlib
import sys

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

sys.path.insert(0, str(REPOSITORY / "benchmarks"))
# pylint: disable=wrong-import-position
import report


@pytest.mark.parametrize("power", [0, 0.5, 1, 2])
def test_exponent(power):
    points = [(x, 3 * x ** power) for x in (10, 100, 400)]
    assert report.exponent(points) == pytest.approx(power)


def test_exponent_is_of_the_least_squares_line():
    assert report.exponent([(1, 1), (10, 100), (100, 100)]) == pytest.approx(1)


def test_ratio_is_the_median_of_pairs():
    ours = [{"wall": 1}, {"wall": 2}, {"wall": 9}]
    theirs = [{"wall": 2}, {"wall": 2}, {"wall": 1}]
    assert report.ratio(ours, theirs, "wall") == 1
    assert report.median(ours, "wall") == 2
    assert report.spread(ours, "wall", 1) == "1.0..9.0"


def test_difference_is_the_median_of_pairs():
    ours = [{"wall": 5}, {"wall": 6}, {"wall": 30}]
    theirs = [{"wall": 4}, {"wall": 3}, {"wall": 1}]
    assert report.difference(ours, theirs, "wall") == 3
    assert report.greatest(ours, "wall") == 30


def test_exponent_beyond_a_fixed_cost():
    points = [(x, 5 + 3 * x) for x in (10, 100, 400)]
    assert report.exponent(points) < 0.96
    assert report.exponent_beyond(points, 5) == pytest.approx(1)


def test_points_within_the_fixed_cost_have_no_exponent():
    points = [(10, 4.9), (100, 5), (400, 7), (800, 9)]
    assert report.exponent_beyond(points, 5) == pytest.approx(1)
    assert report.exponent_beyond(points[:3], 5) is None


@pytest.mark.parametrize("value, word", [(0.5, "met"), (1, "met"), (1.001, "missed")])
def test_verdict(value, word):
    assert str(report.Verdict("it", value, 1, " s")) == (
        f"{word}: it: {value:.2f} s of at most 1.00 s")
    assert str(report.Verdict("it", value, 1)) == f"{word}: it: {value:.3f} of at most 1.000"


def test_verdict_of_what_was_not_measured():
    assert str(report.Verdict("it", None, 1)) == "not measured: it"
