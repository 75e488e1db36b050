"""The results that the benchmarks compute from samples: ratios, exponents and verdicts."""

import pathlib
import sys
from types import SimpleNamespace

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

sys.path.insert(0, str(REPOSITORY / "benchmarks"))
# pylint: disable=wrong-import-position
import bench
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


def packing(title, ours, *rows):
    columns = ["packing", "CPU s", "peak MiB", "our CPU / its", "our wall / its", "our bytes / its"]
    return report.table(title, [columns, [ours, "9.99", "100.0", "1.00", "1.00", "1.0000"], *rows])


def test_ratios_of_a_report():
    text = "\n\n".join([
        "a machine, 2 cores\nin memory, medians",
        packing("large: 10 files, 1.0 MiB", "kpim", ["7zz", "1", "50.0", "1.01", "1.17", "1.0002"],
                ["xz", "1", "200.0", "0.82", "0.9", "0.9"]),
        packing("small: 2 files", "kpim --threads 2", ["7zz, its default", "1", "80.0", "0.5", "3", "2"],
                ["xz -T2", "1", "100.0", "0.25", "3", "1"]),
        report.table("small: 2 files", [
            ["extraction", "wall s", "peak MiB", "our wall / its", "our CPU / its"],
            ["finalizer", "1", "90.0", "1.00", "1.00"], ["7zz", "1", "60.0", "0.83", "0.84"],
            ["xz | tar", "1", "45.0", "1.26", "0.88"], ["bsdtar", "1", "30.0", "0.76", "0.77"]]),
        report.table("packing, growth with size", [["packing", "runs", "our CPU / 7zz"], ["1 MB", "3", "9"]]),
        report.table("fixed cost, 3 paired runs: nothing", [
            ["a run", "peak MiB", "our wall / its"], ["finalizer", "9", "1.00"], ["7zz", "3", "5.05"],
            ["xz | tar", "3", "5.1"], ["bsdtar", "3", "4"], ["empty_program", "3", "6"]]),
        "goals\n  met: something"])
    assert report.ratios_of(text).splitlines()[2:] == [
        "| pack `large`, CPU time | 1.01 | 0.82 |  |",
        "| pack `large`, size of the blob | 1.00 | 0.90 |  |",
        "| pack `small` with two threads, wall time | 3.00 | 3.00 |  |",
        "| pack `small` with two threads, CPU time | 0.50 | 0.25 |  |",
        "| extract `small`, wall time | 0.83 | 1.26 | 0.76 |",
        "| extract `small`, CPU time | 0.84 | 0.88 | 0.77 |",
        "| extract `small`, peak memory | 1.50 | 2.00 | 3.00 |",
        "| extract one tiny file, wall time | 5.05 | 5.10 | 4.00 |"]


def test_text_between_markers():
    begin, end = (report.MARKER.format(edge=edge) for edge in ("begin", "end"))
    assert report.between_markers(f"a\n{begin}\nold\n{end}\nb\n", "new\n") == (
        f"a\n{begin}\n\nnew\n\n{end}\nb\n")
    with pytest.raises(ValueError):
        report.between_markers(f"a\n{begin}\n", "new")


def test_page_has_the_ratios_of_the_report():
    page = (REPOSITORY / "docs/performance.md").read_text(encoding="utf-8")
    text = (REPOSITORY / "docs/performance-report.txt").read_text(encoding="utf-8")
    assert len(report.ratios_of(text).splitlines()) == 17
    assert report.between_markers(page, report.ratios_of(text)) == page


def test_documents_are_written(tmp_path, monkeypatch):
    names = {"DOCUMENT": "performance.md", "REPORT": "performance-report.txt", "PLOT": "growth.svg"}
    for variable, name in names.items():
        monkeypatch.setattr(bench, variable, tmp_path / name)
    begin, end = (report.MARKER.format(edge=edge) for edge in ("begin", "end"))
    (tmp_path / "performance.md").write_text(f"Above.\n{begin}\n{end}\nBelow.\n")
    curve = ("Extraction", "MB", [("finalizer", [(1, 1, 2, 3), (10, 2, 3, 4)])])
    table = packing("large: 10 files", "kpim", ["7zz", "1", "50.0", "1.01", "1.17", "1.0002"])
    bench.write_documents(SimpleNamespace(texts=["a machine", table], curves={"size": curve}))
    assert (tmp_path / "performance-report.txt").read_text() == f"a machine\n\n{table}\n"
    page = (tmp_path / "performance.md").read_text()
    assert "| pack `large`, CPU time | 1.01 |" in page and page.startswith("Above.") and "Below." in page
    assert "<svg" in (tmp_path / "growth.svg").read_text()
