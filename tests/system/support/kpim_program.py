"""kpim as its users run it, and what its tests share."""

import json
import os
import pathlib
import stat
import struct
import subprocess

import blob
import sanitizer

OK, FAILED, USAGE = 0, 1, 2
NOT_SOLID = "not an installer's blob: it does not consist of exactly one nameless directory"
NO_SUCH_FILE = "No such file or directory"
IO_ERROR = "Input/output error"
GIB = 1 << 30
MAXIMUM_NESTING = 512

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

ENVIRONMENT = {**os.environ, "LC_ALL": "C", **sanitizer.options()}


class Kpim:
    """Runs kpim in a folder of the test's own."""

    def __init__(self, program, folder):
        self.program = program
        self.sanitized = sanitizer.is_in(pathlib.Path(program).parents[1])
        self.folder = folder

    def __call__(self, *arguments, wrapper=(), environment=ENVIRONMENT, **options):
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        result = subprocess.run([*wrapper, self.program, *arguments], cwd=self.folder,
                                env=environment, timeout=300, **options)
        result.stdout = os.fsdecode(result.stdout or b"")
        result.stderr = os.fsdecode(result.stderr or b"")
        return result

    def fails(self, *arguments, **options):
        """Runs kpim, which must fail and print nothing but errors; returns these."""
        result = self(*arguments, **options)
        assert (result.returncode, result.stdout) == (FAILED, ""), result
        return result.stderr

    def looking_for_leaks(self, *arguments):
        """Runs kpim, which must not leak memory."""
        return self(*arguments, environment={**ENVIRONMENT, **sanitizer.options(check_leaks=True)})

    def unprivileged(self, *arguments):
        """Runs kpim so that file modes bind it even as root."""
        wrapper = ["setpriv", "--bounding-set=-all"] if os.geteuid() == 0 else []
        return self(*arguments, wrapper=wrapper)

    def with_fault(self, injection, *arguments, path=None, **options):
        """Runs kpim with a system call failing, as strace's inject= says; `path` narrows it to
        the calls that concern one file."""
        trace = ["strace", "-f", "-o", "/dev/null", "-e", f"inject={injection}"]
        if path:
            trace += ["-P", path]
        return self(*arguments, wrapper=trace, **options)

    def with_memory(self, megabytes, *arguments, **options):
        """Runs kpim with at most `megabytes` of memory. The address sanitizer needs unlimited
        address space; with it, no single request may be larger than half of `megabytes`."""
        wrapper = [] if self.sanitized else ["prlimit", f"--as={megabytes * 1_000_000}"]
        limits = f":allocator_may_return_null=1:max_allocation_size_mb={megabytes // 2}"
        asan = ENVIRONMENT["ASAN_OPTIONS"] + limits
        return self(*arguments, wrapper=wrapper, environment={**ENVIRONMENT, "ASAN_OPTIONS": asan},
                    **options)

    def start(self, *arguments, **options):
        return subprocess.Popen([self.program, *arguments], cwd=self.folder, env=ENVIRONMENT,
                                stdin=subprocess.DEVNULL, **options)


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
    """The contents of a blob file, decoded by blob.py, as make_bundle takes them."""
    (root,) = blob.decode(path.read_bytes())
    assert (root.name, root.is_directory) == (b"", True)
    return blob.files_of(root.content)


def names(folder):
    return sorted(os.listdir(folder))


def poke_status(mode=stat.S_IFREG | 0o644, size=0):
    """For strace: what stat(2) reports. The start of x86-64's struct stat."""
    status = struct.pack("QQQIIIIQq", 1, 1, 1, mode, 0, 0, 0, 0, size)
    return f"newfstatat:poke_exit=@arg3={status.hex()}"


def error(what, why):
    return f"kpim: {what}: {why}\n"


def warning(what, why):
    return f"kpim: warning: {what}: {why}\n"


def result_of(run):
    """The object that a run with --json has printed, without "seconds", which must be a number."""
    result = json.loads(run.stdout)
    assert run.stdout.count("\n") == 1 and (run.returncode == OK) == result["ok"]
    assert 0 <= result.pop("seconds") < 300
    return result


def read_terminal(descriptor):
    """Everything that is written to a pseudo-terminal until its last user closes it."""
    chunks = []
    while True:
        try:
            chunk = os.read(descriptor, 4096)
        except OSError:  # EIO: no process holds the other side any more
            chunk = b""
        if not chunk:
            os.close(descriptor)
            return b"".join(chunks)
        chunks.append(chunk)


def write_blob(folder, entries, name="blob", compress=True):
    (folder / name).write_bytes(blob.solid_root(entries, compress))
    return name
