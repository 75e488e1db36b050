"""The rows of docs/kpim.md's table of odd blobs, with every command and the finalizer."""

import dataclasses
import re

import pytest

import blob
import finalizer_log
from install_root import BLOB, BUNDLE, REPOSITORY, Node
from kpim_program import FAILED, NOT_SOLID, OK, error, make_bundle, names, tree_of, warning

A1, A2, B2 = (blob.stored_file(*file) for file in (("a", b"1"), ("a", b"2"), ("b", b"2")))
FOLDER = blob.stored_directory("a", [blob.stored_file("b", b"3")])


@dataclasses.dataclass
class Row:
    """`said` is kpim's message about the blob, `unpacked` the files that it writes (None: nothing),
    `installed` the finalizer's result (None: no bundle; bytes: a file in its place), and `logged`
    its lines about the blob."""

    data: bytes
    status: int
    said: str
    unpacked: dict
    installed: dict
    logged: list = dataclasses.field(default_factory=list)


def malformed(reason):
    return [f"[E] FIN: ERROR: The payload blob is malformed: {reason}."]


def clash(path, count=1):
    noun = "path is" if count == 1 else "paths are"
    return error("blob", f"cannot be installed whole: {count} {noun} both a file and a directory: "
                         f"{path}")


NOT_SOLID_LINE = error("blob", NOT_SOLID)
UNWRITTEN = finalizer_log.not_written

ROWS = {
    "empty": Row(b"", FAILED, error("blob", "not a payload blob: empty"), None, None),
    "not a blob": Row(
        b"hello, world\n", FAILED, error("blob", "not a payload blob"), None, None,
        malformed("an entry has an unknown header version at byte 0")),
    "malformed": Row(
        blob.solid_root([A1], compress=False)[:-1], FAILED,
        error("blob", "malformed: an entry's size runs past the end at byte 3"), None, None,
        malformed("an entry's size runs past the end at byte 3")),
    "empty root": Row(blob.solid_root([]), OK, "", {}, {}),
    "two roots": Row(
        blob.solid_root([A1]) + blob.solid_root([B2]), FAILED,
        NOT_SOLID_LINE, {"a": b"1", "b": b"2"}, {"a": b"1", "b": b"2"}),
    "named root": Row(
        FOLDER, FAILED, NOT_SOLID_LINE, {"a": None, "a/b": b"3"}, None,
        UNWRITTEN(f"{BUNDLE}/a", 2, 2, "No such file or directory")),
    "file": Row(A1, FAILED, NOT_SOLID_LINE, {"a": b"1"}, None,
                UNWRITTEN(f"{BUNDLE}/a", 1, 1, "No such file or directory")),
    "nameless file": Row(blob.stored_file("", b"1"), FAILED, NOT_SOLID_LINE, {}, b"1"),
    "root and file": Row(blob.solid_root([]) + A1, FAILED, NOT_SOLID_LINE, {"a": b"1"},
                         {"a": b"1"}),
    "file and root": Row(
        A1 + blob.solid_root([B2]), FAILED, NOT_SOLID_LINE, {"a": b"1", "b": b"2"}, {"b": b"2"},
        UNWRITTEN(f"{BUNDLE}/a", 1, 3, "No such file or directory")),
    "nameless file and root": Row(
        blob.stored_file("", b"1") + blob.solid_root([B2]), FAILED, NOT_SOLID_LINE, {"b": b"2"},
        b"1", UNWRITTEN(BUNDLE, 2, 3, "Not a directory")),
    "repeated file": Row(
        blob.solid_root([A1, A2]), OK,
        warning("blob", "1 path with more than one file, of which the last counts: a"),
        {"a": b"2"}, {"a": b"2"}),
    "repeated files": Row(
        blob.solid_root([A1, blob.stored_file("b", b""), A2, blob.stored_file("b", b"3"), A1]), OK,
        warning("blob", "2 paths with more than one file, of which the last counts: a, ..."),
        {"a": b"1", "b": b"3"}, {"a": b"1", "b": b"3"}),
    "repeated folder": Row(
        blob.solid_root([FOLDER, blob.stored_directory("a/", [blob.stored_file("c", b"4")])]), OK,
        "", {"a": None, "a/b": b"3", "a/c": b"4"}, {"a": None, "a/b": b"3", "a/c": b"4"}),
    "file, then folder": Row(
        blob.solid_root([A1, FOLDER]), FAILED, clash("a"), {"a": b"1"}, {"a": b"1"},
        UNWRITTEN(f"{BUNDLE}/a", 2, 4, "Not a directory")),
    "folder, then file": Row(
        blob.solid_root([FOLDER, A1]), FAILED, clash("a"), {"a": None, "a/b": b"3"},
        {"a": None, "a/b": b"3"}, UNWRITTEN(f"{BUNDLE}/a", 1, 4, "Is a directory")),
    "file without a name": Row(
        blob.solid_root([blob.stored_file("", b"1")]), FAILED, clash("."), {}, {},
        UNWRITTEN(f"{BUNDLE}", 1, 2, "Is a directory")),
    "file with a folder's name": Row(
        blob.solid_root([blob.stored_file("a/", b"1")]), FAILED, clash("a"), {}, {},
        UNWRITTEN(f"{BUNDLE}/a/", 1, 2, "Is a directory")),
}
EVERY_ROW = pytest.mark.parametrize("row", ROWS.values(), ids=ROWS.keys())


def can_be_read(row):
    return row.unpacked is not None


@EVERY_ROW
@pytest.mark.parametrize("command", [["list"], ["list", "--json"], ["verify"], ["diff"]], ids=" ".join)
def test_reading_commands(run, tmp_path, row, command):
    (tmp_path / "blob").write_bytes(row.data)
    # Every blob differs from the other; kpim's message about the blob comes first.
    operands = ["blob", "other"] if command == ["diff"] else ["blob"]
    make_bundle(tmp_path / "other", {"z": b""})
    result = run(*command, *operands)
    if command == ["diff"] and can_be_read(row):
        assert result.returncode == FAILED
        assert result.stderr.startswith(row.said + "kpim: blob: ")
        assert result.stderr.endswith(" from other\n")
        assert "extra: z" in result.stdout
        return
    assert (result.returncode, result.stderr) == (row.status, row.said)
    # A blob that can be read is listed, even when it cannot be installed.
    assert (result.stdout != "") == (can_be_read(row) and (command[0] == "list" or row.status == OK))


@EVERY_ROW
def test_blob_is_the_same_as_itself(run, tmp_path, row):
    (tmp_path / "blob").write_bytes(row.data)
    result = run("diff", "blob", "blob")
    assert result.returncode == row.status
    assert result.stderr.startswith(row.said)


@EVERY_ROW
def test_unpack(run, tmp_path, row):
    (tmp_path / "blob").write_bytes(row.data)
    result = run("unpack", "blob", "out")
    assert (result.returncode, result.stderr[:len(row.said)]) == (row.status, row.said)
    if can_be_read(row):
        assert tree_of(tmp_path / "out") == row.unpacked
    else:
        assert (result.stdout, names(tmp_path)) == ("", ["blob"])


@EVERY_ROW
def test_finalizer(finalizer_run, install_root, row):
    install_root.write(BLOB, row.data)
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success("", *row.logged)
    assert not install_root.path(BLOB).exists()
    if row.installed is None:
        assert not install_root.path(BUNDLE).exists()
        return
    if isinstance(row.installed, bytes):
        assert install_root.path(BUNDLE).read_bytes() == row.installed
        return
    tree = install_root.tree(BUNDLE)
    assert tree.pop(".") == Node("directory", 0o775)
    assert {name: node.content for name, node in tree.items()} == row.installed


def test_every_row_is_documented():
    text = (REPOSITORY / "docs/kpim.md").read_text()
    table = text.split("## Odd blobs")[1].split("\n## ")[0]
    documented = {}
    for line in table.splitlines():
        names_of_row = re.match(r"\| [^|]*\(([^)|]+)\)[^|]*\| ([01])[, ]", line)
        if names_of_row:
            documented.update(dict.fromkeys(names_of_row[1].split("; "), int(names_of_row[2])))
    assert documented == {name: row.status for name, row in ROWS.items()}
