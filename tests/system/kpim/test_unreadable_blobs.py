"""Blobs that cannot be read, for every command of kpim that reads one."""

import os
import re
import shutil

import pytest

import blob
from install_root import REPOSITORY
from kpim_program import FAILED, GIB, IO_ERROR, NO_SUCH_FILE, OK, error, names, poke_status

HOSTILE = REPOSITORY / "tests/data/hostile"
NOT_A_BLOB = "not a payload blob"
READERS = [["list"], ["list", "--json"], ["verify"], ["unpack"]]


def arguments_for(reader, path):
    return [*reader, path, "out"] if reader == ["unpack"] else [*reader, path]


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_blob_that_is_no_file(run, tmp_path, reader):
    (tmp_path / "folder").mkdir()
    os.mkfifo(tmp_path / "pipe")
    (tmp_path / "large").touch()
    os.truncate(tmp_path / "large", 4 * GIB)
    before = names(tmp_path)
    for path, why in [("missing", NO_SUCH_FILE), ("folder", "Is a directory"),
                      ("pipe", "not a regular file; a pipe is read as -"), ("/dev/null", "not a regular file"),
                      ("large", "too large for a blob: 4 GiB or more"),
                      ("missing\n", NO_SUCH_FILE)]:
        what = path.replace("\n", "\\x0a")
        assert run.fails(*arguments_for(reader, path)) == error(what, why)
    assert names(tmp_path) == before


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_blob_that_may_not_be_read(run, small_blob, reader):
    small_blob.chmod(0)
    result = run.unprivileged(*arguments_for(reader, "small"))
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("small", "Permission denied")


@pytest.mark.parametrize("injection, why", [
    ("openat:error=EMFILE", "Too many open files"),
    ("newfstatat:error=EIO", IO_ERROR),
    ("read:error=EIO", IO_ERROR),
    ("read:retval=0", "became shorter while it was read"),
    (poke_status(size=1000) + ":when=1", "became shorter while it was read"),
])
@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_blob_that_cannot_be_read_whole(run, small_blob, reader, injection, why):
    result = run.with_fault(injection, *arguments_for(reader, "small"), path="small")
    assert (result.returncode, result.stdout) == (FAILED, ""), result
    assert result.stderr.endswith(error("small", why))
    assert names(run.folder) == ["small"]


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_blob_is_read_through_signals(run, small_blob, reader):
    result = run.with_fault("read:error=EINTR:when=1..2", *arguments_for(reader, "small"),
                            path="small")
    assert result.returncode == OK


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_blob_that_does_not_fit_in_memory(run, tmp_path, reader):
    (tmp_path / "blob").touch()
    os.truncate(tmp_path / "blob", 900_000_000)
    result = run.with_memory(700, *arguments_for(reader, "blob"))
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr.endswith(error("blob", "Cannot allocate memory"))
    assert names(tmp_path) == ["blob"]


@pytest.mark.parametrize("content, why", [
    (b"", "not a payload blob: empty"), (b"x", NOT_A_BLOB), (b"hello, world\n", NOT_A_BLOB),
    (b"PK\3\4" + bytes(30), NOT_A_BLOB), (b"\x7fELF" + bytes(60), NOT_A_BLOB),
    (b"\3" + bytes(6), NOT_A_BLOB), (b"\2\2" + bytes(5), NOT_A_BLOB),
    (b"\2\xff", NOT_A_BLOB),
    # The beginnings of blobs.
    (b"\2", "malformed: an entry's header is cut short at byte 0"),
    (b"\2\x81", "malformed: an entry's header is cut short at byte 0"),
    (b"\2\1\0\0\0\0\x09",
     "malformed: an entry's size runs past the end at byte 3"),
    # Only the first header counts.
    (blob.stored_file("a", b"") + b"\3" + bytes(6),
     "malformed: an entry has an unknown header version at byte 8"),
])
@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_what_is_not_a_blob(run, tmp_path, reader, content, why):
    (tmp_path / "blob").write_bytes(content)
    assert run.fails(*arguments_for(reader, "blob")) == error("blob", why)
    assert names(tmp_path) == ["blob"]


def hostile_blobs():
    """Rows of the table of hostile blobs: file, offset or a star, what the offset is in, reason."""
    for line in (HOSTILE / "expected.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            yield line.split("\t")


def test_hostile_blobs_are_there():
    assert len(list(hostile_blobs())) > 50


def marks(name):
    """Each bomb costs 4 GiB of tables, which take the sanitizers' allocator long."""
    is_left_out = name.startswith("bomb") and name != "bomb-of-probability-tables.blob"
    return [pytest.mark.release_only("one bomb is enough, the quickest")] * is_left_out


@pytest.mark.parametrize("name, offset, where, reason", [
    pytest.param(*row, id=row[0], marks=marks(row[0])) for row in hostile_blobs()])
def test_hostile_blob(run, tmp_path, name, offset, where, reason):
    decoded = " in the decoded content" if where == "decoded" else ""
    number = r"\d+" if offset == "*" else offset
    shutil.copy(HOSTILE / name, tmp_path)
    # A writer's blob begins with its version and one of these flags.
    is_blob = (HOSTILE / name).read_bytes()[:2] in (b"\2\0", b"\2\1", b"\2\x80", b"\2\x81")
    why = f"malformed: {re.escape(reason)}{decoded} at byte {number}" if is_blob else NOT_A_BLOB
    assert is_blob or (where, offset) in (("blob", "0"), ("blob", "1"))
    # All readers decode alike, which sanitizers and bombs make slow.
    for reader in READERS[:1] if run.sanitized or name.startswith("bomb") else READERS:
        assert re.fullmatch(f"kpim: {re.escape(name)}: {why}\n",
                            run.fails(*arguments_for(reader, name)))
    assert names(tmp_path) == [name]
