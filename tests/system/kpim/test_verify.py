"""kpim verify."""

import os

import pytest

import blob
from kpim_program import (FAILED, NO_SUCH_FILE, OK, error, make_bundle, poke_status, result_of,
                          tree_of, warning, write_blob)


def test_verify(run, bundle, bundle_blob):
    (run.folder / "blob").write_bytes(bundle_blob)
    content = tree_of(bundle)
    count = sum(len(data) for data in content.values() if data is not None)
    result = run("verify", "blob")
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == f"blob: well formed, {len(content)} entries, {count} bytes\n"
    result = run("verify", "blob", bundle)
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == (f"blob: well formed, {len(content)} entries, {count} bytes, "
                             f"the same as {bundle}\n")
    assert run("verify", "blob", f"{bundle}/").returncode == OK


def differences(run, bundle="B", said=""):
    """The differences that verify prints for the file "blob" and a bundle, after the message
    `said`."""
    result = run("verify", "blob", bundle)
    assert result.returncode == FAILED
    lines = result.stdout.splitlines()
    noun = "difference" if len(lines) == 1 else "differences"
    assert result.stderr == said + error("blob", f"{len(lines)} {noun} from {bundle}")
    return lines


def test_verify_tells_each_difference(run, tmp_path):
    write_blob(tmp_path, [
        blob.stored_directory("c", [
            blob.stored_file("shorter", b"12345"),
            blob.stored_file("longer", b"12345"),
            blob.stored_file("other", b"12345"),
            blob.stored_file("same", b"12345"),
            blob.stored_file("empty", b""),
            blob.stored_file("file", b"12345"),
            blob.stored_directory("folder", [blob.stored_file("inside", b"")]),
        ]),
        blob.stored_directory("gone", [blob.stored_file("inside", b"")]),
        blob.stored_file("gone too", b"1"),
        blob.stored_directory("Same", [blob.stored_file("a", b"1")]),
    ])
    make_bundle(tmp_path / "B", {
        "c/shorter": b"1234", "c/longer": b"123456", "c/other": b"1234x", "c/same": b"12345",
        "c/empty": b"1", "c/file/inside": b"", "c/folder": b"", "new/inside": b"", "c/new": b"",
        "Same/a": b"1"})
    assert differences(run) == [
        "different: c/empty",
        "type mismatch: c/file",
        "type mismatch: c/folder",
        "different: c/longer",
        "extra: c/new",
        "different: c/other",
        "different: c/shorter",
        "missing: gone",
        "missing: gone too",
        "extra: new",
    ]


def test_verify_of_a_long_file(run, tmp_path):
    data = os.urandom(200_000)
    write_blob(tmp_path, [blob.stored_file("a", data)], compress=False)
    make_bundle(tmp_path / "B", {"a": data})
    assert run("verify", "blob", "B").returncode == OK
    for changed in [data[:-1], data + b"x", data[:150_000] + b"?" + data[150_001:], data[:65536]]:
        make_bundle(tmp_path / "B", {"a": changed})
        if changed != data:
            assert differences(run) == ["different: a"]


def test_verify_writes_each_difference_on_one_line(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file(b"a\nmissing: b\x1b\xff", b"")])
    make_bundle(tmp_path / "B", {})
    assert differences(run) == [r"missing: a\x0amissing: b\x1b\xff"]


def test_verify_ignores_ds_store_in_the_bundle(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1")])
    make_bundle(tmp_path / "B", {"a": b"1", ".DS_Store": b"2"})
    assert run("verify", "blob", "B").returncode == OK


def test_verify_compares_ds_store_when_the_blob_has_it(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file(".DS_Store", b"1")])
    make_bundle(tmp_path / "B", {".DS_Store": b"1"})
    assert run("verify", "blob", "B").returncode == OK
    make_bundle(tmp_path / "B", {".DS_Store": b"2"})
    assert differences(run) == ["different: .DS_Store"]
    (tmp_path / "B/.DS_Store").unlink()
    assert differences(run) == ["missing: .DS_Store"]


def test_verify_follows_links(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1"),
                          blob.stored_directory("d", [blob.stored_file("b", b"2")])])
    make_bundle(tmp_path / "outside", {"a": b"1", "d/b": b"2"})
    bundle = make_bundle(tmp_path / "B", {})
    (bundle / "a").symlink_to("../outside/a")
    (bundle / "d").symlink_to("../outside/d")
    assert run("verify", "blob", "B").returncode == OK
    (bundle / "extra").symlink_to("..")
    assert differences(run) == ["extra: extra"]


def test_verify_does_not_wait_for_a_pipe(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1")])
    bundle = make_bundle(tmp_path / "B", {})
    os.mkfifo(bundle / "a")
    assert differences(run) == ["type mismatch: a"]


def test_verify_does_not_wait_for_a_pipe_that_comes_last(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1")])
    bundle = make_bundle(tmp_path / "B", {})
    os.mkfifo(bundle / "a")
    # stat(2) reports a file.
    result = run.with_fault(poke_status(size=1) + ":when=1", "verify", "blob", "B", path="B/a")
    assert (result.returncode, result.stdout) == (FAILED, "type mismatch: a\n")


def test_verify_tells_what_it_may_not_read(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1"), blob.stored_file("dangling", b"2"),
                          blob.stored_directory("d", [blob.stored_file("b", b"2")])])
    bundle = make_bundle(tmp_path / "B", {"a": b"1", "d/b": b"2"})
    (bundle / "dangling").symlink_to("nowhere")
    (bundle / "a").chmod(0)
    (bundle / "d").chmod(0)
    result = run.unprivileged("verify", "blob", "B")
    (bundle / "d").chmod(0o700)
    assert result.returncode == FAILED
    assert result.stdout.splitlines() == ["unreadable: a: Permission denied",
                                          "unreadable: d: Permission denied",
                                          f"unreadable: dangling: {NO_SUCH_FILE}"]
    assert result.stderr == error("blob", "3 differences from B")


def test_verify_tells_a_read_error(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1")])
    bundle = make_bundle(tmp_path / "B", {"a": b"1"})
    result = run.with_fault("read:error=EIO", "verify", "blob", "B", path=str(bundle / "a"))
    assert (result.returncode, result.stdout) == (FAILED, "unreadable: a: Input/output error\n")


def test_verify_needs_a_directory_to_compare_with(run, tmp_path, small_blob):
    assert run.fails("verify", "small", "missing") == error("missing", NO_SUCH_FILE)
    assert run.fails("verify", "small", "small") == error("small", "Not a directory")
    assert run.fails("verify", "small", "") == error("''", NO_SUCH_FILE)


@pytest.mark.parametrize("compress", [True, False])
def test_verify_accepts_an_empty_and_a_stored_root(run, tmp_path, compress):
    write_blob(tmp_path, [], compress=compress)
    result = run("verify", "blob")
    assert (result.returncode, result.stdout) == (OK, "blob: well formed, 0 entries, 0 bytes\n")


def test_verify_compares_the_later_of_two_entries(run, tmp_path):
    write_blob(tmp_path, [
        blob.stored_file("a", b"1"), blob.stored_file("a", b"2"),
        blob.stored_file("c", b"1"), blob.stored_directory("c", []),
        blob.stored_directory("d", [blob.stored_file("x", b"1")]),
        blob.stored_directory("d/", [blob.stored_file("y", b"2")]),
        blob.stored_directory("", [blob.stored_file("z", b"3")]),
        blob.stored_directory("/", [blob.stored_file("z", b"3")]),
        blob.stored_file("", b"4"),
    ])
    make_bundle(tmp_path / "B", {"a": b"1", "c": b"1", "d/x": b"1", "d/y": b"2", "z": b"3"})
    said = (error("blob", "cannot be installed whole: 2 paths are both a file and a directory: ., ...")
            + warning("blob", "2 paths with more than one file, of which the last counts: a, ..."))
    assert differences(run, said=said) == [
        "type mismatch: .", "different: a", "type mismatch: c"]


def test_verify_json(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1"), blob.stored_file("b", b"23"),
                          blob.stored_file(b"c\xff", b"")])
    assert result_of(run("verify", "--json", "blob")) == {
        "ok": True, "blob": "blob", "entries": 3, "bytes": 3, "warnings": [], "errors": []}
    bundle = make_bundle(tmp_path / "B", {"a": b"1", "b": b"23", b"c\xff": b""})
    result = run("verify", "--json", "blob", "B")
    assert (result.returncode, result.stderr) == (OK, "")
    assert result_of(result) == {
        "ok": True, "blob": "blob", "bundle": "B", "entries": 3, "bytes": 3, "differences": [],
        "warnings": [], "errors": []}
    (bundle / "b").unlink()
    (bundle / "b").symlink_to("nowhere")
    os.unlink(os.fsencode(bundle) + b"/c\xff")
    result = run("verify", "--json", "blob", "B")
    assert (result.returncode, result.stderr) == (FAILED, error("blob", "2 differences from B"))
    assert result_of(result) == {
        "ok": False, "blob": "blob", "bundle": "B", "entries": 3, "bytes": 3, "differences": [
            {"kind": "unreadable", "path": "b", "text": NO_SUCH_FILE},
            {"kind": "missing", "path": "c\ufffd", "pathBytes": "63ff"}],
        "warnings": [], "errors": [{"about": "blob", "text": "2 differences from B"}]}
    assert result_of(run("verify", "--json", "missing")) == {
        "ok": False, "blob": "missing", "warnings": [],
        "errors": [{"about": "missing", "text": NO_SUCH_FILE}]}


def test_operands_do_not_steer_the_terminal(run, tmp_path):
    write_blob(tmp_path, [], name="b\x1b")
    make_bundle(tmp_path / "B\u202e", {})
    result = run("verify", "b\x1b", "B\u202e")
    assert (result.returncode, result.stdout) == (
        OK, r"b\x1b: well formed, 0 entries, 0 bytes, the same as B\xe2\x80\xae" + "\n")
