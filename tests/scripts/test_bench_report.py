"""What the benchmarks make of their samples: exponents, ratios, verdicts, the page and the plot."""

import json
import pathlib
import sys
import tempfile
import xml.etree.ElementTree

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

sys.path.insert(0, str(REPOSITORY / "benchmarks"))
# pylint: disable=wrong-import-position
import bench
import plot
import report
import sections

MIB = sections.MIB
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
    curves = [("a < b", [(10, 0.5, 1, 2), (100, 5, 10, 20)]), ("other", [(10, 1, 1, 1)])]
    svg = xml.etree.ElementTree.fromstring(plot.plot([("left", "x", curves),
                                                      ("right", "y", curves)]))
    circles = [(float(each.get("cx")), float(each.get("cy")))
               for each in svg.iter("{http://www.w3.org/2000/svg}circle")]
    # In each panel the first curve comes last, above the others.
    assert len(circles) == 6
    (first_x, first_y), (second_x, second_y) = circles[1:3]
    # From 10 to 100 is the whole width; from 0.1 to 100 seconds are three decades of the height.
    assert second_x - first_x == plot.PANEL_WIDTH
    assert first_y - second_y == pytest.approx(plot.PANEL_HEIGHT / 3, abs=0.1)
    texts = {each.text for each in svg.iter("{http://www.w3.org/2000/svg}text")}
    assert {"left", "right", "a < b", "other", "0.1", "100"} <= texts


def sample(wall, rss_kib=1024):
    """A run that kept one core busy."""
    return {"wall": wall, "cpu": wall, "rss_kib": rss_kib}


class LinearCase:
    """A tree whose packing and extraction take a fixed time and 10 ns for each byte, and ours the
    `power` of that. Its blob is a tenth of it."""

    def __init__(self, content, power=1):
        self.name = f"{content // MIB} MiB"
        self.files, self.bytes = 1, content
        self._power = power

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass

    def _time(self, contestant):
        work = self.bytes * 1e-8
        return 0.5 + (work ** self._power if contestant in ("kpim", "finalizer") else work)

    def pack(self, packer):
        return sample(self._time(packer))

    def extract(self, extractor):
        return sample(self._time(extractor), rss_kib=2 * self.bytes // 1024)

    def archive_size(self, _):
        return self.bytes // 10

    def facts(self):
        return {"bytes": self.bytes}


def grown(tmp_path, power, monkeypatch):
    """A bench that has measured growth with such cases."""
    run = sections.Bench(tmp_path, tmp_path, 3, 1.0)
    fixed = {"extraction": {name: [sample(0.5)] for name in sections.EXTRACTORS},
             "packing": {name: [sample(0.5)] for name in sections.PACKERS}}
    monkeypatch.setattr(run, "fixed", lambda: fixed)
    sections.measure_growth(run, "size", "MB", [
        lambda content=content: LinearCase(content * MIB, power) for content in (10, 100, 400)],
        lambda case: case.bytes / 1e6)
    return run


def verdicts(run):
    """Goals by what they are about."""
    return {goal.what: goal for goal in run.goals}


def test_linear_growth_meets_its_goals(tmp_path, monkeypatch):
    run = grown(tmp_path, 1, monkeypatch)
    goals = verdicts(run)
    for activity in ("extraction", "packing"):
        assert goals[f"{activity}, growth with size, exponent"].value == pytest.approx(1)
    assert goals["extracting 400 MiB, peak memory"].value == 800
    assert goals["extracting 400 MiB, peak memory"].limit == 800 + 40 + 24
    assert all(str(goal).startswith("met: ") for goal in run.goals)


def test_quadratic_growth_misses_them_and_peers_do_not(tmp_path, monkeypatch):
    run = grown(tmp_path, 2, monkeypatch)
    goals = verdicts(run)
    assert goals["extraction, growth with size, exponent"].value == pytest.approx(2)
    assert str(goals["packing, growth with size, exponent"]) == (
        "missed: packing, growth with size, exponent: 2.000 of at most 1.050")
    exponents = {line.split("  ")[1]: line.split()[-1] for line in run.texts[-1].splitlines()[2:]}
    assert exponents["extraction, finalizer"] == "2.000"
    assert exponents["extraction, bsdtar"] == exponents["packing, xz"] == "1.000"
    slower = [what for what in goals if "time against" in what and goals[what].value > 1]
    assert "extracting 400 MiB, wall time against 7zz" in slower


def test_growth_packs_only_the_largest_trees_once(tmp_path, monkeypatch):
    run = grown(tmp_path, 1, monkeypatch)
    packed = [run.samples[f"growth with size, {size} MiB"]["samples"]["packing"]["kpim"]
              for size in (10, 100, 400)]
    assert [len(samples) for samples in packed] == [3, 1, 1]
    assert "packing 10 MiB, CPU time against 7zz" in verdicts(run)
    assert not any(what.startswith(("packing 100 MiB", "packing 400 MiB")) for what in verdicts(run))
    name, unit, curves = run.curves["size"]
    assert (name, unit) == ("Extraction by size", "MB")
    assert [contestant for contestant, _ in curves] == sections.EXTRACTORS


def test_speed_is_held_against_the_fastest_peer_by_each_clock(tmp_path):
    run = sections.Bench(tmp_path, tmp_path, 1, 1.0)
    run.judge_speed("it", {"ours": [{"wall": 2, "cpu": 3}], "busy": [{"wall": 1, "cpu": 9}],
                           "thrifty": [{"wall": 4, "cpu": 2}]})
    assert [str(goal) for goal in run.goals] == [
        "missed: it, wall time against busy: 2.000 (2.00..2.00) of at most 1.000",
        "missed: it, CPU time against thrifty: 1.500 (1.50..1.50) of at most 1.000"]


def test_a_verdict_on_speed_tells_between_what_its_ratios_lie(tmp_path):
    run = sections.Bench(tmp_path, tmp_path, 1, 1.0)
    run.judge_speed("it", {"ours": [{"wall": 1}, {"wall": 3}, {"wall": 4}],
                           "peer": [{"wall": 2}, {"wall": 3}, {"wall": 5}]}, ["wall"])
    assert [str(goal) for goal in run.goals] == [
        "met: it, wall time against peer: 0.800 (0.50..1.00) of at most 1.000"]


def test_memory_is_that_of_the_greediest_run(tmp_path):
    run = sections.Bench(tmp_path, tmp_path, 1, 1.0)
    runs = [sample(1, rss_kib=kib) for kib in (1024, 99 * 1024, 1024)]
    run.judge_memory("it", LinearCase(10 * MIB), runs)
    assert run.goals == [report.Verdict("it, peak memory", 99, 20 + 1 + 24, " MiB")]


def test_json_keeps_every_sample(tmp_path, monkeypatch):
    run = grown(tmp_path, 1, monkeypatch)
    bench.write_json(tmp_path / "out.json", {"cores": 2}, {"rounds": 3}, run)
    kept = json.loads((tmp_path / "out.json").read_text())
    assert kept["machine"] == {"cores": 2}
    assert kept["run"] == {"rounds": 3}
    assert kept["samples"] == run.samples
    assert kept["goals"][0] == run.goals[0]._asdict()


def test_settings_samples_are_in_seconds():
    entry = {"time_unit": "us", "real_time": 3e6, "cpu_time": 2e6}
    assert sections.settings_sample(entry) == pytest.approx({"wall": 3, "cpu": 2})
    with pytest.raises(ValueError):
        sections.settings_sample({**entry, "time_unit": "ns"})


def test_documents_get_report_and_plot(tmp_path, monkeypatch):
    run = grown(tmp_path, 1, monkeypatch)
    monkeypatch.setattr(bench, "DOCUMENT", tmp_path / "page.md")
    monkeypatch.setattr(bench, "PLOT", tmp_path / "plot.svg")
    (tmp_path / "page.md").write_text(f"before\n{BEGIN}\n{END}\nafter\n")
    bench.write_documents(run)
    page = (tmp_path / "page.md").read_text()
    assert page.startswith("before\n") and page.endswith("after\n")
    assert all(text in page for text in run.texts)
    assert "Extraction by size" in (tmp_path / "plot.svg").read_text()


def test_work_is_done_in_memory_when_it_fits(tmp_path, monkeypatch, capsys):
    elsewhere = tmp_path / "elsewhere"
    elsewhere.mkdir()
    monkeypatch.setattr(tempfile, "tempdir", str(elsewhere))
    monkeypatch.setattr(bench, "MEMORY_FILES", tmp_path)
    free = {tmp_path: 100, elsewhere: 1000}
    monkeypatch.setattr(bench, "free_in", free.get)
    monkeypatch.setattr(bench, "memory_of", lambda _: 50)
    assert bench.working_place(None, 50) == tmp_path
    assert capsys.readouterr().out == ""
    # The file system has room, the machine's memory has not.
    assert bench.working_place(None, 51) == elsewhere
    assert str(elsewhere) in capsys.readouterr().out
    assert bench.working_place(tmp_path, 100) == tmp_path
    with pytest.raises(SystemExit):
        bench.working_place(None, 1001)


@pytest.mark.parametrize("arguments", [
    ["--write-docs", "--quick"], ["--write-docs", "--only", "size"], ["--only", "nothing"],
    ["--rounds", "0"], ["--json", "/nonexistent/out.json"]])
def test_options_that_do_not_go_together(arguments, capsys):
    with pytest.raises(SystemExit) as ended:
        bench.parse_options(arguments)
    assert ended.value.code == 2
    assert "error: " in capsys.readouterr().err


def test_heading_tells_machine_and_versions():
    facts = {"processor": "P", "cores": 2, "kernel": "6", "commit": "abc",
             "7zz": "7-Zip (z) 22.01 (x64)", "xz": "xz (XZ Utils) 5.4.1", "bsdtar": "",
             "tar": "tar (GNU tar) 1.34"}
    text = bench.heading(facts, {"place": "memory", "rounds": 3, "quick": True})
    assert text.splitlines() == [
        "P, 2 cores, Linux 6, commit abc",
        "7zz 22.01, xz 5.4.1, bsdtar of unknown version, tar 1.34",
        "in memory, 3 paired rounds, medians",
        "a quick run: its trees are too small to judge by"]
