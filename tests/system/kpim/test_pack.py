"""kpim as its users run it: every command, option, error and exit status."""

import json
import os
import pathlib
import pty
import re
import resource
import shutil
import signal
import socket
import stat
import struct
import subprocess
import time

import pytest

import blob

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
HOSTILE = REPOSITORY / "tests/data/hostile"

OK, FAILED, USAGE = 0, 1, 2
NOT_SOLID = "not an installer's blob: it does not consist of exactly one nameless directory"
NO_SUCH_FILE = "No such file or directory"
GIB = 1 << 30
MAXIMUM_NESTING = 512

# Leak checking needs ptrace, which strace has taken.
UNDER_STRACE = {**os.environ, "LC_ALL": "C", "ASAN_OPTIONS": "detect_leaks=0"}
ENVIRONMENT = {**os.environ, "LC_ALL": "C"}


class Kpim:
    """Runs kpim in a folder of the test's own."""

    def __init__(self, program, folder):
        self.program = program
        self.sanitized = b"__asan_init" in pathlib.Path(program).read_bytes()
        self.folder = folder

    def __call__(self, *arguments, wrapper=(), environment=ENVIRONMENT, **options):
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        result = subprocess.run([*wrapper, self.program, *arguments], cwd=self.folder,
                                env=environment, timeout=300, stdin=subprocess.DEVNULL, **options)
        result.stdout = os.fsdecode(result.stdout or b"")
        result.stderr = os.fsdecode(result.stderr or b"")
        return result

    def fails(self, *arguments, **options):
        """Runs kpim, which must fail and print nothing but errors; returns these."""
        result = self(*arguments, **options)
        assert (result.returncode, result.stdout) == (FAILED, ""), result
        return result.stderr

    def unprivileged(self, *arguments):
        """Runs kpim bound by file modes, root or not."""
        wrapper = ["setpriv", "--bounding-set=-all"] if os.geteuid() == 0 else []
        return self(*arguments, wrapper=wrapper)

    def with_fault(self, injection, *arguments, path=None, **options):
        """Runs kpim with a system call failing, as strace's inject= says; `path` narrows it to
        the calls that concern one file."""
        trace = ["strace", "-f", "-o", "/dev/null", "-e", f"inject={injection}"]
        if path:
            trace += ["-P", path]
        return self(*arguments, wrapper=trace, environment=UNDER_STRACE, **options)

    def with_memory(self, megabytes, *arguments):
        """Runs kpim with little memory. The address sanitizer needs address space without end;
        there no single request may be larger than half of `megabytes`."""
        wrapper = [] if self.sanitized else ["prlimit", f"--as={megabytes * 1_000_000}"]
        limits = f":allocator_may_return_null=1:max_allocation_size_mb={megabytes // 2}"
        asan = os.environ.get("ASAN_OPTIONS", "") + limits
        return self(*arguments, wrapper=wrapper, environment={**ENVIRONMENT, "ASAN_OPTIONS": asan})

    def start(self, *arguments, **options):
        return subprocess.Popen([self.program, *arguments], cwd=self.folder, env=ENVIRONMENT,
                                stdin=subprocess.DEVNULL, **options)


@pytest.fixture
def run(kpim, tmp_path):
    return Kpim(kpim, tmp_path)


@pytest.fixture
def noise(tmp_path):
    """A bundle that takes a few seconds to compress."""
    folder = tmp_path / "Noise.plugin"
    folder.mkdir()
    (folder / "noise").write_bytes(os.urandom(4 << 20))
    return folder


def make_bundle(folder, files):
    """Writes `files`, a dictionary of names and bytes; None makes a directory."""
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in files.items():
        path = os.path.join(os.fsencode(folder), os.fsencode(name))
        if content is None:
            os.makedirs(path, exist_ok=True)
            continue
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
    return folder


def tree_of(folder):
    """Everything below `folder` as make_bundle takes it."""
    return blob.files_of(blob.decode(blob.pack(folder)))


def content_of(path):
    """What a blob file holds, the second opinion's way, as make_bundle takes it."""
    (root,) = blob.decode(path.read_bytes())
    assert (root.name, root.is_directory) == (b"", True)
    return blob.files_of(root.content)


def names(folder):
    return sorted(os.listdir(folder))


def poke_status(mode=stat.S_IFREG | 0o644, size=0):
    """For strace: what stat(2) shall tell. The start of x86-64's struct stat."""
    status = struct.pack("QQQIIIIQq", 1, 1, 1, mode, 0, 0, 0, 0, size)
    return f"newfstatat:poke_exit=@arg3={status.hex()}"


def error(what, why):
    return f"kpim: {what}: {why}\n"


def read_terminal(descriptor):
    """All that comes out of a pseudo-terminal until its last user is gone."""
    chunks = []
    while True:
        try:
            chunk = os.read(descriptor, 4096)
        except OSError:  # EIO: nobody holds the other side any more
            chunk = b""
        if not chunk:
            os.close(descriptor)
            return b"".join(chunks)
        chunks.append(chunk)


# ---- Command line


@pytest.mark.parametrize("arguments, complaint, helper", [
    ([], "command line: no command given", "kpim"),
    (["bogus"], "bogus: no such command or option", "kpim"),
    (["--bogus"], "--bogus: no such command or option", "kpim"),
    (["pack"], "pack: BUNDLE is required", "kpim pack"),
    (["pack", "a", "b"], "pack: The following argument was not expected: b", "kpim pack"),
    (["pack", "--bogus", "a"], "pack: The following argument was not expected: --bogus",
     "kpim pack"),
    (["pack", "a", "-o"], "pack: --output: 1 required BLOB missing", "kpim pack"),
    (["pack", "a", "-o", "b", "-o", "c"], "pack: --output", "kpim pack"),
    (["pack", "a", "--sort=no"], "pack: sort was given a disallowed flag override", "kpim pack"),
    (["pack", "a", "--verify=0"], "pack: verify was given a disallowed flag override",
     "kpim pack"),
    (["list"], "list: BLOB is required", "kpim list"),
    (["list", "a", "b"], "list: The following argument was not expected: b", "kpim list"),
    (["list", "a", "--json=0"], "list: json was given a disallowed flag override", "kpim list"),
    (["verify"], "verify: BLOB is required", "kpim verify"),
    (["verify", "a", "b", "c"], "verify: The following argument was not expected: c",
     "kpim verify"),
    (["unpack"], "unpack: BLOB is required", "kpim unpack"),
    (["unpack", "a"], "unpack: DIR is required", "kpim unpack"),
    (["unpack", "a", "b", "c"], "unpack: The following argument was not expected: c",
     "kpim unpack"),
])
def test_wrong_usage(run, tmp_path, arguments, complaint, helper):
    result = run(*arguments)
    assert (result.returncode, result.stdout) == (USAGE, "")
    first, second = result.stderr.splitlines()
    assert first.startswith(f"kpim: {complaint}")
    assert second == f"Try '{helper} --help'."
    assert names(tmp_path) == []


@pytest.mark.parametrize("arguments, texts", [
    (["--help"], ["pack", "list", "verify", "unpack", "--version", "Exit status"]),
    (["-h"], ["pack", "list", "verify", "unpack", "--version", "Exit status"]),
    (["pack", "--help"], ["BUNDLE", "--output", "--sort", "--verify", "execute bits"]),
    (["list", "--help"], ["BLOB", "--json", "nameBytes"]),
    (["verify", "--help"], ["BLOB", "BUNDLE", "missing: PATH", "unreadable: PATH: WHY"]),
    (["unpack", "--help"], ["BLOB", "DIR", "0664"]),
])
def test_help(run, arguments, texts):
    result = run(*arguments)
    assert (result.returncode, result.stderr) == (OK, "")
    for text in texts:
        assert text in result.stdout


def test_version(run):
    project = (REPOSITORY / "CMakeLists.txt").read_text()
    version = re.search(r"project\(KPInstallManager VERSION ([\d.]+)", project)[1]
    result = run("--version")
    assert (result.returncode, result.stdout, result.stderr) == (OK, f"kpim {version}\n", "")


@pytest.mark.parametrize("command", ["pack", "list", "verify", "unpack"])
def test_manual_knows_every_option(run, command):
    manual = (REPOSITORY / "tools/kpim/kpim.1").read_text()
    reference = (REPOSITORY / "docs/kpim.md").read_text()
    assert f".Cm {command}" in manual and f"kpim {command}" in reference
    options = re.findall(r"--(\w+)", run(command, "--help").stdout)
    assert options
    for option in set(options) - {"help"}:
        assert f"Fl -{option}" in manual and f"--{option}" in reference


@pytest.fixture
def small_blob(tmp_path):
    """A blob file called small."""
    path = tmp_path / "small"
    path.write_bytes(blob.solid_root([blob.stored_file("a", b"12345")]))
    return path


PRINTING = [["--help"], ["--version"], ["pack", "--help"], ["list", "small"],
            ["list", "--json", "small"], ["verify", "small"], ["unpack", "small", "out"]]


@pytest.mark.parametrize("arguments", PRINTING)
def test_full_disk_under_standard_output(run, small_blob, arguments):
    with open("/dev/full", "wb") as full:
        result = run(*arguments, stdout=full)
    assert result.returncode == FAILED
    assert result.stderr == error("standard output", "No space left on device")


@pytest.mark.parametrize("arguments", PRINTING)
def test_broken_pipe(run, small_blob, arguments):
    reader, writer = os.pipe()
    os.close(reader)
    result = run(*arguments, stdout=writer)
    os.close(writer)
    assert (result.returncode, result.stderr) == (FAILED, error("standard output", "Broken pipe"))


def test_write_error_in_the_middle_of_long_output(run, tmp_path):
    entries = [blob.stored_file(f"{i:0200}", b"") for i in range(1000)]
    (tmp_path / "long").write_bytes(blob.solid_root(entries, compress=False))
    with open("/dev/full", "wb") as full:
        result = run("list", "long", stdout=full)
    assert result.returncode == FAILED
    assert result.stderr.startswith("kpim: standard output: ")


@pytest.mark.parametrize("arguments", PRINTING)
def test_closed_standard_output(run, small_blob, arguments):
    result = run(*arguments, stdout=None, preexec_fn=lambda: os.close(1))
    assert result.returncode == FAILED
    assert result.stderr == error("standard output", "Bad file descriptor")


def test_closed_standard_streams_do_not_end_up_in_the_blob(run, bundle):
    assert run("pack", bundle, "-o", "expected", "--sort").returncode == OK
    result = run("pack", bundle, "-o", "blob", "--sort", stdout=None, stderr=None,
                 preexec_fn=lambda: os.closerange(0, 3))
    assert result.returncode == FAILED
    assert (run.folder / "blob").read_bytes() == (run.folder / "expected").read_bytes()


# ---- pack


def test_pack(run, tmp_path, bundle):
    result = run("pack", bundle)
    packed = tmp_path / "PepperKorvelPlayer.plugin.lzma"
    content = tree_of(bundle)
    count = sum(len(data) for data in content.values() if data is not None)
    size = packed.stat().st_size
    assert result.stderr == ""
    assert result.stdout == (f"{packed}: {len(content)} entries, {count} bytes packed into {size} "
                             f"({100 * size / count:.1f} %)\n")
    assert result.returncode == OK
    assert content_of(packed) == content
    assert names(tmp_path) == [bundle.name, packed.name]


def test_pack_that_verifies_gives_the_same_blob(run, tmp_path, bundle):
    plain = run("pack", bundle, "-o", "plain")
    verified = run("pack", bundle, "-o", "verified", "--verify")
    assert (verified.returncode, verified.stderr) == (OK, "")
    assert verified.stdout == plain.stdout.replace("plain:", "verified:")
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
    assert result.stdout == ("B.lzma: 1 entry, 1000 bytes packed into 1015 (101.5 %), "
                             "not compressed\n")
    data = (tmp_path / "B.lzma").read_bytes()
    assert data[:3] == bytes.fromhex("02 80 00")
    assert content_of(tmp_path / "B.lzma") == tree_of(tmp_path / "B")


def test_pack_of_directories_only_has_no_ratio(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": None})
    result = run("pack", "B")
    assert result.stdout == "B.lzma: 1 entry, 0 bytes packed into 15, not compressed\n"
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
    result = Kpim(kpim, tmp_path / start)("pack", argument.format(absolute=bundle))
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
    assert run("pack", first, "--sort").returncode == OK
    assert run("pack", "--sort", second).returncode == OK
    data = (tmp_path / "first.lzma").read_bytes()
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
    assert run("pack", bundle).returncode == OK
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
    # Without end in effect: each level has the next one 16 times.
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
    assert errors == (error("B/dangling", NO_SUCH_FILE) +
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


IO_ERROR = "Input/output error"
CHANGED = "changed while it was packed"


def pack_with_fault(run, injection, culprit, *options):
    """The error of a pack of B, in which a system call that concerns `culprit` fails."""
    before = names(run.folder)
    result = run.with_fault(injection, "pack", "B", *options, path=culprit)
    assert (result.returncode, result.stdout) == (FAILED, ""), result
    assert names(run.folder) == before
    return "".join(line for line in result.stderr.splitlines(keepends=True)
                   if not line.startswith("strace: Requested path"))


@pytest.mark.parametrize("injection, why", [
    ("access:error=EACCES", "Permission denied"),
    # Reading tries every entry as a directory before.
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
    # The first read only pretends to, so that the blob is made of other bytes.
    ("read:retval=100:when=1", "B/a", CHANGED),
    (poke_status(mode=stat.S_IFSOCK) + ":when=3", "B/a", CHANGED),
])
def test_pack_that_verifies_notices_what_differs(run, tmp_path, injection, what, why):
    make_bundle(tmp_path / "B", {"a": b"1" * 100, "b": b"2"})
    assert pack_with_fault(run, injection, "B/a", "--verify") == error(what, why)


def test_pack_reads_each_file_once(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1" * 100, "b": b"2"})
    trace = ["strace", "-f", "-o", "trace", "-e", "trace=read", "-P", "B/a"]
    assert run("pack", "B", wrapper=trace, environment=UNDER_STRACE).returncode == OK
    assert (tmp_path / "trace").read_text().count("read(") == 1


@pytest.mark.parametrize("files, what", [
    ({"a": 900, "b": 1}, "B/a"),  # reading
    ({"a": 200, "b": 200}, "B"),  # encoding
])
def test_pack_that_runs_out_of_memory(run, tmp_path, files, what):
    bundle = make_bundle(tmp_path / "B", {name: b"" for name in files})
    for name, megabytes in files.items():
        os.truncate(bundle / name, megabytes * 1_000_000)
    result = run.with_memory(700, "pack", "B")
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
    for output in ["folder", "folder/", "folder/.", "folder/..", ".", "pipe", "/dev/null"]:
        assert refused(run, "B", "-o", output) == error(output, not_regular)
    assert stat.S_ISCHR(os.stat("/dev/null").st_mode)
    assert refused(run, "B", "-o", "") == error("''", "not the name of a file")
    assert refused(run, "B", "-o", "new/") == error("new/", "not the name of a file")
    assert refused(run, "B", "-o", "missing/x") == error("missing/x", NO_SUCH_FILE)
    assert refused(run, "B", "-o", "dangling") == error("dangling", NO_SUCH_FILE)


def test_pack_into_a_folder_that_it_may_not_write(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    folder = make_bundle(tmp_path / "folder", {})
    folder.chmod(0o500)
    result = run.unprivileged("pack", "B", "-o", "folder/x")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("folder/x", "Permission denied")
    assert names(folder) == []


def test_pack_past_the_file_size_limit(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": os.urandom(100_000)})
    (tmp_path / "B.lzma").write_bytes(b"old")
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (50_000, 50_000))
    assert run.fails("pack", "B", preexec_fn=limit) == error("B.lzma", "File too large")
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
    result = run.with_fault(injection, "pack", "B")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("B.lzma", why)
    assert names(tmp_path) == ["B", "B.lzma"]
    assert (tmp_path / "B.lzma").read_bytes() == b"old"


def test_pack_onto_a_disk_that_cannot_flush_directories(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert run.with_fault("fsync:error=EINVAL:when=2", "pack", "B").returncode == OK
    assert content_of(tmp_path / "B.lzma") == {"a": b"1"}


def test_pack_tells_that_the_name_is_not_durable(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    result = run.with_fault("fsync:error=EIO:when=2", "pack", "B")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("B.lzma", IO_ERROR)
    assert content_of(tmp_path / "B.lzma") == {"a": b"1"}


def test_pack_makes_contents_and_name_durable_in_this_order(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    trace = ["strace", "-y", "-o", "trace", "-e", "trace=write,fsync,rename"]
    (tmp_path / "out").mkdir()
    assert run("pack", "B", "-o", "out/x", wrapper=trace, environment=UNDER_STRACE).returncode == OK
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
    assert run.fails("pack", "B", "-o", "/mnt/x", wrapper=small_disk + script) == error(
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
    assert process.wait(timeout=60) == -number
    assert names(tmp_path) == ["Noise.plugin", "Noise.plugin.lzma"]
    assert (tmp_path / "Noise.plugin.lzma").read_bytes() == b"old"


def test_pack_under_nohup_goes_on(run, tmp_path, noise):
    process = run.start("pack", "Noise.plugin", stdout=subprocess.DEVNULL,
                        preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    wait_for_temporary_file(tmp_path, process)
    process.send_signal(signal.SIGHUP)
    assert process.wait(timeout=300) == OK
    assert names(tmp_path) == ["Noise.plugin", "Noise.plugin.lzma"]


def test_pack_shows_progress_on_a_terminal(run, tmp_path, noise):
    terminal, side = pty.openpty()
    process = run.start("pack", "Noise.plugin", "--verify", stdout=subprocess.PIPE, stderr=side)
    os.close(side)
    shown = b""
    while b"compressing" not in shown:
        shown += os.read(terminal, 4096)
    # Stopped, it spends a second on the stage that it is in, however fast it is.
    process.send_signal(signal.SIGSTOP)
    time.sleep(1.1)
    process.send_signal(signal.SIGCONT)
    shown += read_terminal(terminal)
    stdout, _ = process.communicate(timeout=300)
    assert process.returncode == OK
    assert stdout.startswith(b"Noise.plugin.lzma: 1 entry, 4194304 bytes packed into ")

    reading, compressing, verifying, rest = shown.decode().split("\r\n")
    assert re.fullmatch(r"(\rreading 4\.2 MB \.\.\. \d+ s)+", reading)
    assert re.fullmatch(r"(\rcompressing 4\.2 MB \.\.\. \d+ s)+", compressing)
    seconds = [int(number) for number in re.findall(r"(\d+) s", compressing)]
    assert seconds == sorted(seconds) and seconds[0] == 0 and seconds[-1] >= 1
    assert re.fullmatch(r"(\rverifying \.\.\. \d+ s)+", verifying)
    assert rest == ""


def test_pack_without_a_second_thread_shows_a_line_that_stands_still(run, tmp_path, noise):
    terminal, side = pty.openpty()
    trace = ["strace", "-o", "/dev/null", "-e", "trace=clone3", "-e", "inject=clone3:error=EAGAIN"]
    process = subprocess.Popen([*trace, run.program, "pack", "Noise.plugin"], cwd=tmp_path,
                               env=UNDER_STRACE, stdout=subprocess.DEVNULL, stderr=side)
    os.close(side)
    shown = b""
    while b"compressing" not in shown:
        shown += os.read(terminal, 4096)
    (child,) = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()
    # Signals must get through.
    wait_for_temporary_file(tmp_path, process)
    blocked = ""
    while int(blocked or "1", 16) != 0 and process.poll() is None:
        status = pathlib.Path(f"/proc/{child}/status").read_text()
        blocked = re.search(r"SigBlk:\s*(\w+)", status)[1]
    shown += read_terminal(terminal)
    assert process.wait(timeout=300) == OK
    assert int(blocked, 16) == 0
    assert re.fullmatch(r"\rreading 4\.2 MB \.\.\. 0 s\rreading 4\.2 MB \.\.\. \d+ s\r\n"
                        r"\rcompressing 4\.2 MB \.\.\. 0 s\rcompressing 4\.2 MB \.\.\. \d+ s\r\n",
                        shown.decode())
    assert names(tmp_path) == ["Noise.plugin", "Noise.plugin.lzma"]


def test_pack_needs_no_second_thread_without_a_terminal(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    trace = ["strace", "-o", "trace", "-e", "trace=clone,clone3"]
    assert run("pack", "B", wrapper=trace, environment=UNDER_STRACE).returncode == OK
    assert "clone" not in (tmp_path / "trace").read_text()


def test_pack_of_which_the_last_close_fails(run, tmp_path):
    make_bundle(tmp_path / "B", {"a": b"1"})
    traced = run("pack", "B", "-o", "blob", environment=UNDER_STRACE,
                 wrapper=["strace", "-o", "trace", "-e", "trace=close,fsync"])
    assert traced.returncode == OK
    calls = (tmp_path / "trace").read_text().splitlines()
    first_fsync = next(i for i, call in enumerate(calls) if call.startswith("fsync("))
    closes = sum(call.startswith("close(") for call in calls[:first_fsync])
    (tmp_path / "blob").unlink()
    (tmp_path / "trace").unlink()
    result = run.with_fault(f"close:error=EIO:when={closes + 1}", "pack", "B", "-o", "blob")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("blob", "Input/output error")
    assert names(tmp_path) == ["B"]


# ---- list


def write_blob(folder, entries, name="blob", compress=True):
    (folder / name).write_bytes(blob.solid_root(entries, compress))
    return name


def test_list(run, tmp_path):
    name = write_blob(tmp_path, [
        blob.stored_directory("Contents", [
            blob.stored_file("small", b"1" * 1023),
            blob.stored_directory("Empty", []),
        ]),
        blob.stored_file("PkgInfo", b"BRPL????"),
        blob.stored_file("large", b"1" * 1024),
    ])
    result = run("list", name)
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == ("- /\n"
                             "  - Contents/\n"
                             "    - small (1023 bytes)\n"
                             "    - Empty/\n"
                             "  - PkgInfo (8 bytes)\n"
                             "  - large (1 KB)\n")


def test_list_json(run, tmp_path):
    name = write_blob(tmp_path, [
        blob.stored_directory("Contents", [
            blob.stored_file("a", b"1" * 1023),
            blob.stored_directory("Empty", []),
        ]),
        blob.compressed("b", b"2" * 50, is_directory=False),
    ])
    result = run("list", "--json", name)
    assert (result.returncode, result.stderr) == (OK, "")
    assert json.loads(result.stdout) == [
        {"name": "", "type": "directory", "entries": [
            {"name": "Contents", "type": "directory", "entries": [
                {"name": "a", "type": "file", "size": 1023},
                {"name": "Empty", "type": "directory", "entries": []},
            ]},
            {"name": "b", "type": "file", "size": 50},
        ]},
    ]


def test_list_of_a_blob_with_several_roots(run, tmp_path):
    (tmp_path / "blob").write_bytes(blob.stored_file("a", b"1") + blob.stored_directory("b", []))
    assert run("list", "blob").stdout == "- a (1 bytes)\n- b/\n"
    assert json.loads(run("list", "blob", "--json").stdout) == [
        {"name": "a", "type": "file", "size": 1},
        {"name": "b", "type": "directory", "entries": []},
    ]


def test_list_of_a_blob_without_entries(run, tmp_path):
    (tmp_path / "blob").write_bytes(b"")
    result = run("list", "blob")
    assert (result.returncode, result.stdout, result.stderr) == (OK, "", "")
    result = run("list", "blob", "--json")
    assert (result.returncode, result.stdout, result.stderr) == (OK, "[]\n", "")


AWKWARD_NAMES = [
    b'quote"', b"back\\slash", bytes(range(1, 32)), b"delete\x7f", b" ",
    "C1 control \x85\x9b".encode(), "é ü 漢 \U0001f600 \u2028 \ufeff \ufffd \uffff".encode(),
    b"\xff", b"\x80", b"a\xc3", b"\xc3(", b"\xe2\x82", b"\xe2\x82z", b"\xf0\x9f\x98",
    b"\xc0\x80", b"\xc1\xbf", b"\xe0\x80\x80", b"\xe0\x9f\xbf", b"\xed\xa0\x80", b"\xed\xbf\xbf",
    b"\xf0\x80\x80\x80", b"\xf0\x8f\xbf\xbf", b"\xf4\x90\x80\x80", b"\xf5\x80\x80\x80",
    b"\xf8\x88\x80\x80\x80", b"\xfe", b"good \xc3\xa9 bad \xe9 good \xc3\xa9",
    b"\xed\x9f\xbf", b"\xee\x80\x80", b"\xf4\x8f\xbf\xbf", b"\xc2\x80", b"\xe0\xa0\x80",
    b"\xf0\x90\x80\x80",
]


def replaced(name):
    """`name` as text, with U+FFFD for every byte that is not UTF-8."""
    return re.sub("[\udc80-\udcff]", "\ufffd", name.decode(errors="surrogateescape"))


def test_list_json_is_lossless(run, tmp_path):
    name = write_blob(tmp_path, [blob.stored_file(name, b"") for name in AWKWARD_NAMES])
    result = run("list", "--json", name)
    assert result.returncode == OK
    text = os.fsencode(result.stdout).decode()  # strict: the output is UTF-8 in any case
    assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f]", text)
    (root,) = json.loads(text)
    for entry, original in zip(root["entries"], AWKWARD_NAMES, strict=True):
        assert entry["name"] == replaced(original)
        if "nameBytes" in entry:
            assert bytes.fromhex(entry["nameBytes"]) == original
            assert original != entry["name"].encode()
        else:
            assert entry["name"].encode() == original


def test_list_json_of_the_deepest_tree(run, tmp_path):
    entry = blob.stored_directory("d", [])
    for _ in range(MAXIMUM_NESTING - 2):
        entry = blob.stored_directory("d", [entry])
    write_blob(tmp_path, [entry], compress=False)
    result = run("list", "--json", "blob")
    assert result.returncode == OK
    assert result.stdout.count('"name": "d"') == MAXIMUM_NESTING - 1
    assert result.stdout.count("{") == result.stdout.count("}") == MAXIMUM_NESTING


def test_list_does_not_let_names_steer_the_terminal(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file(b"\x1b[31mred\n\xc2\x9b\xff \xc3\xa9", b"")])
    assert run("list", "blob").stdout == "- /\n  - \x1b[31mred\n\x9b\udcff é (0 bytes)\n"
    terminal, side = pty.openpty()
    process = run.start("list", "blob", stdout=side)
    os.close(side)
    shown = read_terminal(terminal).decode()
    assert process.wait(timeout=60) == OK
    assert shown == "- /\r\n  - ?[31mred???? é (0 bytes)\r\n"


# ---- Blobs that cannot be read, for every command that reads one


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
                      ("pipe", "not a regular file"), ("/dev/null", "not a regular file"),
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


def hostile_blobs():
    """Rows of the table of hostile blobs: file, offset or a star, where it counts, reason."""
    for line in (HOSTILE / "expected.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            yield line.split("\t")


def test_hostile_blobs_are_there():
    assert len(list(hostile_blobs())) > 50


@pytest.mark.parametrize("name, offset, where, reason", hostile_blobs(),
                         ids=[row[0] for row in hostile_blobs()])
def test_hostile_blob(run, tmp_path, name, offset, where, reason):
    decoded = " in the decoded content" if where == "decoded" else ""
    number = r"\d+" if offset == "*" else offset
    shutil.copy(HOSTILE / name, tmp_path)
    for reader in READERS:
        assert re.fullmatch(
            f"kpim: {re.escape(name)}: malformed: {re.escape(reason)}{decoded} at byte {number}\n",
            run.fails(*arguments_for(reader, name)))
    assert names(tmp_path) == [name]


# ---- verify


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


def differences(run, bundle="B", count=None):
    """What verify says about the file "blob" and a bundle that differ."""
    result = run("verify", "blob", bundle)
    assert result.returncode == FAILED
    lines = result.stdout.splitlines()
    noun = "difference" if len(lines) == 1 else "differences"
    assert result.stderr == error("blob", f"{len(lines)} {noun} from {bundle}")
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
    # To stat it is a file.
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


NOT_SOLID_BLOBS = {
    "empty": b"",
    "two roots": blob.solid_root([blob.stored_file("a", b"1")]) * 2,
    "named root": blob.stored_directory("B", [blob.stored_file("a", b"1")]),
    "file": blob.stored_file("a", b"1"),
    "nameless file": blob.stored_file("", b"1"),
    "root and file": blob.solid_root([]) + blob.stored_file("a", b"1"),
}


@pytest.mark.parametrize("data", NOT_SOLID_BLOBS.values(), ids=NOT_SOLID_BLOBS.keys())
def test_verify_wants_one_nameless_directory(run, tmp_path, data):
    (tmp_path / "blob").write_bytes(data)
    assert run.fails("verify", "blob") == error("blob", NOT_SOLID)


def test_verify_compares_even_without_a_solid_root(run, tmp_path):
    (tmp_path / "blob").write_bytes(blob.stored_file("a", b"1"))
    make_bundle(tmp_path / "B", {"a": b"1"})
    assert run.fails("verify", "blob", "B") == error("blob", NOT_SOLID)
    make_bundle(tmp_path / "B", {"a": b"2"})
    result = run("verify", "blob", "B")
    assert (result.returncode, result.stdout) == (FAILED, "different: a\n")
    assert result.stderr == error("blob", NOT_SOLID) + error("blob", "1 difference from B")


@pytest.mark.parametrize("compress", [True, False])
def test_verify_accepts_an_empty_and_a_stored_root(run, tmp_path, compress):
    write_blob(tmp_path, [], compress=compress)
    result = run("verify", "blob")
    assert (result.returncode, result.stdout) == (OK, "blob: well formed, 0 entries, 0 bytes\n")


def test_verify_tells_an_entry_that_stands_twice(run, tmp_path):
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
    assert differences(run) == ["type mismatch: .", "duplicate: a", "duplicate: c", "duplicate: z"]


# ---- unpack


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
    assert result.stderr == error("parent/a", "could not be written")


def test_unpack_of_other_than_one_nameless_directory(run, tmp_path):
    (tmp_path / "blob").write_bytes(blob.stored_file("a", b"1") +
                                    blob.stored_directory("b/", [blob.stored_file("c", b"2")]))
    result = run("unpack", "blob", "out")
    assert (result.returncode, result.stdout) == (OK, "out: 3 entries, 2 bytes written\n")
    assert result.stderr == error("blob", f"warning: {NOT_SOLID}")
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
    assert errors == error("out/long", "not written as the blob has it")
    assert tree_of(tmp_path / "out") == {"d": None, "d/inside": b"1", "long": b"1" * 500,
                                         "short": b"1"}
    # The first two are for the directory itself.
    result = run.with_fault("mkdir:error=ENOSPC:when=3", "unpack", "blob", "other")
    assert (result.returncode, result.stdout) == (FAILED, "")
    assert result.stderr == error("other/d", "could not be written")
    assert names(tmp_path / "other") == ["long", "short"]


def test_unpack_tells_entries_that_overwrite_each_other(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file("a", b"1"), blob.stored_file("a", b"2"),
                          blob.stored_file("", b"3")])
    assert run.fails("unpack", "blob", "out") == (
        error("out/.", "not written as the blob has it") +
        error("out/a", "stands in the blob more than once") +
        error("out/a", "not written as the blob has it"))


def test_unpack_of_paths_longer_than_the_system_allows(run, tmp_path):
    name = "n" * 255
    entry = blob.stored_file("bottom", b"1")
    for _ in range(30):
        entry = blob.stored_directory(name, [entry])
    write_blob(tmp_path, [entry], compress=False)
    (line,) = run.fails("unpack", "blob", "out").splitlines()
    assert re.fullmatch(f"kpim: out(/{name})+: could not be written", line)
    depth = 0
    for _, folders, files in os.walk(tmp_path / "out"):
        depth += len(folders)
        assert files == []
    assert 10 < depth < 30


def test_unpack_shows_progress_on_a_terminal(run, small_blob):
    terminal, side = pty.openpty()
    process = run.start("unpack", "small", "out", stdout=subprocess.DEVNULL, stderr=side)
    os.close(side)
    shown = read_terminal(terminal).decode()
    assert process.wait(timeout=60) == OK
    assert re.fullmatch(r"(\rwriting \.\.\. \d+ s)+\r\n", shown)
