"""kpim diff."""

import os

import pytest

import blob
from kpim_program import (FAILED, NO_SUCH_FILE, OK, USAGE, error, make_bundle, result_of,
                          write_blob)

LEFT = [
    blob.stored_directory("c", [
        blob.stored_file("empty", b""),
        blob.stored_file("file", b"1"),
        blob.stored_directory("folder", [blob.stored_file("inside", b"")]),
        blob.stored_file("longer", b"12"),
        blob.stored_file("other", b"12345"),
        blob.stored_file("same", b"12345"),
    ]),
    blob.stored_directory("gone", [blob.stored_file("inside", b"")]),
    blob.stored_directory("Same", [blob.stored_file("a", b"1")]),
]
RIGHT = {
    "c/empty": b"", "c/file/inside": b"", "c/folder": b"", "c/longer": b"1", "c/other": b"1234x",
    "c/same": b"12345", "c/new": b"", "new/inside": b"", "Same/a": b"1"}
LINES = ["type mismatch: c/file", "type mismatch: c/folder", "different: c/longer", "extra: c/new",
         "different: c/other", "missing: gone", "extra: new"]
REVERSED = [line.replace("missing", "?").replace("extra", "missing").replace("?", "extra")
            for line in LINES]


@pytest.fixture
def sides(tmp_path):
    """Files: a blob in two encodings, and a folder and its blob with other contents."""
    write_blob(tmp_path, LEFT, name="left")
    write_blob(tmp_path, LEFT, name="stored", compress=False)
    make_bundle(tmp_path / "folder", RIGHT)
    (tmp_path / "right").write_bytes(blob.pack(tmp_path / "folder"))


@pytest.mark.usefixtures("sides")
@pytest.mark.parametrize("left, right, lines", [
    ("left", "right", LINES), ("left", "folder", LINES), ("left", "folder/", LINES),
    ("right", "left", REVERSED), ("folder", "left", REVERSED)])
def test_each_difference_is_a_line(run, left, right, lines):
    result = run("diff", left, right)
    assert (result.returncode, result.stdout.splitlines()) == (FAILED, lines)
    assert result.stderr == error(left, f"7 differences from {right}")


@pytest.mark.usefixtures("sides")
@pytest.mark.parametrize("left, right", [
    ("left", "left"), ("left", "stored"), ("right", "folder"), ("folder", "right")])
def test_no_difference(run, left, right):
    totals = "12 entries, 14 bytes" if left == "left" else "13 entries, 12 bytes"
    result = run("diff", left, right)
    assert (result.returncode, result.stdout, result.stderr) == (
        OK, f"{left}: the same as {right}, {totals}\n", "")


def test_every_name_in_a_blob_counts(run, tmp_path):
    write_blob(tmp_path, [], name="left")
    write_blob(tmp_path, [blob.stored_file(".DS_Store", b"")], name="right")
    assert run("diff", "left", "right").stdout == "extra: .DS_Store\n"
    make_bundle(tmp_path / "folder", {".DS_Store": b""})
    assert run("diff", "left", "folder").returncode == OK


def test_what_is_installed_is_compared(run, tmp_path):
    """The order of entries and the way they merge do not count."""
    write_blob(tmp_path, [blob.stored_directory("d", [blob.stored_file("a", b"1")]),
                          blob.stored_directory("d/", [blob.stored_file("b", b"2")])], name="left")
    write_blob(tmp_path, [blob.stored_directory("d", [blob.stored_file("b", b"2"),
                                                      blob.stored_file("a", b"1")])], name="right")
    result = run("diff", "left", "right")
    assert (result.returncode, result.stdout) == (
        OK, "left: the same as right, 4 entries, 2 bytes\n")


@pytest.mark.usefixtures("sides")
def test_operands_that_cannot_be_compared(run, tmp_path):
    make_bundle(tmp_path / "other", {})
    (tmp_path / "text").write_text("hello\n")
    assert run.fails("diff", "left", "missing") == error("missing", NO_SUCH_FILE)
    assert run.fails("diff", "missing", "folder") == error("missing", NO_SUCH_FILE)
    assert run.fails("diff", "folder", "other") == error(
        "other", "a directory, like folder: one of the two must be a blob")
    assert run.fails("diff", "left", "text") == error("text", "not a payload blob")
    assert run.fails("diff", "text", "folder") == error("text", "not a payload blob")
    result = run("diff", "-", "-")
    assert (result.returncode, result.stdout, result.stderr) == (
        USAGE, "", error("diff", "only one of the two can be standard input"))


@pytest.mark.usefixtures("sides")
@pytest.mark.parametrize("left, right, lines", [("-", "right", LINES), ("right", "-", REVERSED),
                                                ("folder", "-", REVERSED)])
def test_standard_input(run, left, right, lines):
    data = (run.folder / "left").read_bytes()
    result = run("diff", left, right, input=data)
    shown = [name.replace("-", "standard input") for name in (left, right)]
    assert (result.returncode, result.stdout.splitlines()) == (FAILED, lines)
    assert result.stderr == error(shown[0], f"7 differences from {shown[1]}")


@pytest.mark.usefixtures("sides")
def test_json(run, tmp_path):
    result = run("diff", "--json", "left", "right")
    assert (result.returncode, result.stderr) == (FAILED, error("left", "7 differences from right"))
    assert result_of(result) == {
        "ok": False, "left": "left", "right": "right", "entries": 12, "bytes": 14,
        "differences": [dict(zip(["kind", "path"], line.split(": "))) for line in LINES],
        "warnings": [], "errors": [{"about": "left", "text": "7 differences from right"}]}
    os.unlink(tmp_path / "folder/c/same")
    (tmp_path / "folder/c/same").symlink_to("nowhere")
    assert {"kind": "unreadable", "path": "c/same", "text": NO_SUCH_FILE} in result_of(
        run("diff", "--json", "left", "folder"))["differences"]
    assert result_of(run("diff", "--json", "stored", "left")) == {
        "ok": True, "left": "stored", "right": "left", "entries": 12, "bytes": 14,
        "differences": [], "warnings": [], "errors": []}


def test_names_do_not_steer_the_terminal(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file(b"a\n\x1b\xe2\x80\xae", b"")], name="l\x1b")
    write_blob(tmp_path, [], name="r\x1b")
    result = run("diff", "l\x1b", "r\x1b")
    assert result.stdout == r"missing: a\x0a\x1b\xe2\x80\xae" + "\n"
    assert result.stderr == error(r"l\x1b", r"1 difference from r\x1b")
    assert run("diff", "r\x1b", "r\x1b").stdout == (
        r"r\x1b: the same as r\x1b, 0 entries, 0 bytes" + "\n")
