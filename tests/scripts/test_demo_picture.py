"""scripts/demo_picture.py, and that docs/demo.svg shows the demo as it is."""

import pathlib
import re
import subprocess
import xml.etree.ElementTree

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
TEXT = "{http://www.w3.org/2000/svg}text"


def make_picture(output):
    return subprocess.run([REPOSITORY / "scripts/demo_picture.py"], input=output, text=True, check=True,
                          capture_output=True).stdout


def lines_of(picture):
    return [text.text for text in xml.etree.ElementTree.fromstring(picture).iter(TEXT)]


def test_every_line_is_there():
    output = "\n-- A section\na <b> & 'c'\n  indented\n"
    assert lines_of(make_picture(output)) == [
        "$ scripts/demo.sh", "-- A section", "a <b> & 'c'", "  indented"]


def test_long_lines_are_wrapped_and_complete():
    line = "word " * 50 + "x" * 300
    parts = lines_of(make_picture(line))[1:]
    assert len(parts) > 4 and max(map(len, parts)) <= 112
    assert "".join(parts) == line


def test_the_folder_of_a_run_is_left_out():
    assert make_picture("/tmp/kpinstall-demo-a1_b/payload.lzma: done") == (
        make_picture("/var/tmp/kpinstall-demo-zzz/payload.lzma: done"))


def test_lines_appear_in_their_order():
    delays = [float(delay) for delay in re.findall(r"animation-delay:([\d.]+)s", make_picture("a\nb\n-- c"))]
    assert len(delays) == 4 and delays == sorted(set(delays))


@pytest.fixture(scope="module")
def committed():
    return (REPOSITORY / "docs/demo.svg").read_text(encoding="utf-8")


def test_committed_picture_needs_nothing_else(committed):
    assert not re.search(r"href|url\(|@import|<script|<image", committed)
    assert re.findall(r"https?://[^\s\"<]*", committed.replace("http://www.w3.org/2000/svg", "")) == [
        "https://download.tarvix.example"]


def test_committed_picture_is_of_this_demo(committed):
    """It has the headings that scripts/demo.py prints, in their order, and shows a run that succeeded."""
    source = (REPOSITORY / "scripts/demo.py").read_text(encoding="utf-8")
    headings = [re.split("[{:]", text)[0] for text in re.findall(r'    heading\(f?"([^"]+)"', source)]
    shown = [line.removeprefix("-- ") for line in lines_of(committed) if line.startswith("-- ")]
    assert len(headings) == len(shown) == 8
    assert all(line.startswith(text) for line, text in zip(shown, headings))
    lines = "\n".join(lines_of(committed))
    assert "[finalizer succeeded]" in lines and "diff -r: no difference" in lines
