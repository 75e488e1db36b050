"""What the benchmarks make of their samples: exponents, ratios, verdicts, the page and the plot."""

import importlib.util
import xml.etree.ElementTree

import pytest

from install_root import REPOSITORY

MODULE = importlib.util.spec_from_file_location("report", REPOSITORY / "benchmarks/report.py")
report = importlib.util.module_from_spec(MODULE)
MODULE.loader.exec_module(report)

BEGIN = "<!-- begin measured by scripts/bench.sh -->"
END = "<!-- end measured by scripts/bench.sh -->"


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


@pytest.mark.parametrize("value, word", [(0.5, "met"), (1, "met"), (1.01, "missed")])
def test_verdict(value, word):
    assert report.verdict("it", value, 1, " s") == f"{word}: it: {value:.2f} s of at most 1.00 s"


def test_table_has_columns():
    assert report.table("title", [["a", "bbb"], ["cc", "d"]]) == "title\n  a   bbb\n  cc  d"


def test_page_gets_the_report_between_its_markers():
    page = f"before\n{BEGIN}\n```\nold\n```\n{END}\nafter\n"
    once = report.between_markers(page, "\nnew\n")
    assert once == f"before\n{BEGIN}\n```\nnew\n```\n{END}\nafter\n"
    assert report.between_markers(once, "new") == once
    for broken in (page.replace(END, ""), page + BEGIN):
        with pytest.raises(ValueError):
            report.between_markers(broken, "new")


def test_the_real_page_has_the_markers():
    page = (REPOSITORY / "docs/performance.md").read_text()
    assert report.between_markers(page, "new").count("new\n```\n" + END) == 1


def test_plot_places_points_on_logarithmic_axes():
    curves = [("one", [(10, 0.5, 1, 2), (100, 5, 10, 20)]), ("other", [(10, 1, 1, 1)])]
    svg = xml.etree.ElementTree.fromstring(report.plot([("left", "x", curves),
                                                        ("right", "y", curves)]))
    circles = [(float(each.get("cx")), float(each.get("cy")))
               for each in svg.iter("{http://www.w3.org/2000/svg}circle")]
    assert len(circles) == 6
    (first_x, first_y), (second_x, second_y) = circles[:2]
    # From 10 to 100 is the whole width; from 0.1 to 100 seconds are three decades of the height.
    assert second_x - first_x == report.PANEL_WIDTH
    assert first_y - second_y == pytest.approx(report.PANEL_HEIGHT / 3, abs=0.1)
    texts = {each.text for each in svg.iter("{http://www.w3.org/2000/svg}text")}
    assert {"left", "right", "one", "other", "0.1", "100"} <= texts
