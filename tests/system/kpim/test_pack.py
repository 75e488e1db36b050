"""kpim pack."""

import json
import os
import pty
import random
import re
import resource
import signal
import socket
import stat
import subprocess
import sys
import time

import pytest

import blob
from kpim_program import (FAILED, GIB, IO_ERROR, MAXIMUM_NESTING, NO_SUCH_FILE, OK,
                          Kpim, content_of, error, make_bundle, names, poke_status, read_terminal,
                          tree_of)


def without_time(text):
    """The result line with its time replaced."""
    return re.sub(r" in \d+\.\d s", " in TIME s", text)


def test_pack(run, tmp_path, bundle):
    result = run("pack", bundle)
    packed = tmp_path / "PepperKorvelPlayer.plugin.lzma"
    content = tree_of(bundle)
    count = sum(len(data) for data in content.values() if data is not None)
    size = packed.stat().st_size
    assert result.stderr == ""
    assert without_time(result.stdout) == (
        f"{packed}: {len(content)} entries, {count} bytes packed into {size} "
        f"({100 * size / count:.1f} %) in TIME s\n")
    assert result.returncode == OK
    assert content_of(packed) == content
    assert names(tmp_path) == [bundle.name, packed.name]


def test_pack_that_verifies_gives_the_same_blob(run, tmp_path, bundle):
    plain = run("pack", bundle, "-o", "plain")
    verified = run("pack", bundle, "-o", "verified", "--verify")
    assert (verified.returncode, verified.stderr) == (OK, "")
    assert without_time(verified.stdout) == without_time(plain.stdout).replace("plain:",
                                                                               "verified:")
    assert (tmp_path / "plain").read_bytes() == (tmp_path / "verified").read_bytes()


def test_pack_makes_a_solid_root(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"a" * 1000})
    run("pack", "B")
    data = (tmp_path / "B.lzma").read_bytes()
    length = len(blob.stored_file("a", b"a" * 1000))
    assert data[:3] == bytes.fromhex("02 81 00")
    assert data[3:7] == (len(data) - 7).to_bytes(4, "big")
    assert data[7:11] == length.to_bytes(4, "big")
    assert data[11:16] == bytes.fromhex("5D 00 00 00 04")


def test_pack_stores_what_does_not_compress(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": os.urandom(1000)})
    result = run("pack", "B")
    assert without_time(result.stdout) == (
        "B.lzma: 1 entry, 1000 bytes packed into 1015 (101.5 %) in TIME s, not compressed\n")
    data = (tmp_path / "B.lzma").read_bytes()
    assert data[:3] == bytes.fromhex("02 80 00")
    assert content_of(tmp_path / "B.lzma") == tree_of(tmp_path / "B")
    assert json.loads(run("pack", "B", "--json").stdout)["compressed"] is False


def test_pack_of_directories_only_has_no_ratio(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": None})
    result = run("pack", "B")
    assert without_time(result.stdout) == (
        "B.lzma: 1 entry, 0 bytes packed into 15 in TIME s, not compressed\n")
    assert content_of(tmp_path / "B.lzma") == {"a": None}


@pytest.mark.parametrize("argument, start", [
    ("B.plugin", "."),
    ("B.plugin/", "."),
    ("B.plugin///", "."),
    ("./B.plugin", "."),
    ("B.plugin/../B.plugin", "."),
    ("../B.plugin", "other"),
    (".", "B.plugin"),
    ("./", "B.plugin"),
    ("Contents/..", "B.plugin"),
    ("..", "B.plugin/Contents"),
    ("../", "B.plugin/Contents"),
    ("{absolute}", "/"),
    ("{absolute}/", "/"),
])
def test_pack_names_of_the_bundle(kpim, tmp_path, argument, start):
    bundle = make_bundle(tmp_path / "B.plugin", {"Contents/a": b"1", "b": b"2"})
    (tmp_path / "other").mkdir()
    result = Kpim(kpim, tmp_path / start)("pack", "--quiet", argument.format(absolute=bundle))
    assert (result.returncode, result.stderr) == (OK, "")
    assert names(tmp_path) == ["B.plugin", "B.plugin.lzma", "other"]
    assert content_of(tmp_path / "B.plugin.lzma") == {"Contents": None, "Contents/a": b"1",
                                                      "b": b"2"}


@pytest.mark.parametrize("name", ["pack", "list", "verify", "unpack", "bogus", "[a]", "{}", "%%"])
def test_pack_takes_any_word_for_a_name(run, tmp_path, name):
    make_bundle(tmp_path / name, {"a": b"1"})
    assert run("pack", name).returncode == OK
    assert content_of(tmp_path / f"{name}.lzma") == {"a": b"1"}
    assert run("verify", f"{name}.lzma", name).returncode == OK


def test_pack_takes_a_dash_for_a_name_after_two(run, tmp_path):
    make_bundle(tmp_path / "-o", {"a": b"1"})
    assert run("pack", "--", "-o").returncode == OK
    assert content_of(tmp_path / "-o.lzma") == {"a": b"1"}


@pytest.mark.parametrize("option", [["-o", "x"], ["--output", "x"], ["--output=x"], ["-ox"],
                                    ["-o", "./x"], ["-o", "B/../x"]])
def test_pack_output(run, tmp_path, option):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert run("pack", "B", *option).returncode == OK
    assert names(tmp_path) == ["B", "x"]
    assert content_of(tmp_path / "x") == {"a": b"1"}


@pytest.mark.parametrize("umask, mode", [(0o022, 0o644), (0o077, 0o600), (0, 0o644)])
def test_pack_mode(run, tmp_path, umask, mode):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert run("pack", "B", preexec_fn=lambda: os.umask(umask)).returncode == OK
    assert stat.S_IMODE((tmp_path / "B.lzma").stat().st_mode) == mode


def test_pack_replaces_a_file_and_does_not_write_into_it(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    (tmp_path / "B.lzma").write_bytes(b"old" * 1000)
    os.link(tmp_path / "B.lzma", tmp_path / "other name of the old one")
    assert run("pack", "B").returncode == OK
    assert content_of(tmp_path / "B.lzma") == {"a": b"1"}
    assert (tmp_path / "other name of the old one").read_bytes() == b"old" * 1000


def test_pack_output_follows_a_link(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    (tmp_path / "target").write_bytes(b"old")
    (tmp_path / "x").symlink_to("target")
    assert run("pack", "B", "-o", "x").returncode == OK
    assert os.readlink(tmp_path / "x") == "target"
    assert content_of(tmp_path / "target") == {"a": b"1"}


def test_pack_with_a_very_long_output_name(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert run("pack", "B", "-o", "n" * 255).returncode == OK
    assert content_of(tmp_path / ("n" * 255)) == {"a": b"1"}


def test_pack_leaves_out_ds_store_only(run, tmp_path):
    make_bundle(tmp_path / "B", {".DS_Store": b"1", "c/.DS_Store": b"2", "DS_Store": b"3",
                                 ".hidden": b"4", "c/..x": b"5"})
    assert run("pack", "B").returncode == OK
    assert content_of(tmp_path / "B.lzma") == {"DS_Store": b"3", ".hidden": b"4", "c": None,
                                               "c/..x": b"5"}


def test_pack_follows_links(run, tmp_path):
    make_bundle(tmp_path / "outside", {"file": b"1", "folder/a": b"2"})
    bundle = make_bundle(tmp_path / "B", {"real": b"3"})
    (bundle / "file").symlink_to("../outside/file")
    (bundle / "folder").symlink_to("../outside/folder")
    (bundle / "again").symlink_to("folder")
    (tmp_path / "link").symlink_to("B")
    assert run("pack", "link").returncode == OK
    assert content_of(tmp_path / "link.lzma") == {
        "real": b"3", "file": b"1", "folder": None, "folder/a": b"2", "again": None,
        "again/a": b"2"}


SHUFFLED = ["b", "a", "B", "é", "-", "~", "a.b", "ab", "\udcff", "\udc80z"]


def test_sorted_packs_are_byte_identical(run, tmp_path):
    files = {name: name.encode(errors="surrogateescape") * 30
             for folder in SHUFFLED for name in (folder + ".file", folder + "/x", folder + "/Y")}
    first = make_bundle(tmp_path / "first", files)
    second = make_bundle(tmp_path / "second", dict(reversed(files.items())))
    assert run("pack", first).returncode == OK
    data = (tmp_path / "first.lzma").read_bytes()
    for option in ([], ["--sort"]):
        assert run("pack", second, *option).returncode == OK
        assert data == (tmp_path / "second.lzma").read_bytes()

    def check_order(entries):
        found = [entry.name for entry in entries]
        assert found == sorted(found)
        for entry in entries:
            if entry.is_directory:
                check_order(entry.content)

    (root,) = blob.decode(data)
    assert len(root.content) == 2 * len(SHUFFLED)
    check_order(root.content)


def test_unsorted_pack_keeps_the_order_of_the_file_system(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {name: b"" for name in SHUFFLED})
    assert run("pack", "--no-sort", bundle).returncode == OK
    (root,) = blob.decode((tmp_path / "B.lzma").read_bytes())
    assert [entry.name for entry in root.content] == os.listdir(os.fsencode(bundle))


def test_pack_of_the_deepest_bundle(run, tmp_path):
    # The root of the blob is one level.
    deepest = "/".join(["d"] * (MAXIMUM_NESTING - 1))
    make_bundle(tmp_path / "B", {deepest + "/a": b"1"})
    assert run("pack", "B").returncode == OK
    assert run("unpack", "B.lzma", "out").returncode == OK
    assert (tmp_path / "out" / deepest / "a").read_bytes() == b"1"
    assert run("verify", "B.lzma", "out").returncode == OK


def refused(run, *arguments):
    """The errors of a pack that must leave the folder as it is."""
    before = names(run.folder)
    errors = run.fails("pack", *arguments)
    assert names(run.folder) == before
    return errors


def test_pack_refuses_what_is_no_directory(run, tmp_path):
    (tmp_path / "file").write_bytes(b"1")
    assert refused(run, "missing") == error("missing", NO_SUCH_FILE)
    assert refused(run, "file") == error("file", "Not a directory")
    assert refused(run, "file/") == error("file", "Not a directory")
    assert refused(run, "") == error("''", NO_SUCH_FILE)
    assert refused(run, "missing/..") == error("missing/..", NO_SUCH_FILE)


def test_pack_refuses_an_empty_bundle(run, tmp_path):
    make_bundle(tmp_path / "B", {})
    assert refused(run, "B") == error("B", "empty: there is nothing to pack")
    make_bundle(tmp_path / "B", {".DS_Store": b"1"})
    assert refused(run, "B/") == error("B", "empty: there is nothing to pack")


def test_pack_refuses_a_bundle_nested_too_deep(run, tmp_path):
    deepest = "/".join(["d"] * MAXIMUM_NESTING)
    make_bundle(tmp_path / "B", {deepest: None})
    assert refused(run, "B") == error("B/" + deepest, "nested too deeply: more than 512 levels")


def test_pack_refuses_a_large_file(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"", "b": b""})
    os.truncate(tmp_path / "B/a", 4 * GIB)
    assert refused(run, "B") == error("B/a", "too large for a blob: 4 GiB or more")


@pytest.mark.parametrize("second", [2 * GIB, 2 * GIB - (7 + 8 + 8)])
def test_pack_refuses_a_large_bundle(run, tmp_path, second):
    # With the headers of the root and of both files the second is too long by one byte.
    make_bundle(tmp_path / "B", {"a": b"", "b": b""})
    os.truncate(tmp_path / "B/a", 2 * GIB)
    os.truncate(tmp_path / "B/b", second)
    assert refused(run, "B") == error("B", "too large for a blob: 4 GiB or more")


def test_pack_gives_up_on_links_that_multiply(run, tmp_path):
    # Practically endless: each level has the next one 16 times.
    bundle = make_bundle(tmp_path / "B", {"0": None})
    os.truncate(make_bundle(tmp_path / "big", {"a": b""}) / "a", GIB)
    for level in range(12):
        folder = make_bundle(tmp_path / f"level{level}", {})
        following = tmp_path / (f"level{level + 1}" if level < 11 else "big")
        for i in range(16):
            (folder / f"{i}").symlink_to(following)
    (bundle / "start").symlink_to(tmp_path / "level0")
    assert refused(run, "B") == error("B", "too large for a blob: 4 GiB or more")


def test_pack_refuses_links_in_a_circle(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"a/b/c": b"1"})
    (bundle / "a/b/up").symlink_to("..")
    (bundle / "self").symlink_to(".")
    assert refused(run, "B") == (error("B/a/b/up", "a link to a directory around it") +
                                 error("B/self", "a link to a directory around it"))


def test_pack_reports_everything_that_it_cannot_pack(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"good": b"1", "folder": None})
    (bundle / "dangling").symlink_to("nowhere")
    (bundle / "loop").symlink_to("loop")
    os.mkfifo(bundle / "folder/pipe")
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(os.path.relpath(bundle / "socket"))
        errors = refused(run, "B")
    assert errors == (error("B/dangling", "a link to a missing item") +
                      error("B/folder/pipe", "neither a file nor a directory") +
                      error("B/loop", "Too many levels of symbolic links") +
                      error("B/socket", "neither a file nor a directory"))


def test_pack_refuses_what_it_may_not_read(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"file": b"1", "folder/a": b"2", "z": b"3"})
    (bundle / "file").chmod(0)
    (bundle / "folder").chmod(0)
    result = run.unprivileged("pack", "B")
    (bundle / "folder").chmod(0o700)
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == (error("B/file", "Permission denied") +
                             error("B/folder", "Permission denied"))
    assert names(tmp_path) == ["B"]


CHANGED = "changed while it was packed"


def pack_with_fault(run, injection, culprit, *options):
    """The error of a pack of B, in which a system call that concerns `culprit` fails."""
    before = names(run.folder)
    result = run.with_fault(injection, "pack", "B", "--quiet", *options, path=culprit)
    assert (result.returncode, result.stdout) == (FAILED, ""), result
    assert names(run.folder) == before
    return "".join(line for line in result.stderr.splitlines(keepends=True)
                   if not line.startswith("strace: Requested path"))


@pytest.mark.parametrize("injection, why", [
    ("access:error=EACCES", "Permission denied"),
    # Reading first tries to open every entry as a directory.
    ("openat:error=EMFILE:when=2", "Too many open files"),
    ("read:error=EIO", IO_ERROR),
    ("read:retval=0", "became shorter while it was read"),
    ("newfstatat:error=EIO:when=1", IO_ERROR),
    ("newfstatat:error=EIO:when=2", IO_ERROR),
    (poke_status(mode=stat.S_IFSOCK) + ":when=2", "Operation not supported"),
    (poke_status(size=4 * GIB + 1) + ":when=2", "File too large"),
])
def test_pack_notices_a_file_that_cannot_be_read(run, tmp_path, injection, why):
    make_bundle(tmp_path / "B", {"a": b"1" * 100, "b": b"2"})
    first, *rest = pack_with_fault(run, injection, "B/a").splitlines(keepends=True)
    assert (first, set(rest)) == (error("B/a", why), set())


@pytest.mark.parametrize("injection, why", [
    ("getdents64:error=EIO:when=1", IO_ERROR),
    ("getdents64:error=EIO:when=3", IO_ERROR),
    ("openat:error=EMFILE:when=1", "Too many open files"),
    ("openat:error=EMFILE:when=2+", "Too many open files"),
])
def test_pack_notices_a_directory_that_cannot_be_read(run, tmp_path, injection, why):
    make_bundle(tmp_path / "B", {"c/a": b"1" * 100, "b": b"2"})
    assert pack_with_fault(run, injection, "B/c") == error("B/c", why)


def test_pack_notices_that_the_bundle_went_away(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert pack_with_fault(run, "openat:error=ENOENT:when=2+", "B") == error("B", NO_SUCH_FILE)


def test_pack_notices_a_change_since_the_scan(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1" * 100})
    assert pack_with_fault(run, poke_status(size=99) + ":when=1", "B/a") == error("B", CHANGED)


@pytest.mark.parametrize("injection, what, why", [
    ("openat:error=EACCES:when=3", "B/a", "Permission denied"),
    ("read:error=EIO:when=2", "B/a", IO_ERROR),
    # The first read only pretends to read, so the blob gets other bytes.
    ("read:retval=100:when=1", "B/a", CHANGED),
    (poke_status(mode=stat.S_IFSOCK) + ":when=3", "B/a", CHANGED),
])
def test_pack_that_verifies_notices_what_differs(run, tmp_path, injection, what, why):
    make_bundle(tmp_path / "B", {"a": b"1" * 100, "b": b"2"})
    assert pack_with_fault(run, injection, "B/a", "--verify") == error(what, why)


@pytest.mark.release_only("a sanitizer's allocator ends the program when the system has no memory")
def test_pack_without_the_memory_to_verify(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1" * 1_000_000})
    arguments = ["pack", "B", "--verify", "--quiet"]
    assert run(*arguments, wrapper=["strace", "-o", "trace"]).returncode == OK
    calls = (tmp_path / "trace").read_text().splitlines()
    (tmp_path / "trace").unlink()
    (tmp_path / "B.lzma").unlink()
    # The last listing of the bundle comes after the decoding, which takes memory last. A failing brk
    # returns an end of the heap that is not the one that was asked for.
    end = max(i for i, call in enumerate(calls) if '"B", O_RDONLY' in call)
    grown, mapped = (sum(call.startswith(name) for call in calls[:end]) for name in ("brk(", "mmap("))
    result = run(*arguments, wrapper=[
        "strace", "-o", "/dev/null", "-e", f"inject=brk:retval=0:when={grown}+",
        "-e", f"inject=mmap:error=ENOMEM:when={mapped + 1}+"])
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("B", "Cannot allocate memory")
    assert names(tmp_path) == ["B"]


def test_pack_reads_each_file_once(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1" * 100, "b": b"2"})
    trace = ["strace", "-f", "-o", "trace", "-e", "trace=read", "-P", "B/a"]
    assert run("pack", "B", wrapper=trace).returncode == OK
    assert (tmp_path / "trace").read_text().count("read(") == 1


@pytest.mark.parametrize("files, what", [
    ({"a": 900, "b": 1}, "B/a"),  # reading
    ({"a": 200, "b": 200}, "B"),  # encoding
])
def test_pack_that_runs_out_of_memory(run, tmp_path, files, what):
    bundle = make_bundle(tmp_path / "B", {name: b"" for name in files})
    for name, megabytes in files.items():
        os.truncate(bundle / name, megabytes * 1_000_000)
    result = run.with_memory(700, "pack", "B", "--quiet")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert error(what, "Cannot allocate memory") == "".join(
        line for line in result.stderr.splitlines(keepends=True) if line.startswith("kpim: "))
    assert names(tmp_path) == ["B"]


@pytest.mark.parametrize("output", ["B/x", "B/c/x", "./B/../B/x", "link/x", "B/c/B.lzma"])
def test_pack_refuses_output_inside_the_bundle(run, tmp_path, output):
    bundle = make_bundle(tmp_path / "B", {"c/a": b"1"})
    (tmp_path / "link").symlink_to("B/c")
    errors = refused(run, "B", "-o", output)
    assert errors.endswith("the blob must not be written into the bundle that it is made of\n")
    assert names(bundle) == ["c"] and names(bundle / "c") == ["a"]


def test_pack_refuses_output_that_a_link_in_the_bundle_leads_to(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"a": b"1"})
    make_bundle(tmp_path / "outside", {})
    (bundle / "link").symlink_to("../outside")
    assert refused(run, "B", "-o", "outside/x") == error(
        "B/link", "the blob must not be written into the bundle that it is made of")
    assert names(tmp_path / "outside") == []


@pytest.mark.parametrize("make", [os.symlink, os.link])
def test_pack_refuses_to_replace_a_file_of_the_bundle(run, tmp_path, make):
    bundle = make_bundle(tmp_path / "B", {"a": b"1", "c/d": b"2"})
    (tmp_path / "B.lzma").write_bytes(b"old")
    make(tmp_path / "B.lzma", bundle / "c/link")
    assert refused(run, "B") == error(
        "B/c/link", "the blob must not be written into the bundle that it is made of")
    assert (tmp_path / "B.lzma").read_bytes() == b"old"


def test_pack_refuses_the_root_without_reading_it(run):
    assert run.fails("pack", "/") == error(
        "/", "the blob must not be written into the bundle that it is made of")


def test_pack_refuses_what_cannot_be_replaced(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    (tmp_path / "folder").mkdir()
    (tmp_path / "dangling").symlink_to("nowhere")
    os.mkfifo(tmp_path / "pipe")
    not_regular = "exists and is not a regular file"
    for output in ["folder", "folder/", "folder/.", "folder/..", "."]:
        assert refused(run, "B", "-o", output) == error(output, not_regular)
    for output in ["pipe", "/dev/null"]:
        assert refused(run, "B", "-o", output) == error(
            output, f"{not_regular}; -o - writes to a pipe or a device")
    assert stat.S_ISCHR(os.stat("/dev/null").st_mode)
    assert refused(run, "B", "-o", "") == error("''", "not the name of a file")
    assert refused(run, "B", "-o", "new/") == error("new/", "not the name of a file")
    assert refused(run, "B", "-o", "missing/x") == error("missing/x", NO_SUCH_FILE)
    assert refused(run, "B", "-o", "dangling") == error("dangling", NO_SUCH_FILE)


def test_pack_into_a_folder_that_it_may_not_write(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    folder = make_bundle(tmp_path / "folder", {})
    folder.chmod(0o500)
    result = run.unprivileged("pack", "B", "-o", "folder/x", "--quiet")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("folder/x", "Permission denied")
    assert names(folder) == []


def test_pack_past_the_file_size_limit(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": os.urandom(100_000)})
    (tmp_path / "B.lzma").write_bytes(b"old")
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (50_000, 50_000))
    assert run.fails("pack", "B", "--quiet", preexec_fn=limit) == error("B.lzma", "File too large")
    assert names(tmp_path) == ["B", "B.lzma"]
    assert (tmp_path / "B.lzma").read_bytes() == b"old"


@pytest.mark.parametrize("injection, why", [
    ("fchmod:error=EPERM", "Operation not permitted"),
    ("fsync:error=EIO", "Input/output error"),
    ("rename:error=EACCES", "Permission denied"),
])
def test_pack_that_cannot_be_finished_keeps_the_old_blob(run, tmp_path, injection, why):
    make_bundle(tmp_path / "B", {"a": b"1"})
    (tmp_path / "B.lzma").write_bytes(b"old")
    result = run.with_fault(injection, "pack", "B", "--quiet")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("B.lzma", why)
    assert names(tmp_path) == ["B", "B.lzma"]
    assert (tmp_path / "B.lzma").read_bytes() == b"old"


@pytest.mark.release_only("many runs, in which a sanitizer sees no other code")
@pytest.mark.parametrize("name", ["openat", "read", "write", "fchmod", "fsync", "close"])
def test_pack_repeats_what_a_signal_interrupts(run, tmp_path, name):
    make_bundle(tmp_path / "B", {"a": b"1" * 100})
    arguments = ["pack", "B", "--verify", "--quiet"]
    trace = ["strace", "-o", "trace", "-e", f"trace=openat,{name},fsync"]
    assert run(*arguments, wrapper=trace).returncode == OK
    expected = (tmp_path / "B.lzma").read_bytes()
    before, after = (tmp_path / "trace").read_text().split('openat(AT_FDCWD, "B", ', 1)
    first = len(re.findall(rf"^{name}\(", before, re.MULTILINE))
    # The line on standard output is left out.
    count = len(re.findall(rf"^{name}\((?!1,)", after, re.MULTILINE)) + (name == "openat")
    assert count > 0
    for number in range(first + 1, first + count + 1):
        (tmp_path / "B.lzma").unlink()
        result = run(*arguments, wrapper=[*trace, "-e", f"inject={name}:error=EINTR:when={number}"])
        assert (result.returncode, result.stderr) == (OK, ""), number
        assert (tmp_path / "B.lzma").read_bytes() == expected
        traced = (tmp_path / "trace").read_text()
        assert traced.count("(INJECTED)") == 1
        assert len(re.findall(r"^fsync\(.* = 0$", traced, re.MULTILINE)) == 2, number


def test_pack_onto_a_disk_that_cannot_flush_directories(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert run.with_fault("fsync:error=EINVAL:when=2", "pack", "B").returncode == OK
    assert content_of(tmp_path / "B.lzma") == {"a": b"1"}


def test_pack_tells_that_the_name_is_not_durable(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    result = run.with_fault("fsync:error=EIO:when=2", "pack", "B", "--quiet")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("B.lzma", IO_ERROR)
    assert content_of(tmp_path / "B.lzma") == {"a": b"1"}


def test_pack_that_cannot_print_its_result_has_replaced_the_blob(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    (tmp_path / "B.lzma").write_bytes(b"old")
    with open("/dev/full", "wb") as full:
        result = run("pack", "B", "--quiet", stdout=full)
    assert (result.returncode, result.stderr) == (
        FAILED, error("standard output", "No space left on device"))
    assert content_of(tmp_path / "B.lzma") == {"a": b"1"}


def test_pack_makes_contents_and_name_durable_in_this_order(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    trace = ["strace", "-y", "-o", "trace", "-e", "trace=write,fsync,rename"]
    (tmp_path / "out").mkdir()
    assert run("pack", "B", "-o", "out/x", wrapper=trace).returncode == OK
    calls = re.findall(r'^(\w+)\((?:\d+<|")([^>"]*)', (tmp_path / "trace").read_text(),
                       re.MULTILINE)
    steps = [(call, re.sub(r"\.kpim-.*", "TEMPORARY", path.removeprefix(f"{tmp_path}/")))
             for call, path in calls if "pipe:" not in path]
    assert steps == [("write", "out/TEMPORARY"), ("fsync", "out/TEMPORARY"),
                     ("rename", "out/TEMPORARY"), ("fsync", "out")]


def test_pack_into_a_folder_that_it_may_not_list(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    (tmp_path / "folder").mkdir(mode=0o300)
    assert run.unprivileged("pack", "B", "-o", "folder/x").returncode == OK
    assert content_of(tmp_path / "folder/x") == {"a": b"1"}


def test_pack_on_a_full_disk(run, tmp_path):
    if os.geteuid() != 0:
        pytest.skip("mounting a small disk needs root")
    make_bundle(tmp_path / "B", {"a": os.urandom(100_000)})
    small_disk = ["bwrap", "--bind", "/", "/", "--size", "65536", "--tmpfs", "/mnt",
                  "--chdir", str(tmp_path)]
    script = ["sh", "-c", '"$@"; status=$?; ls -A /mnt; exit $status', "sh"]
    assert run.fails("pack", "B", "-o", "/mnt/x", "--quiet", wrapper=small_disk + script) == error(
        "/mnt/x", "No space left on device")


def wait_for_temporary_file(folder, process):
    while not list(folder.glob(".kpim-*")):
        assert process.poll() is None, "ended before it could be interrupted"
        time.sleep(0.001)


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT,
                                    signal.SIGTERM])
def test_interrupted_pack_leaves_nothing(run, tmp_path, noise, number):
    (tmp_path / "Noise.plugin.lzma").write_bytes(b"old")
    process = run.start("pack", "Noise.plugin")
    wait_for_temporary_file(tmp_path, process)
    process.send_signal(number)
    assert process.wait(timeout=300) == -number
    assert names(tmp_path) == ["Noise.plugin", "Noise.plugin.lzma"]
    assert (tmp_path / "Noise.plugin.lzma").read_bytes() == b"old"


@pytest.mark.release_only("it takes seconds, and other tests run the same code")
def test_pack_under_nohup_goes_on(run, tmp_path, noise):
    process = run.start("pack", "Noise.plugin", stdout=subprocess.DEVNULL,
                        preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    wait_for_temporary_file(tmp_path, process)
    process.send_signal(signal.SIGHUP)
    assert process.wait(timeout=300) == OK
    assert names(tmp_path) == ["Noise.plugin", "Noise.plugin.lzma"]


def test_pack_to_a_closed_standard_output(run, tmp_path):
    make_bundle(tmp_path / "B", {"Contents/Info.plist": b""})
    result = run("pack", "B", "-o", "-", wrapper=["sh", "-c", '"$0" "$@" >&-'])
    assert result.returncode == FAILED
    assert result.stderr == error("standard output", "Bad file descriptor")


def on_a_terminal(run, *arguments):
    """Runs kpim with a terminal as standard error; returns its standard output and the text on the
    terminal."""
    terminal, side = pty.openpty()
    process = run.start(*arguments, stdout=subprocess.PIPE, stderr=side)
    os.close(side)
    shown = read_terminal(terminal).decode()
    stdout, _ = process.communicate(timeout=300)
    assert process.returncode == OK
    return stdout.decode(), shown


@pytest.mark.release_only("it takes seconds, and other tests run the same code")
def test_pack_shows_progress_on_a_terminal(run, noise):
    make_bundle(noise, {"Contents/Info.plist": b"", "words": b"some words " * 100_000})
    stdout, shown = on_a_terminal(run, "pack", "Noise.plugin", "--verify")
    assert without_time(stdout).startswith("Noise.plugin.lzma: 4 entries, 3197152 bytes packed into ")
    reading, compressing, verifying, rest = shown.split("\r\n")
    assert re.fullmatch(r"\rreading 3\.2 MB \.\.\.\rreading 3\.2 MB \.\.\. \d+ s", reading)
    first, *lines = compressing.split("\r")[1:]
    assert first == "compressing 3.2 MB ..."
    found = [re.fullmatch(r"compressing 3\.2 MB \.\.\. (\d+) %, \d+ s(, \d+ s left)? *", line)
             for line in lines]
    assert all(found), lines
    percentages = [int(match[1]) for match in found]
    assert percentages == sorted(percentages) and percentages[-1] == 100
    assert not found[-1][2]
    assert re.fullmatch(r"\rverifying \.\.\.\rverifying \.\.\. \d+ s", verifying)
    assert rest == ""
    assert all(len(line) < 80 for line in re.split(r"[\r\n]+", shown))


def test_quiet_pack_shows_nothing_on_a_terminal(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    _, shown = on_a_terminal(run, "pack", "B", "--quiet", "--verify")
    assert shown == ""


@pytest.mark.parametrize("option", [[], ["--threads", "1"]])
def test_pack_starts_no_thread_unless_told_to(run, tmp_path, option):
    make_bundle(tmp_path / "B", {"a": b"1" * 1000})
    trace = ["strace", "-f", "-o", "trace", "-e", "trace=clone,clone3"]
    assert run("pack", "B", *option, wrapper=trace).returncode == OK
    assert "clone" not in (tmp_path / "trace").read_text()
    for number in ("2", "1024"):
        assert run("pack", "B", "--threads", number, wrapper=trace).returncode == OK
        assert "clone" in (tmp_path / "trace").read_text()


def words(count, seed):
    """Bytes that compress as files do, the same for the same seed."""
    generator = random.Random(seed)
    stock = generator.randbytes(1 << 16)
    starts = [generator.randrange(1 << 16) for _ in range(count // 16)]
    return b"".join(stock[start:start + 4 + start % 28] for start in starts)


@pytest.mark.release_only("it needs load, and a sanitizer sees the threads in the other tests")
def test_two_threads_give_the_same_blob_every_time_under_load(run, tmp_path):
    make_bundle(tmp_path / "B", {f"file {i}": words(150_000, i) for i in range(4)})
    busy = [subprocess.Popen([sys.executable, "-c", "while True: pass"])
            for _ in range(2 * os.cpu_count())]
    try:
        for number in range(6):
            assert run("pack", "B", "-o", str(number), "--threads", "2").returncode == OK
    finally:
        for process in busy:
            process.kill()
            process.wait()
    first = (tmp_path / "0").read_bytes()
    assert content_of(tmp_path / "0") == tree_of(tmp_path / "B")
    assert all((tmp_path / str(number)).read_bytes() == first for number in range(1, 6))


def test_pack_without_the_threads_that_it_wants_uses_one(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": words(100_000, 1)})
    assert run("pack", "B", "-o", "one").returncode == OK
    result = run.with_fault("clone3:error=EAGAIN", "pack", "B", "-o", "two", "--threads", "2")
    assert result.returncode == OK
    assert (tmp_path / "two").read_bytes() == (tmp_path / "one").read_bytes()


NO_INFO_PLIST = "no Contents/Info.plist: is this the bundle's own folder?"


def warnings_of(run, *arguments):
    """The warnings of a pack of B that succeeds."""
    result = run("pack", "B", *arguments)
    assert result.returncode == OK, result
    start = "kpim: warning: B: "
    lines = result.stderr.splitlines()
    assert all(line.startswith(start) for line in lines), lines
    return [line.removeprefix(start) for line in lines]


@pytest.fixture
def questionable(tmp_path):
    """A bundle B that causes every warning."""
    bundle = make_bundle(tmp_path / "B", {
        "Versions/A/code": b"c" * 100, "Versions/A/data": b"d" * 10, "._x": b"", "e/._y": b"",
        ".git/config": b"", "e/CVS/Root": b"", "e/.svn": b""})
    (bundle / "Versions/A/code").chmod(0o755)
    (bundle / "e/.svn").chmod(0o010 | 0o644)
    (bundle / "Versions/Current").symlink_to("A")
    (bundle / "code").symlink_to("Versions/Current/code")
    return bundle


STRICT = "nothing was packed: --strict makes warnings errors"
QUESTIONS = [
    # Versions/Current adds the folder's 110 bytes again, the other link 100.
    "2 links followed, which adds 210 bytes: Versions/Current, code",
    "execute bits of 4 files dropped: Versions/A/code, Versions/Current/code, code and 1 more",
    "2 AppleDouble files packed: ._x, e/._y",
    "3 version control entries packed: .git, e/.svn, e/CVS",
    NO_INFO_PLIST,
    "1 --exclude pattern without a match: nothing*",
]


def test_pack_warns_of_what_it_changes(run, questionable):
    assert warnings_of(run, "--exclude", "nothing*") == QUESTIONS
    assert warnings_of(run, "--exclude", "nothing*", "--quiet") == []


def test_strict_pack_refuses_what_it_would_change(run, tmp_path, questionable):
    expected = "".join(error("B", text) for text in [*QUESTIONS[:-1], STRICT])
    assert refused(run, "B", "--strict") == expected
    assert refused(run, "B", "--strict", "--quiet") == expected
    make_bundle(tmp_path / "good", {"Contents/Info.plist": b""})
    result = run("pack", "good", "--strict")
    assert (result.returncode, result.stderr) == (OK, "")


def test_strict_pack_of_a_framework(run, tmp_path):
    """The troubleshooting page has these two commands."""
    bundle = make_bundle(tmp_path / "B", {
        "Contents/Info.plist": b"", "Contents/Frameworks/Core.framework/Versions/A/Core": b"c",
        "Contents/Frameworks/Core.framework/Versions/A/Resources/x": b"x"})
    framework = bundle / "Contents/Frameworks/Core.framework"
    (framework / "Versions/Current").symlink_to("A")
    for link in ("Core", "Resources"):
        (framework / link).symlink_to(f"Versions/Current/{link}")
    (framework / "Versions/A/Core").chmod(0o755)
    assert "links followed" in refused(run, "B", "--strict")
    subprocess.run(["find", bundle, "-type", "f", "-exec", "chmod", "a-x", "{}", "+"], check=True)
    result = run("pack", "B", "--strict", "--exclude", "Current",
                 "--exclude", "Contents/Frameworks/*.framework/Core",
                 "--exclude", "Contents/Frameworks/*.framework/Resources")
    assert (result.returncode, result.stderr) == (OK, "")
    files = {path for path, data in content_of(tmp_path / "B.lzma").items() if data is not None}
    assert files == {"Contents/Info.plist", "Contents/Frameworks/Core.framework/Versions/A/Core",
                     "Contents/Frameworks/Core.framework/Versions/A/Resources/x"}


def test_pack_counts_links_within_links_once(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"Contents/Info.plist": b"12345"})
    make_bundle(tmp_path / "outside", {"file": b"123"})
    (tmp_path / "outside/again").symlink_to("file")
    (bundle / "outside").symlink_to("../outside")
    assert warnings_of(run) == [
        "2 links followed, which adds 6 bytes: outside, outside/again"]


def test_pack_wants_info_plist_where_it_belongs(run, tmp_path):
    make_bundle(tmp_path / "B", {"Inner.plugin/Contents/Info.plist": b"", "Info.plist": b""})
    assert warnings_of(run) == [NO_INFO_PLIST]
    make_bundle(tmp_path / "B", {"Contents/Info.plist/x": b""})
    assert warnings_of(run) == [NO_INFO_PLIST]


@pytest.mark.parametrize("globs, left", [
    (["*.dSYM"], {"a", "c", "c/a", "c/n.txt", "n.txt"}),
    (["n.txt"], {"a", "c", "c/a", "c/b.dSYM", "c/b.dSYM/x"}),
    (["c/n.txt"], {"a", "c", "c/a", "c/b.dSYM", "c/b.dSYM/x", "n.txt"}),
    (["c/*"], {"a", "c", "n.txt"}),
    (["*/x"], {"a", "c", "c/a", "c/b.dSYM", "c/b.dSYM/x", "c/n.txt", "n.txt"}),
    (["*/*/x"], {"a", "c", "c/a", "c/b.dSYM", "c/n.txt", "n.txt"}),
    (["a", "[bn]*"], {"c"}),
    (["c"], {"a", "n.txt"}),
    (["./c//"], {"a", "n.txt"}),
    ([".//./c/n.txt"], {"a", "c", "c/a", "c/b.dSYM", "c/b.dSYM/x", "n.txt"}),
])
def test_pack_excludes(run, tmp_path, globs, left):
    make_bundle(tmp_path / "B", {"a": b"1", "n.txt": b"2", "c/a": b"3", "c/b.dSYM/x": b"4",
                                 "c/n.txt": b"5"})
    options = [word for glob in globs for word in ("--exclude", glob)]
    # It is verified without what was excluded.
    assert run("pack", *options, "B", "--verify").returncode == OK
    assert set(content_of(tmp_path / "B.lzma")) == left


def test_pack_excludes_a_name_that_ends_as_an_option_without_a_value_does(run, tmp_path):
    make_bundle(tmp_path / "B", {"a=": b"1", "b": b"2"})
    assert run("pack", "B", "--exclude=a=").returncode == OK
    assert set(content_of(tmp_path / "B.lzma")) == {"b"}


def test_pack_looks_at_nothing_that_it_excludes(run, tmp_path):
    bundle = make_bundle(tmp_path / "B", {"Contents/Info.plist": b"", ".git/config": b"",
                                          "._x": b""})
    (bundle / "dangling").symlink_to("nowhere")
    (bundle / "run").write_bytes(b"")
    (bundle / "run").chmod(0o755)
    os.mkfifo(bundle / "pipe")
    assert warnings_of(run, "--exclude", ".git", "--exclude=._*", "--exclude", "dangling",
                       "--exclude", "run", "--exclude", "pipe", "--verify") == []
    assert set(content_of(tmp_path / "B.lzma")) == {"Contents", "Contents/Info.plist"}


def test_pack_of_which_everything_is_excluded(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert refused(run, "B", "--exclude", "*") == error("B", "empty: there is nothing to pack")


def test_pack_to_standard_output(run, tmp_path, bundle):
    assert run("pack", bundle, "-o", "expected").returncode == OK
    piped = run("pack", bundle, "-o", "-")
    assert piped.returncode == OK
    assert os.fsencode(piped.stdout) == (tmp_path / "expected").read_bytes()
    assert re.fullmatch(r"standard output: \d+ entries, \d+ bytes packed into \d+ \(.*\) in .* s\n",
                        piped.stderr)
    with open(tmp_path / "written", "wb") as file:
        assert run("pack", bundle, "-o", "-", stdout=file).returncode == OK
    assert (tmp_path / "written").read_bytes() == (tmp_path / "expected").read_bytes()
    assert names(tmp_path) == [bundle.name, "expected", "written"]


def test_pack_to_a_terminal_is_refused(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    terminal, side = pty.openpty()
    result = run("pack", "B", "-o", "-", stdout=side)
    os.close(side)
    assert read_terminal(terminal) == b""
    assert result.returncode == FAILED
    assert result.stderr == error("standard output",
                                  "a terminal: a blob can go to a file or a pipe")


def test_pack_to_standard_output_that_fails(run, bundle):
    with open("/dev/full", "wb") as full:
        result = run("pack", bundle, "-o", "-", stdout=full)
    assert result.returncode == FAILED
    assert result.stderr == error("standard output", "No space left on device")


def test_pack_into_a_closed_pipe_is_an_error(run, bundle):
    reader, writer = os.pipe()
    os.close(reader)
    result = run("pack", bundle, "-o", "-", stdout=writer)
    os.close(writer)
    assert (result.returncode, result.stderr) == (FAILED, error("standard output", "Broken pipe"))


def test_pack_refuses_standard_output_inside_the_bundle(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    with open(tmp_path / "B/blob", "wb") as file:
        result = run("pack", "B", "-o", "-", stdout=file)
    assert result.returncode == FAILED
    assert result.stderr == error(
        "B/blob", "the blob must not be written into the bundle that it is made of")


def test_pack_as_json(run, tmp_path, questionable):
    result = run("pack", "B", "--json")
    assert result.returncode == OK
    answer = json.loads(result.stdout)
    assert list(answer) == ["ok", "blob", "entries", "bytes", "findings", "blobBytes", "compressed",
                            "seconds", "warnings", "errors"]
    assert answer["ok"] is True and answer["blob"] == "B.lzma" and answer["errors"] == []
    content = content_of(tmp_path / "B.lzma")
    assert answer["entries"] == len(content)
    assert answer["bytes"] == sum(len(data or b"") for data in content.values())
    assert answer["blobBytes"] == (tmp_path / "B.lzma").stat().st_size
    assert answer["compressed"] is True and answer["seconds"] >= 0
    assert answer["warnings"] == [{"about": "B", "text": text} for text in QUESTIONS[:-1]]
    assert [(each["kind"], each["count"], each["bytes"]) for each in answer["findings"]] == [
        ("linksFollowed", 2, 210), ("executeBitsDropped", 4, 0), ("appleDoubleFiles", 2, 0),
        ("versionControl", 3, 0), ("noInfoPlist", 1, 0)]
    assert answer["findings"][1]["paths"] == ["Versions/A/code", "Versions/Current/code", "code"]
    quiet = json.loads(run("pack", "B", "--json", "--quiet", "--exclude", "x").stdout)
    assert quiet["warnings"] == [] and quiet["findings"][-1] == {
        "kind": "unmatchedExclude", "count": 1, "bytes": 0, "paths": ["x"]}


def test_failed_pack_as_json(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    result = run("pack", "B", "--json", "--strict")
    texts = [NO_INFO_PLIST, STRICT]
    assert (result.returncode, result.stderr) == (FAILED, "".join(error("B", text) for text in texts))
    answer = json.loads(result.stdout)
    assert answer["ok"] is False and "blobBytes" not in answer
    assert answer["errors"] == [{"about": "B", "text": text} for text in texts]
    assert names(tmp_path) == ["B"]


def test_pack_of_which_the_last_close_fails(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    traced = run("pack", "B", "-o", "blob",
                 wrapper=["strace", "-o", "trace", "-e", "trace=close,fsync"])
    assert traced.returncode == OK
    calls = (tmp_path / "trace").read_text().splitlines()
    first_fsync = next(i for i, call in enumerate(calls) if call.startswith("fsync("))
    closes = sum(call.startswith("close(") for call in calls[:first_fsync])
    (tmp_path / "blob").unlink()
    (tmp_path / "trace").unlink()
    result = run.with_fault(f"close:error=EIO:when={closes + 1}", "pack", "B", "-o", "blob",
                            "--quiet")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("blob", "Input/output error")
    assert names(tmp_path) == ["B"]
