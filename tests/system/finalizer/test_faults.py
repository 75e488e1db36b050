"""The finalizer when the system fails: each system call once, full and read-only disks, few
descriptors, SIGKILL, and two at a time."""

import collections
import concurrent.futures
import errno
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import time

import pytest

import blob
import finalizer_log
import sanitizer
import system_calls
from exchanger import ROUNDS
from install_root import (BLOB, BUNDLE, EXPRESS_FLAG, INSTALL_VECTOR, InstallRoot, LOG, Node,
                          OPEN_CALLS, PREVIOUS_VERSION, PROFILES, PROGRAMS, ROOT_HOME, SETTINGS,
                          SUPPORT, VOLUME, tree_of)
from test_finalizer_express_install import REDIRECT_PAGE, UPDATER as UPDATER_IN_HOME
from test_obsolete_plugins import FOLDER, NAMES, SYSTEM_PLUGIN

TRACE = "/run/trace/calls"
FAULT = "/run/trace/fault"
FINALIZER = PROGRAMS + "/finalizer"
LOG_WRITER = "/opt/log_writer"
USER_LOG = f"/Users/alice/{LOG}"
UPDATER = ROOT_HOME + UPDATER_IN_HOME
OBSOLETE = [f"{ROOT_HOME}{FOLDER}/{name}" for name in NAMES] + [SYSTEM_PLUGIN]

OLD_SETTINGS = b"ExampleSetting=1\n"
OPT_OUT = b"DisableAnalytics=1\n"
NEW_SETTINGS = OLD_SETTINGS + OPT_OUT
LINES = finalizer_log.success("", finalizer_log.READING_VERSION, finalizer_log.DISABLING_ANALYTICS)

# The errors of each call on files and descriptors. A call on a file of the product fails with each
# of them; a call on a file of the libraries, or on no file, fails with the first.
FAULTS = {
    "access": ["EACCES"],
    "chdir": ["EACCES"],
    "chmod": ["EACCES"],
    "clone3": ["EAGAIN"],
    "close": ["EIO", "EINTR"],
    "epoll_create1": ["EMFILE"],
    "epoll_ctl": ["ENOMEM"],
    "epoll_wait": ["EINTR"],
    "execve": ["EACCES"],
    "fchdir": ["EACCES", "EINTR"],
    "fchmod": ["EACCES"],
    "fcntl": ["EINTR"],
    "flock": ["ENOLCK", "EINTR"],
    "fsync": ["EIO", "EINTR"],
    "ftruncate": ["EIO", "EINTR"],
    "getcwd": ["EACCES"],
    "getdents64": ["EIO"],
    "lseek": ["EIO"],
    "mkdir": ["ENOSPC", "EACCES"],
    "newfstatat": ["EACCES", "EIO"],
    "openat": ["EACCES", "EINTR"],
    "pipe2": ["EMFILE"],
    "poll": ["EINTR"],
    "read": ["EIO", "EINTR"],
    "readlink": ["EIO"],
    "rmdir": ["EACCES", "EIO"],
    "timerfd_create": ["EMFILE"],
    "timerfd_settime": ["EINVAL"],
    "unlink": ["EACCES", "EIO"],
    "vfork": ["EAGAIN"],
    "write": ["ENOSPC", "EIO", "EINTR"],
}
# Calls that are never failed, and why.
LEFT_OUT = {
    "mmap": "the loader, the allocator and the C library make it; it fails for want of memory",
}
# Only the first of these fails: their number depends on how long a transfer takes.
MADE_AS_OFTEN_AS_NEEDED = {"epoll_ctl", "epoll_wait", "poll", "timerfd_settime"}
# If these fail, the report is begun and waits for its time-out of 30 seconds. They come first, so
# that the others run meanwhile.
SLOW = {"epoll_create1", "epoll_ctl", "timerfd_create"}
RUNS_AT_ONCE = 6
# Calls that change something, besides an openat that creates or empties a file.
CHANGES = {"chmod", "fchmod", "ftruncate", "mkdir", "rmdir", "unlink", "write"}
# A shell, and bwrap, adds this to a signal's number to make an exit status.
SIGNALLED = 128

OWN_FILE = re.compile(f"(/Users/alice|{ROOT_HOME})?/Library/|/tmp/")
# The files that name the user at the console.
ABOUT_USERS = re.compile("/run/systemd/|/etc/passwd$|/etc/nsswitch.conf$")
# GNUstep does not start without a user, its settings and its tables.
NEEDED_BY_GNUSTEP = re.compile("/etc/passwd$|/etc/GNUstep/|/usr/share/GNUstep/.*/Languages/")

SMALL = {
    "Contents/Info.plist": b"<plist/>\n",
    "Contents/Resources/icon": b"icon",
    "Contents/MacOS/Plugin": bytes(range(256)) * 40,
    "PkgInfo": b"BRPL????",
}
OLD = {
    "Contents/MacOS/Plugin": b"an older one",
    "Contents/Helper/Helper": b"no longer part of it",
}
# Links in the old bundle, in the place of a folder and of a file of the new one.
ELSEWHERE = "/Library/elsewhere"
OLD_LINKS = {"Contents/Resources": ELSEWHERE, "PkgInfo": "/tmp/elsewhere"}


@pytest.fixture(autouse=True)
def in_memory(tmp_path):
    """All roots are in memory, because each run flushes its log seven times."""
    if os.geteuid() != 0:
        pytest.skip("a root of its own needs root: it changes owners and user ids")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256m,mode=755", "none", tmp_path],
                   check=True)
    yield
    subprocess.run(["umount", tmp_path], check=True)


@pytest.fixture
def small_blob(tmp_path):
    for name, content in SMALL.items():
        path = tmp_path / "small" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    return blob.pack(tmp_path / "small", compress=True)


def tree_with(files):
    """The tree that is installed of the `files`, contents by relative path."""
    tree = {name: Node("file", 0o664, content) for name, content in files.items()}
    for name in files:
        for parent in pathlib.PurePath(name).parents:
            tree[str(parent)] = Node("directory", 0o775)
    return tree


def contents(tree):
    return {name: node.content for name, node in tree.items()}


NEW_TREE = tree_with(SMALL)
NEW_CONTENTS = contents(NEW_TREE)
OLD_CONTENTS = {**contents(tree_with(OLD)), **OLD_LINKS}


def lies_in(name, folder):
    return name == folder or name.startswith(folder + "/")


class Machine:
    """A root that is made new for each run.

    With `has_all` it has everything that a run finds, removes or completes: an older bundle,
    obsolete plug-ins, the note of the previous version, and an express install to hand over after
    the report. Otherwise it is a first installation with its own install vector.
    """

    def __init__(self, root, content, has_all=True):
        self.root = root
        self.has_all = has_all
        self._content = content
        self._before = None
        self.root.mkdir("/run/trace")
        self.root.mkdir(ELSEWHERE)
        if has_all:
            root.write(EXPRESS_FLAG, b"")
            root.pin(EXPRESS_FLAG)
        # Makes the mount points of what is shown inside.
        root.execute(["true"])

    def reset(self):
        shutil.rmtree(self.root.path(BUNDLE), ignore_errors=True)
        for path in OBSOLETE:
            self._remove(path)
        for path in (USER_LOG, "/" + LOG, UPDATER, PREVIOUS_VERSION, INSTALL_VECTOR):
            self._remove(path)
        for file in self.root.path("/run/trace").iterdir():
            file.unlink()
        self.root.write(OPEN_CALLS, b"")
        self.root.lay_blob(self._content)
        self.root.write(SETTINGS, OLD_SETTINGS)
        if self.has_all:
            self._lay_all()
        else:
            self.root.write(INSTALL_VECTOR, b"7")
        self._before = self._surroundings()

    def run(self, *prefix, **options):
        # A request that was begun and cannot be completed ends after 30 seconds.
        return self.root.execute([*prefix, FINALIZER, "/", "-disableAnalytics"], timeout=500,
                                 **options)

    def calls(self):
        """The calls of a run, from the first on a file of the product or of the console user on:
        those of the first thread, and those of all others."""
        self.reset()
        result = self.run(*system_calls.tracing(TRACE))
        assert result.status == 0, result
        self.check_everything_is_done()
        first, others = system_calls.read_trace(self.root.path(TRACE))
        start = next(index for index, call in enumerate(first)
                     if OWN_FILE.match(call.path) or ABOUT_USERS.match(call.path))
        # An instrumented program writes its counts at its end.
        return [call for call in first[start:] if not lies_in(call.path, PROFILES)], others

    def tree(self, inside):
        """The tree of `inside`; empty if it does not exist."""
        return self.root.tree(inside) if self.root.path(inside).exists() else {}

    def log(self, path=USER_LOG):
        """The lines of a log, or None."""
        if not self.root.path(path).exists():
            return None
        if self.root.path(path).stat().st_size == 0:
            return []
        return self.root.log("alice" if path == USER_LOG else None)

    def settings(self):
        path = self.root.path(SETTINGS)
        return path.read_bytes() if path.exists() else None

    def lines(self):
        """The log of a run that nothing disturbs."""
        return [line for line in LINES
                if self.has_all or line != finalizer_log.READING_VERSION]

    def has(self, inside):
        return os.path.lexists(self.root.path(inside))

    def check_everything_is_done(self):
        assert self.tree(BUNDLE) == NEW_TREE
        assert not self.has(BLOB)
        assert self.settings() == NEW_SETTINGS
        assert not any(self.has(path) for path in [*OBSOLETE, UPDATER])
        assert self.root.open_calls() == [[REDIRECT_PAGE]] * self.has_all
        assert self.log() == self.lines()
        assert self.has(EXPRESS_FLAG) == self.has_all
        self.check_surroundings()

    def check_nothing_is_done(self):
        """Checks that everything is there for another try."""
        assert contents(self.tree(BUNDLE)) == (OLD_CONTENTS if self.has_all else {})
        assert self.has(BLOB)
        assert self.settings() == OLD_SETTINGS
        assert all(self.has(path) for path in [*OBSOLETE, UPDATER]) == self.has_all
        assert self.root.open_calls() == []
        self.check_surroundings()

    def check_surroundings(self):
        assert self._surroundings() == self._before

    def _lay_all(self):
        for name, content in OLD.items():
            self.root.write(f"{BUNDLE}/{name}", content)
        for name, target in OLD_LINKS.items():
            self.root.path(f"{BUNDLE}/{name}").symlink_to(target)
        for path in OBSOLETE:
            is_file = path.endswith(".xpt")
            self.root.write(path if is_file else path + "/Contents/old", b"old")
        self.root.write(PREVIOUS_VERSION, b"32.0.0.255\n")
        self.root.write(UPDATER, b"updater")

    def _remove(self, inside):
        path = self.root.path(inside)
        if path.is_dir():
            shutil.rmtree(path)
        else:
            path.unlink(missing_ok=True)

    def _surroundings(self):
        """Everything that a run must not change."""
        trees = {}
        for folder in ("/Library", "/Users", "/tmp", "/Volumes", "/System", "/etc", "/var"):
            for name, node in tree_of(self.root.path(folder)).items():
                trees[f"{folder}/{name}"] = node
        own = (BUNDLE, BLOB, SETTINGS, USER_LOG, "/" + LOG, UPDATER, *OBSOLETE)
        return {name: node for name, node in trees.items()
                if name not in own and not name.startswith(tuple(path + "/" for path in own))}


@pytest.fixture
def machine(install_root, small_blob):
    made = Machine(install_root, small_blob)
    made.reset()
    return made


# ---- What one fault may do

# Lines about old items that stay, and about new ones that are missing.
REPORT = re.compile(
    r"\[E\] FIN: (ERROR: (?P<refused>\d+) of the old bundle's items could not be removed: (?P<cause>.*)"
    r"|Error writing file: '(?P<path>.*)'"
    r"|ERROR: (?P<failed>\d+) of (?P<entries>\d+) entries of the payload could not be written: "
    r"(?P<reason>.*))\.")
# A stage in which the working directory changes begins with opening the current one.
WALKS = ("removing the bundle", "writing", "removing the blob")
# Each walk after those removes one item: an obsolete plug-in, the flag, the updater.
LATER_WALK = "removing an item"


def stages_of(calls):
    """For each call, the stage above that it belongs to, or ""."""
    stages = []
    stage = ""
    walks = iter(WALKS)
    for call in calls:
        if (call.name, call.given, call.folder) == ("openat", ".", "/"):
            stage = next(walks, LATER_WALK)
        stages.append(stage)
        if (call.name, call.given) == ("fchdir", "") and call.folder:
            stage = ""
    return stages


def check_bundle(machine, call, error, stage):
    """Checks that the bundle is whole, unless the fault was on the bundle or the blob and not an
    interruption. Returns how many entries are wrong."""
    found = machine.tree(BUNDLE)
    is_about_blob = call.path == BLOB or stage == "removing the blob"
    assert not machine.has(BLOB) or is_about_blob and error != "EINTR"
    if call.path == BLOB and not stage:
        # The blob is read in one piece, and refused as a whole.
        assert found == NEW_TREE or found == {} and error != "EINTR"
        return 0
    if stage not in WALKS[:2] or error == "EINTR":
        assert found == NEW_TREE
    elif stage == "writing":
        # Entries that could not be made or written are missing or shorter, and nothing else is
        # there.
        assert set(found) <= set(NEW_TREE)
        for name, node in found.items():
            assert node.kind == "directory" or NEW_TREE[name].content.startswith(node.content), name
    else:
        # Items of the old bundle that cannot be removed stay in the new one. Nothing is written
        # through old links.
        links = [name for name, node in found.items() if node.kind == "link"]
        assert contents(found).items() <= OLD_CONTENTS.items() | NEW_CONTENTS.items()
        for name, content in NEW_CONTENTS.items():
            assert (contents(found).get(name, "missing") == content
                    or any(lies_in(name, link) for link in links)), name
    return sum(contents(found).get(name, "missing") != content
               for name, content in NEW_CONTENTS.items())


def check_reports(machine, error, stage, missing):
    """Checks that the log reports the old items that stay and the new ones that are missing, and no
    others. Returns these lines."""
    matches = [match for match in map(REPORT.fullmatch, machine.log() or []) if match]
    why = os.strerror(getattr(errno, error))
    reports = [match[0] for match in matches]
    if matches and matches[0]["refused"]:
        assert (stage, matches.pop(0)["cause"]) == ("removing the bundle", why)
    else:
        assert set(machine.tree(BUNDLE)) <= set(NEW_TREE)
    if not matches:
        assert missing == 0
        return reports
    first, counts = matches
    assert first["path"].startswith(BUNDLE)
    # A folder that is made and cannot be entered, a mode, and a close fail an entry too.
    assert missing <= int(counts["failed"]) <= missing + 1
    assert int(counts["entries"]) == len(NEW_TREE)
    # The others fail because of old links that stay.
    assert counts["reason"] == (why if stage == "writing" else os.strerror(errno.ELOOP))
    return reports


def logs_after(call, error, lines):
    """The logs that the fault allows: all `lines`, unless the fault was on the log or on something
    that a line reports. None is a missing log."""
    if call.path == USER_LOG:
        if call.name in ("openat", "newfstatat"):
            # The product makes the file, after an interruption once more; then Foundation opens it.
            is_made_again = (call.name, call.number, error) == ("openat", 1, "EINTR")
            return [lines] if is_made_again else [None, [], lines]
        # The first lseek is not for a line.
        is_about_line = call.name == "write" or call.name == "lseek" and call.number > 1
        if is_about_line and error != "EINTR":
            return [lines[:index] + lines[index + 1:] for index in range(len(lines))]
    if (call.path, call.name, error) == (BLOB, "read", "EIO"):
        return [lines[:3] + [finalizer_log.UNREADABLE_BLOB] + lines[3:]]
    if (call.path, call.name, call.folder) == (BLOB, "newfstatat", ""):
        # The size of the opened blob is read once more.
        why = os.strerror(getattr(errno, error))
        return [lines, lines[:3] + [finalizer_log.unreadable_blob(why)] + lines[3:]]
    if (call.path, call.name, error) == (BLOB, "flock", "ENOLCK"):
        return [lines[:3] + [finalizer_log.UNLOCKED_BLOB] + lines[3:]]
    if (call.path, call.name) == (PREVIOUS_VERSION, "newfstatat"):
        return [lines, [line for line in lines if line != finalizer_log.READING_VERSION]]
    return [lines]


def check_log(machine, call, error, reports):
    lines = machine.lines()
    lines[3:3] = reports
    found = machine.log()
    if found is not None and not OWN_FILE.match(call.path):
        # Foundation raises if it cannot even begin a request.
        found = [line for line in found if not line.startswith("[E] FIN: ERROR: Pingback failed: ")]
    logs = (found, machine.log("/" + LOG))
    if ABOUT_USERS.match(call.path):
        # No user at the console, or a user without a name.
        assert logs in [(lines, None), (None, lines), (None, None)]
    else:
        assert logs in [(log, None) for log in logs_after(call, error, lines)]


def check_settings(machine, call, error):
    found = machine.settings()
    if call.path != SETTINGS:
        assert found == NEW_SETTINGS
    elif call.name == "write":
        assert found == b""
    elif call.name == "openat" and error != "EINTR":
        # Settings that cannot be read count as empty; a file that cannot be opened for writing
        # stays.
        assert found == (OPT_OUT if call.number == 1 else OLD_SETTINGS)
    elif (call.name, call.number) == ("newfstatat", 1) and found != NEW_SETTINGS:
        # If stat fails, the file counts as missing.
        assert found == OPT_OUT
    else:
        # A file that is not read to its end is not written.
        assert found in (NEW_SETTINGS, OLD_SETTINGS)
        assert found == NEW_SETTINGS or call.name in ("fcntl", "ftruncate", "lseek",
                                                      "newfstatat") or error == "EIO"


def check_what_is_removed(machine, call, error, stage):
    assert machine.root.open_calls() in ([], [[REDIRECT_PAGE]])
    if ABOUT_USERS.match(call.path):
        return
    left = [path for path in (*OBSOLETE, UPDATER) if machine.has(path)]
    if stage == LATER_WALK:
        # An interruption changes nothing; another error keeps one item.
        assert len(left) <= (error != "EINTR"), left
    elif call.name == "vfork" or call.path in (EXPRESS_FLAG, "/usr/bin/open"):
        assert left in ([], [UPDATER])
        return
    else:
        assert all(call.path.startswith(path) for path in left), left
    if call.path not in (EXPRESS_FLAG, UPDATER):
        assert machine.root.open_calls() == [[REDIRECT_PAGE]] * machine.has_all


def check_fault(machine, result, call, error, stage):
    assert result.status in (0, 1), result
    if result.status == 1:
        machine.check_nothing_is_done()
        if call.path == BLOB:
            assert (call.name, machine.log()) == ("newfstatat", finalizer_log.missing_blob())
        else:
            assert NEEDED_BY_GNUSTEP.match(call.path) and machine.log() in (None, [])
        return
    missing = check_bundle(machine, call, error, stage)
    check_log(machine, call, error, check_reports(machine, error, stage, missing))
    check_settings(machine, call, error)
    check_what_is_removed(machine, call, error, stage)
    machine.check_surroundings()


def errors_of(call, build):
    is_own = OWN_FILE.match(call.path)
    if sanitizer.is_in(build):
        # Sanitized runs take three times as long: only calls on the product's files, which
        # distinct() reduces to one each.
        return [error for index, error in enumerate(FAULTS[call.name])
                if is_own and (index == 0 or error == "EINTR")]
    errors = FAULTS[call.name] if is_own else FAULTS[call.name][:1]
    return errors + ["ENOSPC"] if "O_CREAT" in call.text else errors


def calls_to_fail(first, others):
    """Each call of the first thread, and the calls of the others (a name's look-up, a child that
    becomes another program) that differ from those."""
    paths = {call.path for call in first}
    names = {call.name for call in first}
    distinct_calls = [call for call in others
            if call.name not in names or call.path and call.path not in paths]
    # Closing inherited descriptors, and calls that also fail in the first thread.
    assert {(call.name, call.path) for call in others if call not in distinct_calls} <= {
        ("close", ""), ("close", USER_LOG), ("execve", "/usr/bin/open"), ("mmap", ""),
        ("newfstatat", "/etc/nsswitch.conf")}
    return [call for call in first + distinct_calls
            if call.name not in LEFT_OUT
            and (call.name not in MADE_AS_OFTEN_AS_NEEDED or call.number == 1)]


def distinct(faults, build):
    """The faults without repetitions of one call on the same file: always for the libraries' files,
    and in the slow sanitized build also for the product's."""
    first = {}
    for number, (index, call, error, stage) in enumerate(faults):
        is_repeated = sanitizer.is_in(build) or call.path and not OWN_FILE.match(call.path)
        key = (call.name, call.path, error, stage) if is_repeated else number
        first.setdefault(key, (index, call, error, stage))
    return list(first.values())


def test_every_system_call_fails_once(build, small_blob, tmp_path):
    # A first installation adds calls, but no code that a sanitizer has not seen.
    states = (True,) if sanitizer.is_in(build) else (True, False)

    def machines(number):
        return [Machine(InstallRoot(tmp_path / f"{number} {has_all}", build, shared=tmp_path),
                        small_blob, has_all) for has_all in states]

    all_machines = [machines(number) for number in range(RUNS_AT_ONCE)]
    seen = set()
    known = set()
    faults = []
    for index, machine in enumerate(all_machines[0]):
        first, others = machine.calls()
        seen |= {call.name for call in first + others}
        stages = dict(zip(first, stages_of(first)))
        assert set(stages.values()) == {"", *WALKS, *[LATER_WALK] * machine.has_all}
        # The second installation adds only calls that the first did not make.
        faults += [(index, call, error, stages.get(call, ""))
                   for call in calls_to_fail(first, others)
                   if (call.name, call.path) not in known for error in errors_of(call, build)]
        known |= {(call.name, call.path) for call in first + others}
    faults = distinct(faults, build)
    assert seen == set(FAULTS) | set(LEFT_OUT)

    todo = queue.SimpleQueue()
    for fault in sorted(faults, key=lambda fault: fault[1].name not in SLOW):
        todo.put(fault)

    def inject(own_machines):
        while True:
            try:
                index, call, error, stage = todo.get_nowait()
            except queue.Empty:
                return
            machine = own_machines[index]
            machine.reset()
            result = machine.run(*call.failing("error=" + error, FAULT))
            try:
                assert system_calls.has_failed(machine.root.path(FAULT), call)
                check_fault(machine, result, call, error, stage)
            except AssertionError as failure:
                raise AssertionError(f"{error} for {call}: {failure}") from failure

    with concurrent.futures.ThreadPoolExecutor(RUNS_AT_ONCE) as pool:
        for done in [pool.submit(inject, own) for own in all_machines]:
            done.result()
    print(f"{len(faults)} faults in {len({fault[1] for fault in faults})} calls")


# ---- Disks and limits


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
    # The blob is removed, as with enough room.
    started, output, blob_line, first, counts, succeeded = install_root.log("alice")
    assert [started, output, blob_line, succeeded] == finalizer_log.success(VOLUME)
    failed = [name for name, node in whole.items() if node.kind == "file"
              and (name not in found or found[name].content != node.content)]
    assert [first, counts] == finalizer_log.not_written(
        f"{VOLUME}{BUNDLE}/{min(failed)}", len(failed), len(whole), os.strerror(errno.ENOSPC))
    assert not (path / BLOB[1:]).exists()

    subprocess.run(["mount", "-o", "remount,size=4194304", path], check=True)
    install_root.lay_blob(packed, VOLUME)
    finalizer_run([VOLUME])
    assert contents(tree_of(path / BUNDLE[1:])) == contents(whole)


def test_full_disk_under_the_log(install_root, finalizer_run, small_blob):
    install_root.set_console(None)
    logs = install_root.path("/Library/Logs")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4096,mode=755", "none", logs], check=True)
    try:
        (logs / "filler").write_bytes(b"x" * 4096)
        install_root.lay_blob(small_blob)
        finalizer_run(["/"])
        assert install_root.tree(BUNDLE) == NEW_TREE
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
        VOLUME, *finalizer_log.not_written(VOLUME + BUNDLE, len(NEW_TREE), len(NEW_TREE),
                                           os.strerror(errno.EROFS)),
        finalizer_log.DISABLING_ANALYTICS)


PINGBACK_FAILED = ("[E] FIN: ERROR: Pingback failed: Failed to create pipe to handle perform in "
                   "thread.")


def test_roots_own_way_to_the_log_fails_once(machine):
    """The console user may not write the log, so root enters its folders one by one. Each call on
    that way fails once: the log is unchanged or complete, and everything else is done."""
    def lay_log():
        machine.reset()
        machine.root.write(USER_LOG, "", mode=0o600)

    lay_log()
    assert machine.run(*system_calls.tracing(TRACE)).status == 0
    first, _ = system_calls.read_trace(machine.root.path(TRACE))
    start = next(index for index, call in enumerate(first)
                 if (call.name, call.given) == ("openat", "."))
    end = next(index for index, call in enumerate(first)
               if index > start and call.name == "lseek" and call.path == USER_LOG)
    way = first[start:end]
    assert {"/", "/Users", "/Users/alice", f"/Users/alice/{LOG}"} <= {call.path for call in way}
    for call in way:
        for error in FAULTS[call.name]:
            lay_log()
            result = machine.run(*call.failing("error=" + error, FAULT))
            assert system_calls.has_failed(machine.root.path(FAULT), call), call
            assert result.status == 0, (call, error)
            assert machine.tree(BUNDLE) == NEW_TREE, (call, error)
            assert machine.log() in ([LINES] if error == "EINTR" else [LINES, []]), (call, error)
            assert machine.log("/" + LOG) is None, (call, error)
            machine.check_surroundings()


# With 6 to 8 a request can begin but, as a rule, not be completed: it ends after its 30 seconds.
@pytest.mark.parametrize("limit", [4, 5, 6, 7, 9, 10, 12])
def test_few_descriptors(machine, limit):
    result = machine.run("prlimit", f"--nofile={limit}:{limit}")
    assert result.status == 0, result
    # Needed besides the log's descriptor: the blob's, the previous working directory's, and one for
    # each file and folder in turn. A request that is not completed keeps its own.
    is_enough = limit >= 7
    too_many = os.strerror(errno.EMFILE)
    lines = list(LINES)
    if not is_enough:
        lines.insert(3, finalizer_log.not_removed(1, too_many))
    if limit == 4:
        lines.insert(3, finalizer_log.unreadable_blob(too_many))
    if limit in (4, 5):
        # Foundation cannot even begin.
        lines.insert(lines.index(finalizer_log.DISABLING_ANALYTICS), PINGBACK_FAILED)
    if limit in (5, 6):
        lines[4:4] = finalizer_log.not_written(BUNDLE, len(NEW_TREE), len(NEW_TREE), too_many)
    assert machine.log() == lines
    if is_enough:
        assert machine.tree(BUNDLE) == NEW_TREE
        assert not any(machine.has(path) for path in OBSOLETE)
    else:
        assert contents(machine.tree(BUNDLE)) == OLD_CONTENTS
    assert machine.has(BLOB) != is_enough
    assert machine.settings() == (OLD_SETTINGS if limit == 6 else NEW_SETTINGS)
    assert machine.root.open_calls() == ([[REDIRECT_PAGE]] if limit == 12 else [])
    machine.check_surroundings()


def test_limit_of_the_file_size(machine):
    """As on a full disk: the signal does not end the run."""
    limit = 4096
    result = machine.run("prlimit", f"--fsize={limit}:{limit}")
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    name = "Contents/MacOS/Plugin"
    assert contents(machine.tree(BUNDLE)) == {**NEW_CONTENTS, name: SMALL[name][:limit]}
    lines = list(LINES)
    lines[3:3] = finalizer_log.not_written(f"{BUNDLE}/{name}", 1, len(NEW_TREE),
                                           os.strerror(errno.EFBIG))
    assert machine.log() == lines
    assert machine.settings() == NEW_SETTINGS


# ---- SIGKILL


def changes_something(call):
    return (OWN_FILE.match(call.path)
            and (call.name in CHANGES or call.name == "openat" and "O_CREAT" in call.text))


def stage_of(machine, is_removal):
    """How far a killed run has come, by its bundle and blob."""
    found = machine.tree(BUNDLE)
    if not machine.has(BLOB):
        # The blob is removed only when the whole bundle has been written.
        assert found == NEW_TREE
        return "blob removed"
    if contents(found) == OLD_CONTENTS:
        return "not begun"
    if found == NEW_TREE:
        return "written"
    if is_removal:
        assert contents(found).items() <= OLD_CONTENTS.items()
        return "removing"
    assert set(found) <= set(NEW_TREE)
    for name, node in found.items():
        assert node.kind == "directory" or NEW_TREE[name].content.startswith(node.content)
    return "writing"


@pytest.mark.release_only("no sanitizer reports what a killed program has done")
def test_killed_at_each_change_and_run_again(machine, small_blob):
    first, _ = machine.calls()
    blob_is_read = next(index for index, call in enumerate(first)
                        if (call.name, call.path) == ("read", BLOB))
    moments = [(call, index < blob_is_read) for index, call in enumerate(first)
               if changes_something(call)]
    stages = collections.Counter()
    for call, is_removal in moments:
        machine.reset()
        # The call is not carried out.
        result = machine.run(*call.failing("signal=KILL", FAULT))
        assert result.status == SIGNALLED + signal.SIGKILL, call
        machine.check_surroundings()
        stages[stage_of(machine, is_removal)] += 1
        lines = machine.log() or []
        assert lines == LINES[:len(lines)], call
        # The settings are written in place.
        is_cut = (call.name, call.path) == ("write", SETTINGS)
        assert machine.settings() in ([b""] if is_cut else [OLD_SETTINGS, NEW_SETTINGS]), call

        # Places the blob as the package does. A blob that is still there is the same.
        machine.root.lay_blob(small_blob)
        assert machine.run().status == 0
        assert machine.tree(BUNDLE) == NEW_TREE, call
        assert not any(machine.has(path) for path in [BLOB, *OBSOLETE, UPDATER]), call
        assert machine.settings() == (OPT_OUT if is_cut else NEW_SETTINGS), call
        assert machine.log() == lines + LINES, call
        machine.check_surroundings()
    assert set(stages) == {"not begun", "removing", "writing", "written", "blob removed"}
    print(f"killed at {len(moments)} moments:", dict(stages))


@pytest.mark.release_only("no sanitizer reports what a killed program has done")
def test_killed_at_random_moments(install_root, tmp_path):
    numbers = random.Random(1)
    bundle = tmp_path / "Large.plugin"
    bundle.mkdir()
    for number in range(300):
        (bundle / str(number)).write_bytes(numbers.randbytes(4096))
    whole = contents(tree_of(bundle))
    packed = blob.pack(bundle, compress=True)

    def run_killed_after(seconds):
        shutil.rmtree(install_root.path(BUNDLE), ignore_errors=True)
        install_root.write(f"{BUNDLE}/old", b"old")
        install_root.lay_blob(packed)
        return install_root.execute(
            ["timeout", "--signal=KILL", f"{seconds:.4f}", FINALIZER, "/"])

    start = time.monotonic()
    assert run_killed_after(60).status == 0
    duration = time.monotonic() - start
    killed = drawn = 0
    # A kill may come after the run's end, even a few times in a row; 50 times is not expected.
    while drawn < ROUNDS or killed == 0 and drawn < 50:
        drawn += 1
        moment = numbers.uniform(0.001, duration)
        result = run_killed_after(moment)
        assert result.status in (0, SIGNALLED + signal.SIGKILL), result
        killed += result.status != 0
        if result.status == 0:
            # The first run may have been a slow one.
            duration = moment
        found = contents(install_root.tree(BUNDLE)) if install_root.path(BUNDLE).exists() else {}
        if not install_root.path(BLOB).exists():
            assert found == whole
        for name, content in found.items():
            assert content is None or content == b"old" or whole[name].startswith(content), name

        install_root.lay_blob(packed)
        assert install_root.execute([FINALIZER, "/"]).status == 0
        assert contents(install_root.tree(BUNDLE)) == whole
    assert killed > 0
    print(f"killed {killed} times of {drawn}")


# ---- Two at once


def has_overlap(lines):
    """Whether one run in the log began before another had ended."""
    stamps = [line for line in lines if line in (finalizer_log.STARTED, finalizer_log.SUCCEEDED)]
    return [finalizer_log.STARTED] * 2 in [stamps[index:index + 2] for index in range(len(stamps))]


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_two_finalizers_on_one_log(install_root, small_blob):
    install_root.mkdir(VOLUME + "/Library/Internet Plug-Ins/PepperKorvelPlayer")
    done = 0
    # On one core, the first may be done before the other begins.
    while done < ROUNDS or not has_overlap(install_root.log("alice")) and done < 10 * ROUNDS:
        done += 1
        install_root.lay_blob(small_blob)
        install_root.lay_blob(small_blob, VOLUME)
        result = install_root.execute(
            ["sh", "-c", f"{FINALIZER} / & one=$!; {FINALIZER} {VOLUME} & other=$!; "
                         "wait $one && wait $other"])
        assert (result.status, result.stdout, result.stderr) == (0, "", "")
        assert install_root.tree(BUNDLE) == NEW_TREE
        assert install_root.tree(VOLUME + BUNDLE) == NEW_TREE
    expected = collections.Counter(
        (finalizer_log.success() + finalizer_log.success(VOLUME)) * done)
    lines = install_root.log("alice")
    assert collections.Counter(lines) == expected
    assert has_overlap(lines)


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_two_loggers_on_one_log(build, install_root):
    count = 500
    turns = 0
    install_root.mount(build / "tests/programs/log_writer", LOG_WRITER)
    # On one core, the first may be done before the other begins.
    for _ in range(20):
        lines = lines_of_two_loggers(install_root, count)
        turns = sum(line[4] != other[4] for line, other in zip(lines, lines[1:]))
        if turns > 1:
            break
        install_root.log_path("alice").unlink()
    assert turns > 1
    print(f"{turns} turns in {len(lines)} lines")


def lines_of_two_loggers(install_root, count):
    """The log of two writers at once, A and B, of `count` lines each."""
    writers = [f"{LOG_WRITER} {USER_LOG} '{name}: ' {count} &" for name in "AB"]
    result = install_root.execute(
        ["sh", "-c", " ".join([writers[0], "one=$!;", writers[1], "other=$!;",
                               "wait $one && wait $other"])])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    lines = install_root.log("alice")
    # No line is lost or cut, and each writer's lines are in order.
    for name in "AB":
        prefix = f"[I] {name}: "
        assert [line for line in lines if line.startswith(prefix)] == [
            f"{prefix}{number} {'x' * (number % 100)}" for number in range(count)]
    assert len(lines) == 2 * count
    return lines
