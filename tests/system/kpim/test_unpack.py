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
from kpim_program import (AWKWARD_NAMES, FAILED, NOT_SOLID, NO_SUCH_FILE, OK, error, make_bundle,
                          names, read_terminal, tree_of, warning, write_blob)
from test_unreadable_blobs import READERS, arguments_for


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


def test_unpack_of_other_than_one_nameless_directory(run, tmp_path):
    (tmp_path / "blob").write_bytes(blob.stored_file("a", b"1") +
                                    blob.stored_directory("b/", [blob.stored_file("c", b"2")]))
    result = run("unpack", "blob", "out")
    assert (result.returncode, result.stdout) == (OK, "out: 3 entries, 2 bytes written\n")
    assert result.stderr == warning("blob", NOT_SOLID)
    assert tree_of(tmp_path / "out") == {"a": b"1", "b": None, "b/c": b"2"}


def test_unpack_of_a_blob_without_entries(run, tmp_path):
    (tmp_path / "blob").write_bytes(b"")
    assert run.fails("unpack", "blob", "out") == error("blob", "empty: there is nothing to unpack")
    assert names(tmp_path) == ["blob"]


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


@pytest.mark.parametrize("reader", READERS + [["verify", "blob", "bundle"]])
def test_repeated_names_are_warned_of(run, tmp_path, reader):
    write_blob(tmp_path, [
        blob.stored_file("a", b"1"), blob.stored_file("a", b"2"), blob.stored_file("a", b"3"),
        blob.stored_directory("d", [blob.stored_file("x", b"1")]),
        blob.stored_directory("d/", [blob.stored_file("y", b"2"), blob.stored_file("x", b"3")]),
    ])
    make_bundle(tmp_path / "bundle", {"a": b"3", "d/x": b"3", "d/y": b"2"})
    result = run(*(reader if len(reader) == 3 else arguments_for(reader, "blob")))
    assert result.returncode == OK
    assert result.stderr == warning("blob", "2 paths with more than one entry, of which the later "
                                            "one counts: a, ...")
    if reader == ["unpack"]:
        assert tree_of(tmp_path / "out") == tree_of(tmp_path / "bundle")


def test_unpack_of_a_file_and_a_folder_with_one_name(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1"),
                          blob.stored_directory("a", [blob.stored_file("b", b"2")]),
                          blob.stored_file("", b"3")])
    assert run.fails("unpack", "blob", "out") == (
        warning("blob", "1 path with more than one entry, of which the later one counts: a") +
        error("out/.", "not written as the blob has it") +
        error("out/a", "not written as the blob has it") +
        error("out", "3 of 5 entries could not be written: Not a directory"))


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
    assert process.wait(timeout=60) == OK
    assert re.fullmatch(r"\rwriting \.\.\.\rwriting \.\.\. \d+ s\r\n", shown)
