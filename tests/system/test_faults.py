"""The finalizer while the system fails it: each system call once, full and read-only disks, no
descriptors, SIGKILL, and two at a time."""

import collections
import concurrent.futures
import random
import re
import shutil
import subprocess

import pytest

import blob
import finalizer_log
from install_root import (BLOB, BUNDLE, InstallRoot, Node, PROGRAMS, SETTINGS, SUPPORT, VOLUME,
                          tree_of)

TRACE = "/run/trace"
FINALIZER = PROGRAMS + "/finalizer"
OLD_SETTINGS = b"ExampleSetting=1\n"
OPT_OUT = b"DisableAnalytics=1\n"
NEW_SETTINGS = OLD_SETTINGS + OPT_OUT
LOG_LINES = finalizer_log.success("", finalizer_log.DISABLING_ANALYTICS)

# What a system call may be answered with, each once for each time that it is made.
FAULTS = {
    "openat": ["EACCES", "ENOSPC", "EINTR"],
    "read": ["EIO", "EINTR"],
    "pread64": ["EIO"],
    "write": ["ENOSPC", "EIO", "EINTR"],
    "fsync": ["EIO"],
    "lseek": ["EIO"],
    "fstat": ["EIO"],
    "newfstatat": ["EACCES", "EIO"],
    "access": ["EACCES"],
    "mkdir": ["ENOSPC", "EACCES"],
    "chmod": ["EACCES"],
    "fchmod": ["EACCES"],
    "getdents64": ["EIO"],
    "unlink": ["EACCES", "EIO"],
    "unlinkat": ["EACCES", "EIO"],
    "rmdir": ["EACCES"],
    "rename": ["EACCES"],
    "close": ["EIO"],
    "ftruncate": ["EIO"],
}
SMALL = {
    "Contents/Info.plist": b"<plist/>\n",
    "Contents/MacOS/Plugin": bytes(range(256)) * 40,
    "PkgInfo": b"BRPL????",
}


@pytest.fixture
def small_blob(tmp_path):
    for name, content in SMALL.items():
        path = tmp_path / "small" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    return blob.pack(tmp_path / "small", compress=True)


def small_tree():
    tree = {name: Node("file", 0o664, content) for name, content in SMALL.items()}
    tree.update({name: Node("directory", 0o775) for name in (".", "Contents", "Contents/MacOS")})
    return tree


class Machine:
    """A root that is made new for each run."""

    def __init__(self, root, content):
        self.root = root
        self._content = content
        self._before = None
        # Makes the places of what is shown inside.
        root.execute(["true"])

    def reset(self):
        shutil.rmtree(self.root.path(BUNDLE), ignore_errors=True)
        self.root.log_path("alice").unlink(missing_ok=True)
        self.root.path(TRACE).unlink(missing_ok=True)
        self.root.lay_blob(self._content)
        self.root.write(SETTINGS, OLD_SETTINGS)
        self._before = self._surroundings()

    def run(self, *prefix, **options):
        # A request that was begun and cannot be carried out ends after 30 seconds.
        return self.root.execute([*prefix, FINALIZER, "/", "-disableAnalytics"], timeout=60,
                                 **options)

    def installed(self):
        """The bundle's tree, or nothing."""
        return self.root.tree(BUNDLE) if self.root.path(BUNDLE).exists() else {}

    def log(self):
        path = self.root.log_path("alice")
        return self.root.log("alice") if path.exists() and path.stat().st_size else []

    def check(self, result):
        """What holds whatever has failed."""
        assert result.status in (0, 1), result
        found = self.installed()
        expected = small_tree()
        assert set(found) <= set(expected)
        for name, node in found.items():
            # A file that could not be written is shorter, and nothing else.
            if node.kind == "file":
                assert expected[name].content.startswith(node.content), name
        assert self._surroundings() == self._before
        settings = self.root.path(SETTINGS)
        content = settings.read_bytes() if settings.exists() else None
        # Settings that cannot be read count as none.
        assert content == OLD_SETTINGS or content is not None and (
            NEW_SETTINGS.startswith(content) or OPT_OUT.startswith(content))
        known = LOG_LINES + finalizer_log.missing_blob()
        for line in self.log():
            assert line in known or re.fullmatch(finalizer_log.MALFORMED, line), line
        if result.status == 1:
            # Nothing was installed, and the blob is still there for another try.
            assert found == {} and self.root.path(BLOB).exists()

    def _surroundings(self):
        """All that a run has nothing to do with."""
        trees = {}
        for folder in ("/Library", "/Users", "/tmp", "/Volumes", "/System", "/etc", "/var"):
            for name, node in tree_of(self.root.path(folder)).items():
                trees[f"{folder}/{name}"] = node
        own = (BUNDLE, BLOB, SETTINGS, "/Users/alice/Library/Logs/KorvelPlayerInstallManager.log")
        return {name: node for name, node in trees.items()
                if name not in own and not name.startswith(BUNDLE + "/")}


def calls_of(trace):
    """(name, number of that name's call) of each call from the first one on that is about a file
    of the product's."""
    numbers = collections.Counter()
    found = []
    for line in trace.read_text(errors="replace").splitlines():
        match = re.match(r"(\w+)\(", line)
        if not match:
            continue
        numbers[match.group(1)] += 1
        if found or "/Library/" in line:
            found.append((match.group(1), numbers[match.group(1)]))
    return found


def check_what_a_fault_may_do(machine, status, fault):
    """What is not touched by the call that failed, as strace tells it, is as ever."""
    if status != 0:
        # Without the blob's attributes there is no blob; without a user or its own settings GNUstep
        # does not start.
        assert re.search("PepperKorvelPlayer|/etc/passwd|/etc/nsswitch|GNUstep", fault)
        return
    installed = machine.installed()
    is_whole = {name: node.content for name, node in installed.items()} == {
        name: node.content for name, node in small_tree().items()}
    assert is_whole or "PepperKorvelPlayer" in fault and "EINTR" not in fault
    assert installed == small_tree() or "PepperKorvelPlayer" in fault
    assert not machine.root.path(BLOB).exists() or "PepperKorvelPlayer.plugin.lzma" in fault
    assert machine.root.path(SETTINGS).read_bytes() == NEW_SETTINGS or (
        "/Library/Application Support" in fault)


def test_every_system_call_fails_once(build, install_root, small_blob, tmp_path):
    if build.name == "asan":
        pytest.skip("AddressSanitizer itself cannot bear that its calls fail")
    machines = [Machine(install_root, small_blob),
                Machine(InstallRoot(tmp_path / "second", build, shared=tmp_path), small_blob)]
    first = machines[0]
    first.reset()
    result = first.run("strace", "-qq", "-o", TRACE, "-e", "trace=" + ",".join(FAULTS))
    assert (result.status, first.log(), first.installed()) == (0, LOG_LINES, small_tree())
    calls = calls_of(first.root.path(TRACE))
    made = {name for name, _ in calls}
    assert {"openat", "read", "write", "mkdir", "fsync"} <= made
    faults = [(name, number, error) for name, number in calls for error in FAULTS[name]]

    def inject(machine, share):
        for name, number, error in share:
            machine.reset()
            result = machine.run("strace", "-qq", "-y", "-s", "300", "-o", TRACE, "-e",
                                 f"trace={name}", "-e",
                                 f"inject={name}:error={error}:when={number}")
            trace = machine.root.path(TRACE).read_text(errors="replace")
            (fault,) = [line for line in trace.splitlines() if "(INJECTED)" in line]
            try:
                machine.check(result)
                check_what_a_fault_may_do(machine, result.status, fault)
            except AssertionError as failure:
                raise AssertionError(f"{fault}: {failure}") from failure

    with concurrent.futures.ThreadPoolExecutor(len(machines)) as pool:
        for done in [pool.submit(inject, machine, faults[index::len(machines)])
                     for index, machine in enumerate(machines)]:
            done.result()
    print(f"{len(faults)} faults in {len(calls)} calls of {len(made)} kinds")


@pytest.fixture
def machine(install_root, small_blob):
    made = Machine(install_root, small_blob)
    made.reset()
    return made


@pytest.fixture
def volume(install_root):
    """Makes the volume /Volumes/Target a file system of its own, of a size in bytes."""
    path = install_root.path(VOLUME)
    mounted = []

    def mount(size):
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=755", "none", path],
                       check=True)
        mounted.append(path)
        (path / "Library/Internet Plug-Ins/PepperKorvelPlayer").mkdir(parents=True)
        (path / SUPPORT[1:]).mkdir(parents=True)
        return path

    yield mount
    for each in mounted:
        subprocess.run(["umount", each], check=True)


def test_full_disk(install_root, finalizer_run, volume, tmp_path):
    bundle = tmp_path / "Large.plugin"
    for number in range(8):
        (bundle / f"folder {number}").mkdir(parents=True)
        (bundle / f"folder {number}/file").write_bytes(bytes([65 + number]) * 65536)
    packed = blob.pack(bundle, compress=True)
    path = volume(262144)
    install_root.lay_blob(packed, VOLUME)
    finalizer_run([VOLUME])
    found = tree_of(path / BUNDLE[1:])
    whole = tree_of(bundle)
    assert set(found) <= set(whole)
    for name, node in found.items():
        if node.kind == "file":
            assert whole[name].content.startswith(node.content)
    assert sum(node.content == whole[name].content for name, node in found.items()
               if node.kind == "file") < 8
    # As when there is room: what the sink cannot write is not reported, and the blob goes.
    assert install_root.log("alice") == finalizer_log.success(VOLUME)
    assert not (path / BLOB[1:]).exists()

    subprocess.run(["mount", "-o", "remount,size=4194304", path], check=True)
    install_root.lay_blob(packed, VOLUME)
    finalizer_run([VOLUME])
    assert {name: node.content for name, node in tree_of(path / BUNDLE[1:]).items()} == {
        name: node.content for name, node in whole.items()}


def test_full_disk_under_the_log(install_root, finalizer_run, small_blob):
    install_root.set_console(None)
    logs = install_root.path("/Library/Logs")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4096,mode=755", "none", logs], check=True)
    try:
        (logs / "filler").write_bytes(b"x" * 4096)
        install_root.lay_blob(small_blob)
        finalizer_run(["/"])
        assert install_root.tree(BUNDLE) == small_tree()
        log = install_root.log_path()
        assert not log.exists() or log.read_bytes() == b""
    finally:
        subprocess.run(["umount", logs], check=True)


def test_read_only_volume(install_root, finalizer_run, volume, small_blob):
    path = volume(1048576)
    install_root.lay_blob(small_blob, VOLUME)
    subprocess.run(["mount", "-o", "remount,ro", path], check=True)
    before = tree_of(path)
    finalizer_run([VOLUME, "-disableAnalytics"])
    assert tree_of(path) == before
    assert install_root.log("alice") == finalizer_log.success(
        VOLUME, finalizer_log.DISABLING_ANALYTICS)


# With 6 to 8 a request can be begun and not carried out: it ends after its 30 seconds.
@pytest.mark.parametrize("limit", [4, 5, 6, 9, 10, 12])
def test_few_descriptors(machine, limit):
    # Leaks are told apart by another program's help, which needs descriptors.
    result = machine.run("prlimit", f"--nofile={limit}:{limit}", check_leaks=False)
    machine.check(result)
    # Below that, the sanitizers' own descriptors make a difference.
    if limit >= 6:
        assert (result.status, machine.installed()) == (0, small_tree())


def test_limit_of_the_file_size(machine):
    limit = 4096
    result = machine.run("prlimit", f"--fsize={limit}:{limit}")
    # The system ends a process that goes beyond it, unless it has said otherwise.
    assert result.status in (0, -25, 128 + 25), result
    for name, node in machine.installed().items():
        if node.kind == "file":
            assert len(node.content) <= limit
            assert SMALL[name].startswith(node.content)


def test_killed_at_any_moment_and_run_again(install_root, large_bundle, finalizer_run):
    packed = blob.pack(large_bundle, compress=True)
    whole = {name: node.content for name, node in tree_of(large_bundle).items()}
    moments = random.Random(1)
    interrupted = 0
    for _ in range(25):
        shutil.rmtree(install_root.path(BUNDLE), ignore_errors=True)
        install_root.lay_blob(packed)
        seconds = moments.uniform(0.005, 0.25)
        install_root.execute(["timeout", "--signal=KILL", f"{seconds:.3f}", FINALIZER, "/"])
        found = install_root.tree(BUNDLE) if install_root.path(BUNDLE).exists() else {}
        assert set(found) <= set(whole)
        complete = {name: node.content for name, node in found.items()} == whole
        interrupted += not complete
        # The blob goes only when all of it has been written.
        assert complete or install_root.path(BLOB).exists()
        if not install_root.path(BLOB).exists():
            install_root.lay_blob(packed)
        finalizer_run(["/"])
        assert {name: node.content for name, node in install_root.tree(BUNDLE).items()} == whole
    assert interrupted > 0


def test_two_at_once_on_one_log(install_root, small_blob):
    rounds = 20
    install_root.mkdir(VOLUME + "/Library/Internet Plug-Ins/PepperKorvelPlayer")
    for _ in range(rounds):
        install_root.lay_blob(small_blob)
        install_root.lay_blob(small_blob, VOLUME)
        result = install_root.execute(
            ["sh", "-c", f"{FINALIZER} / & one=$!; {FINALIZER} {VOLUME} & other=$!; "
                         "wait $one && wait $other"])
        assert (result.status, result.stdout, result.stderr) == (0, "", "")
        assert install_root.tree(BUNDLE) == small_tree()
        assert install_root.tree(VOLUME + BUNDLE) == small_tree()
    expected = collections.Counter(
        (finalizer_log.success() + finalizer_log.success(VOLUME)) * rounds)
    found = collections.Counter(install_root.log("alice"))
    print("lost:", sum((expected - found).values()), "of", sum(expected.values()),
          "odd:", found - expected)
    assert found == expected
