"""kpim unpack."""

import os
import pty
import re
import resource
import shutil
import stat
import subprocess

import pytest

import blob
from kpim_program import (AWKWARD_NAMES, FAILED, NO_SUCH_FILE, OK, error, make_bundle, names,
                          read_terminal, result_of, tree_of, write_blob)


@pytest.mark.parametrize("umask", [0o022, 0o077])
def test_unpack(run, tmp_path, bundle, bundle_blob, umask):
    (tmp_path / "blob").write_bytes(bundle_blob)
    result = run("unpack", "blob", "out", preexec_fn=lambda: os.umask(umask))
    content = tree_of(bundle)
    count = sum(len(data) for data in content.values() if data is not None)
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == f"out: {len(content)} entries, {count} bytes written\n"
    out = tmp_path / "out"
    assert tree_of(out) == content
    for path in [out, *out.rglob("*")]:
        assert stat.S_IMODE(path.stat().st_mode) == (0o775 if path.is_dir() else 0o664)


def test_unpack_undoes_pack(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {
        **{name: name for name in AWKWARD_NAMES}, b"n" * 255: b"", b"d/e/f": os.urandom(70_000),
        b"d/empty": None})
    assert run("pack", "B").returncode == OK
    assert run("verify", "B.lzma", "B").returncode == OK
    assert run("unpack", "B.lzma", "out").returncode == OK
    assert tree_of(tmp_path / "out") == tree_of(bundle)


def test_unpack_drops_execute_bits(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"a": b"1"})
    (bundle / "a").chmod(0o755)
    run("pack", "B")
    run("unpack", "B.lzma", "out")
    assert stat.S_IMODE((tmp_path / "out/a").stat().st_mode) == 0o664


@pytest.mark.parametrize("directory", ["empty", "empty/", "link", "link/", "new", "new/",
                                       "empty/new", "{absolute}/new"])
def test_unpack_into_an_empty_or_new_directory(run, tmp_path, small_blob, directory):
    (tmp_path / "empty").mkdir()
    (tmp_path / "link").symlink_to("empty")
    directory = directory.format(absolute=tmp_path)
    result = run("unpack", "small", directory)
    assert (result.returncode, result.stderr) == (OK, "")
    assert tree_of(tmp_path / directory) == {"a": b"12345"}


def test_unpack_leaves_an_existing_directory_its_mode(run, tmp_path, small_blob):
    (tmp_path / "empty").mkdir(mode=0o700)
    assert run("unpack", "small", "empty").returncode == OK
    assert stat.S_IMODE((tmp_path / "empty").stat().st_mode) == 0o700


def test_unpack_refuses_other_directories(run, tmp_path, small_blob):
    make_bundle(tmp_path / "full", {"b": b"1"})
    make_bundle(tmp_path / "hidden", {".DS_Store": b"1"})
    (tmp_path / "dangling").symlink_to("nowhere")
    before = names(tmp_path)
    for directory, why in [("full", "Directory not empty"), ("hidden", "Directory not empty"),
                           (".", "Directory not empty"), ("small", "Not a directory"),
                           ("missing/out", NO_SUCH_FILE), ("", NO_SUCH_FILE),
                           ("dangling", NO_SUCH_FILE)]:
        assert run.fails("unpack", "small", directory) == error(directory or "''", why)
    assert names(tmp_path) == before
    assert tree_of(tmp_path / "full") == {"b": b"1"}


def test_unpack_where_it_may_not_write(run, tmp_path, small_blob):
    (tmp_path / "parent").mkdir(mode=0o500)
    result = run.unprivileged("unpack", "small", "parent/out")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("parent/out", "Permission denied")
    result = run.unprivileged("unpack", "small", "parent")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == (
        error("parent/a", "could not be written") +
        error("parent", "1 of 2 entries could not be written: Permission denied"))


def test_unpack_of_an_empty_root(run, tmp_path):
    write_blob(tmp_path, [])
    assert run("unpack", "blob", "out").stdout == "out: 0 entries, 0 bytes written\n"
    assert names(tmp_path / "out") == []


def test_unpack_tells_what_it_could_not_write(run, tmp_path):
    write_blob(tmp_path, [
        blob.stored_directory("d", [blob.stored_file("inside", b"1")]),
        blob.stored_file("long", b"1" * 1000),
        blob.stored_file("short", b"1"),
    ])
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (500, 500))
    errors = run.fails("unpack", "blob", "out", preexec_fn=limit)
    assert errors == (error("out/long", "not written as the blob has it") +
                      error("out", "1 of 5 entries could not be written: File too large"))
    assert tree_of(tmp_path / "out") == {"d": None, "d/inside": b"1", "long": b"1" * 500,
                                         "short": b"1"}
    # The first two are for the directory itself.
    result = run.with_fault("mkdir:error=ENOSPC:when=3", "unpack", "blob", "other")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == (
        error("other/d", "could not be written") +
        error("other", "2 of 5 entries could not be written: No space left on device"))
    assert names(tmp_path / "other") == ["long", "short"]


def test_unpack_of_paths_longer_than_the_system_allows(run, tmp_path):
    name = "n" * 255
    entry = blob.stored_file("bottom", b"1")
    for _ in range(30):
        entry = blob.stored_directory(name, [entry])
    write_blob(tmp_path, [entry], compress=False)
    assert run("unpack", "blob", "out").stdout == "out: 31 entries, 1 byte written\n"
    # From folder to folder.
    *_, (_, _, files, _) = os.fwalk(tmp_path / "out")
    depth = sum(len(folders) for _, folders, _, _ in os.fwalk(tmp_path / "out"))
    assert (depth, files) == (30, ["bottom"])
    shutil.rmtree(tmp_path / "out")


def test_unpack_shows_progress_on_a_terminal(run, small_blob):
    terminal, side = pty.openpty()
    process = run.start("unpack", "small", "out", stdout=subprocess.DEVNULL, stderr=side)
    os.close(side)
    shown = read_terminal(terminal).decode()
    assert process.wait(timeout=300) == OK
    assert re.fullmatch(r"\rwriting \.\.\.\rwriting \.\.\. \d+ s\r\n", shown)


# Single entries

ENTRIES = [
    blob.stored_directory("Contents", [
        blob.stored_file("Info.plist", b"12"),
        blob.stored_directory("MacOS", [blob.stored_file("Player", b"1"),
                                        blob.stored_file("Player.old", b"2")]),
        blob.stored_directory("Contents", [blob.stored_file("Info.plist", b"3")]),
        blob.stored_directory("Empty", []),
    ]),
    blob.stored_file("Info.plist", b"4"),
]


@pytest.mark.parametrize("paths, expected", [
    (["Info.plist"], {"Info.plist": b"4"}),
    (["Contents/Info.plist"], {"Contents": None, "Contents/Info.plist": b"12"}),
    (["Contents/MacOS/", "./Info.plist"],
     {"Contents": None, "Contents/MacOS": None, "Contents/MacOS/Player": b"1",
      "Contents/MacOS/Player.old": b"2", "Info.plist": b"4"}),
    (["Contents/MacOS/Player", "Contents/Empty"],
     {"Contents": None, "Contents/MacOS": None, "Contents/MacOS/Player": b"1",
      "Contents/Empty": None}),
    (["Contents/MacOS", "Contents/MacOS/Player", "Contents/MacOS"],
     {"Contents": None, "Contents/MacOS": None, "Contents/MacOS/Player": b"1",
      "Contents/MacOS/Player.old": b"2"}),
    (["."], None),
])
def test_unpack_of_single_entries(run, tmp_path, paths, expected):
    write_blob(tmp_path, ENTRIES)
    if expected is None:
        run("unpack", "blob", "all")
        expected = tree_of(tmp_path / "all")
        assert len(expected) == 9
    result = run("unpack", "blob", "out", *paths)
    assert (result.returncode, result.stderr) == (OK, "")
    assert tree_of(tmp_path / "out") == expected
    count = sum(len(data) for data in expected.values() if data is not None)
    noun = "entry" if len(expected) == 1 else "entries"
    unit = "byte" if count == 1 else "bytes"
    assert result.stdout == f"out: {len(expected)} {noun}, {count} {unit} written\n"


def test_unpack_of_an_entry_that_shares_its_path(run, tmp_path):
    """Folders of one name merge, and of two files the later one counts, as when everything is
    unpacked."""
    write_blob(tmp_path, [
        blob.stored_directory("d", [blob.stored_file("a", b"1"), blob.stored_file("b", b"2")]),
        blob.stored_directory("d/", [blob.stored_file("a", b"3")])])
    assert run("unpack", "blob", "out", "d/a").returncode == OK
    assert tree_of(tmp_path / "out") == {"d": None, "d/a": b"3"}


@pytest.mark.parametrize("path", ["info.plist", "Contents/Info", "/Info.plist", "..", "../Info.plist",
                                  "Contents/../Info.plist", "Info.plist/x", "", "Contents\x1b\u202e"])
def test_unpack_of_an_entry_that_is_not_there(run, tmp_path, path):
    write_blob(tmp_path, ENTRIES)
    shown = path.replace("\x1b\u202e", r"\x1b\xe2\x80\xae") or "''"
    assert run.fails("unpack", "blob", "out", "Info.plist", path) == error(shown, "not in blob")
    assert names(tmp_path) == ["blob"]


def test_unpack_json(run, tmp_path):
    write_blob(tmp_path, ENTRIES)
    result = run("unpack", "--json", "blob", "out", "Contents/MacOS/Player")
    assert (result.returncode, result.stderr) == (OK, "")
    assert result_of(result) == {
        "ok": True, "blob": "blob", "directory": "out", "entries": 3, "bytes": 1,
        "differences": [], "warnings": [], "errors": []}


def test_unpack_json_of_what_could_not_be_written(run, tmp_path):
    write_blob(tmp_path, [blob.stored_directory("d\u202e", []), blob.stored_file(b"f\xff", b"")])
    result = run.with_fault("mkdir:error=ENOSPC:when=3", "unpack", "--json", "blob", "out")
    assert result.returncode == FAILED
    assert result_of(result) == {
        "ok": False, "blob": "blob", "directory": "out", "entries": 2, "bytes": 0,
        "differences": [{"kind": "missing", "path": "d\u202e"}],
        "warnings": [], "errors": [
            {"about": "out/d\u202e", "text": "could not be written"},
            {"about": "out",
             "text": "1 of 3 entries could not be written: No space left on device"}]}
    assert result.stderr.startswith("kpim: out/d\\xe2\\x80\\xae: could not be written\n")
    result = run("unpack", "--json", "blob", "out")
    assert result_of(result) == {
        "ok": False, "blob": "blob", "directory": "out", "warnings": [],
        "errors": [{"about": "out", "text": "Directory not empty"}]}


def test_operands_do_not_steer_the_terminal(run, small_blob):
    result = run("unpack", "small", "o\x1bt\u202e")
    assert (result.returncode, result.stdout) == (
        OK, r"o\x1bt\xe2\x80\xae: 1 entry, 5 bytes written" + "\n")
