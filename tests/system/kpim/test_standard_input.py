"""Blobs that come from standard input."""

import os
import pty
import subprocess

import pytest

import blob
from kpim_program import FAILED, IO_ERROR, OK, error, make_bundle, names, result_of, tree_of
from test_unreadable_blobs import READERS, arguments_for

NAME = "standard input"


@pytest.fixture
def data():
    return blob.solid_root([blob.stored_file("a", b"12345")])


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_pipe(run, data, small_blob, reader):
    expected = run(*arguments_for(reader, small_blob.name))
    if reader[0] == "unpack":
        assert tree_of(run.folder / "out") == {"a": b"12345"}
        (run.folder / "out/a").unlink()
    result = run(*arguments_for(reader, "-"), input=data)
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == expected.stdout.replace("small", NAME)
    if reader[0] == "unpack":
        assert tree_of(run.folder / "out") == {"a": b"12345"}


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_file_from_its_current_position(run, tmp_path, data, reader):
    (tmp_path / "two").write_bytes(b"header" + data)
    with open(tmp_path / "two", "rb", buffering=0) as file:
        file.seek(6)
        assert run(*arguments_for(reader, "-"), stdin=file).returncode == OK


def test_closed(run):
    result = run(*arguments_for(["verify"], "-"), wrapper=["sh", "-c", '"$0" "$@" <&-'])
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error(NAME, "Bad file descriptor")


def test_more_than_the_first_step(run, tmp_path):
    content = os.urandom(5 << 20)
    data = blob.solid_root([blob.stored_file("a", content)], compress=False)
    make_bundle(tmp_path / "B", {"a": content})
    # Lengths around the steps of reading: exactly at the end of a step, or one byte longer.
    result = run("verify", "-", "B", input=data)
    assert (result.returncode, result.stderr) == (OK, "")
    for length in [(1 << 20) - 1, 1 << 20, (1 << 20) + 1, 3 << 20]:
        whole = blob.solid_root([blob.stored_file("a", b"1" * (length - 15))], compress=False)
        assert len(whole) == length
        assert run("verify", "-", input=whole).stdout == (
            f"{NAME}: well formed, 1 entry, {length - 15} bytes\n")


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_what_is_not_a_blob(run, data, reader):
    assert run.fails(*arguments_for(reader, "-")) == error(NAME, "not a payload blob: empty")
    assert run.fails(*arguments_for(reader, "-"), input=b"hello") == error(
        NAME, "not a payload blob")
    assert run.fails(*arguments_for(reader, "-"), input=data[:-1]) == error(
        NAME, "malformed: an entry's size runs past the end at byte 3")
    assert names(run.folder) == []


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_read_error(run, small_blob, reader):
    with open(small_blob, "rb") as file:
        result = run.with_fault("read:error=EIO", *arguments_for(reader, "-"),
                                path=str(small_blob), stdin=file)
    assert (result.returncode, result.stdout, result.stderr) == (FAILED, "", error(NAME, IO_ERROR))


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_directory(run, reader):
    folder = os.open(run.folder, os.O_RDONLY)
    errors = run.fails(*arguments_for(reader, "-"), stdin=folder)
    os.close(folder)
    assert errors == error(NAME, "Is a directory")


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_closed(run, reader):
    errors = run.fails(*arguments_for(reader, "-"), preexec_fn=lambda: os.close(0))
    assert errors == error(NAME, "Bad file descriptor")


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_terminal(run, reader):
    terminal, side = pty.openpty()
    errors = run.fails(*arguments_for(reader, "-"), stdin=side)
    os.close(side)
    os.close(terminal)
    assert errors == error(NAME, "a terminal: a blob comes from a file or a pipe")


@pytest.mark.parametrize("reader", READERS, ids=" ".join)
def test_more_than_memory_holds(run, reader):
    with open("/dev/zero", "rb") as zeros:
        head = subprocess.Popen(["head", "-c", "900000000"], stdin=zeros, stdout=subprocess.PIPE)
        result = run.with_memory(700, *arguments_for(reader, "-"), stdin=head.stdout)
        head.stdout.close()
        head.wait(timeout=300)
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr.endswith(error(NAME, "Cannot allocate memory"))


def test_file_that_is_called_a_dash(run, tmp_path, small_blob):
    small_blob.rename(tmp_path / "-")
    assert run("verify", "./-").stdout == "./-: well formed, 1 entry, 5 bytes\n"


def test_json(run, data):
    assert result_of(run("verify", "--json", "-", input=data)) == {
        "ok": True, "blob": "-", "entries": 1, "bytes": 5, "warnings": [], "errors": []}
