"""The finalizer where others may write, or work at the same time: in the bundle's folder, on the
blob, and at the limits of disk and memory."""

import collections
import errno
import fcntl
import os
import pathlib
import shutil
import stat
import subprocess
import threading
import time

import pytest

import blob
import finalizer_log
import sanitizer
from exchanger import Exchanger, ROUNDS
from install_root import BLOB, BUNDLE, Node, PROGRAMS, tree_of

FINALIZER = PROGRAMS + "/finalizer"
ELSEWHERE = "/Users/bob"
VICTIM = "/Users/alice/private"
TOO_MANY_LINKS = os.strerror(errno.ELOOP)


def files(count, content=b"new"):
    return [blob.stored_file(f"file {number}", content) for number in range(count)]


def check_nothing_installed(install_root, *lines):
    assert install_root.log("alice") == finalizer_log.success("", *lines)
    assert not os.path.lexists(install_root.path(BUNDLE))
    assert not os.path.lexists(install_root.path(BLOB))


# ---- The blob


def test_fifo_in_place_of_the_blob(install_root, finalizer_run):
    os.mkfifo(install_root.path(BLOB))
    finalizer_run(["/"])
    check_nothing_installed(install_root)


@pytest.mark.parametrize("device", ["/dev/zero", "/dev/full", "/dev/tty"])
def test_device_in_place_of_the_blob(install_root, finalizer_run, device):
    install_root.path(BLOB).symlink_to(device)
    finalizer_run(["/"])
    check_nothing_installed(install_root)


def test_folder_with_a_link_to_everything_in_place_of_the_blob(install_root, finalizer_run):
    install_root.mkdir(BLOB)
    (install_root.path(BLOB) / "everything").symlink_to("/")
    os.mkfifo(install_root.path(BLOB) / "fifo")
    finalizer_run(["/"])
    check_nothing_installed(install_root)


@pytest.mark.parametrize("size", [1 << 32, (1 << 32) + 7, 1 << 40])
def test_blob_of_4_gibibytes(install_root, finalizer_run, size):
    # Cut to 32 bits, the size would be that of a well-formed blob.
    install_root.lay_blob(blob.stored_directory("", []))
    os.truncate(install_root.path(BLOB), size)
    finalizer_run(["/"])
    check_nothing_installed(install_root, finalizer_log.TOO_LARGE_BLOB)


def test_too_little_memory_for_the_blob(build, install_root):
    install_root.write(f"{BUNDLE}/old", b"old")
    install_root.lay_blob(blob.stored_directory("", []))
    os.truncate(install_root.path(BLOB), 3 << 30)
    if sanitizer.is_in(build):
        # A sanitizer has terabytes of address space and its own limit, about which it warns.
        with pytest.raises(sanitizer.SanitizerReport, match="WARNING.*failed to allocate 0xc0000000 bytes"):
            install_root.run(["/"], env={"ASAN_OPTIONS": (
                "detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=1024")})
    else:
        result = install_root.execute(["prlimit", f"--as={2 << 30}", FINALIZER, "/"])
        assert (result.status, result.stderr) == (0, "")
    check_nothing_installed(install_root, finalizer_log.NO_MEMORY_FOR_BLOB)


@pytest.mark.release_only("AddressSanitizer reserves more addresses than any limit")
def test_too_little_memory_for_the_content(install_root):
    install_root.write(f"{BUNDLE}/old", b"old")
    size = 700 << 20
    file = blob.stored_file("a", b"")[:-4] + size.to_bytes(4, "big")
    root = blob.stored_directory("", [])[:-4] + (len(file) + size).to_bytes(4, "big")
    install_root.lay_blob(root + file)
    os.truncate(install_root.path(BLOB), len(root + file) + size)
    result = install_root.execute(["prlimit", f"--as={1400 << 20}", FINALIZER, "/"])
    assert (result.status, result.stderr) == (0, "")
    check_nothing_installed(install_root, finalizer_log.NO_MEMORY_FOR_BLOB)


@pytest.mark.parametrize("error, reported", [
    ("EIO", True), ("ENFILE", True), ("EACCES", False), ("EPERM", False), ("ELOOP", False)])
def test_blob_that_cannot_be_opened(install_root, error, reported):
    """A fault of the machine is logged."""
    install_root.write(f"{BUNDLE}/old", b"old")
    install_root.lay_blob(blob.stored_directory("", []))
    result = install_root.execute(["strace", "-o", "/run/trace", "-P", BLOB, "-e",
                                   f"inject=openat:error={error}", FINALIZER, "/"])
    assert (result.status, result.stderr) == (0, "")
    why = os.strerror(getattr(errno, error))
    check_nothing_installed(install_root,
                            *([finalizer_log.unreadable_blob(why)] if reported else []))


# ---- Items at the bundle's place that cannot be removed


NOT_PERMITTED = os.strerror(errno.EPERM)


def run_removing_nothing(install_root):
    result = install_root.execute(
        ["strace", "-qq", "-o", "/dev/null", "-e", "trace=unlink,unlinkat,rmdir",
         "-e", "inject=unlink,unlinkat,rmdir:error=EPERM", FINALIZER, "/"])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")


def test_links_that_stay_are_not_written_through(install_root):
    kept = install_root.write(ELSEWHERE + "/kept", b"kept")
    bundle = install_root.mkdir(BUNDLE)
    (bundle / "folder").symlink_to(ELSEWHERE)
    (bundle / "slash").symlink_to(ELSEWHERE)
    (bundle / "file").symlink_to(ELSEWHERE + "/kept")
    (bundle / "dangling").symlink_to(ELSEWHERE + "/made")
    os.link(kept, bundle / "second name")
    os.mkfifo(bundle / "fifo")
    before = tree_of(install_root.path(ELSEWHERE))
    install_root.lay_blob(blob.solid_root([
        blob.stored_directory("folder", files(1)), blob.stored_directory("slash/", files(1)),
        *[blob.stored_file(name, b"new") for name in ("file", "dangling", "second name", "fifo")],
        blob.stored_file("last", b"new")]))
    run_removing_nothing(install_root)
    assert tree_of(install_root.path(ELSEWHERE)) == before
    assert stat.S_ISFIFO((bundle / "fifo").lstat().st_mode)
    assert (bundle / "last").read_bytes() == b"new"
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.not_removed(6, NOT_PERMITTED),
        *finalizer_log.not_written(f"{BUNDLE}/folder", 8, 10, TOO_MANY_LINKS))


def test_link_that_stays_in_the_bundles_place_is_not_written_through(install_root):
    install_root.write(ELSEWHERE + "/bundle/kept", b"kept")
    install_root.path(BUNDLE).symlink_to(ELSEWHERE + "/bundle")
    install_root.lay_blob(blob.solid_root(files(2)))
    before = install_root.tree(ELSEWHERE)
    run_removing_nothing(install_root)
    assert install_root.tree(ELSEWHERE) == before
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.not_removed(1, NOT_PERMITTED),
        *finalizer_log.not_written(BUNDLE, 3, 3, TOO_MANY_LINKS))


@pytest.mark.parametrize("link", [BUNDLE.rsplit("/", 1)[0], BUNDLE.rsplit("/", 2)[0], "/Library"])
def test_folder_on_the_way_that_is_a_link(install_root, finalizer_run, link):
    """Nothing is removed or written through the link; only a link in the install root's own path is
    followed."""
    install_root.write(f"{BUNDLE}/kept", b"kept")
    install_root.lay_blob(blob.solid_root(files(2)))
    install_root.path(link).rename(install_root.path("/elsewhere"))
    install_root.path(link).symlink_to("/elsewhere")
    before = install_root.tree("/elsewhere")
    finalizer_run(["/"])
    assert install_root.tree("/elsewhere") == before
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.not_removed(1, TOO_MANY_LINKS),
        *finalizer_log.not_written(BUNDLE, 3, 3, TOO_MANY_LINKS))


def test_install_root_that_is_a_link(install_root, finalizer_run):
    install_root.lay_blob(blob.solid_root(files(2)), "/Volumes/real")
    install_root.path("/Volumes/link").symlink_to("real")
    finalizer_run(["/Volumes/link"])
    assert install_root.log("alice") == finalizer_log.success("/Volumes/link")
    assert set(install_root.tree("/Volumes/real" + BUNDLE)) == {".", "file 0", "file 1"}


# ---- Locked items of the old bundle


@pytest.fixture
def lock(install_root):
    """Locks an item by a flag of its file system ("i": against changes, "a": append only)."""
    locked = []

    def run(inside, flag):
        path = install_root.path(inside)
        if subprocess.run(["chattr", "+" + flag, path], check=False).returncode != 0:
            pytest.skip("the file system of the temporary folder has no flags, or root no right to set them")
        locked.append(path)

    yield run
    for path in locked:
        if path.exists():
            subprocess.run(["chattr", "-ia", path], check=True)


def test_locked_items_are_removed(install_root, finalizer_run, lock):
    install_root.write(f"{BUNDLE}/folder/locked", b"old")
    install_root.write(f"{BUNDLE}/appended", b"old")
    lock(f"{BUNDLE}/folder/locked", "i")
    lock(f"{BUNDLE}/appended", "a")
    lock(f"{BUNDLE}/folder", "i")
    install_root.lay_blob(blob.solid_root(files(2)))
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success("")
    assert set(install_root.tree(BUNDLE)) == {".", "file 0", "file 1"}


def test_locked_file_with_another_name_elsewhere_stays(install_root, finalizer_run, lock):
    """The lock is not removed, because a file outside the bundle would lose it too."""
    elsewhere = install_root.write(ELSEWHERE + "/kept", b"kept")
    install_root.mkdir(f"{BUNDLE}/folder")
    os.link(elsewhere, install_root.path(f"{BUNDLE}/folder/second name"))
    install_root.write(f"{BUNDLE}/old", b"old")
    lock(ELSEWHERE + "/kept", "i")
    install_root.lay_blob(blob.solid_root(files(2)))
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.not_removed(1, NOT_PERMITTED))
    assert set(install_root.tree(BUNDLE)) == {
        ".", "folder", "folder/second name", "file 0", "file 1"}
    with pytest.raises(PermissionError):
        elsewhere.unlink()


# ---- Folders that are exchanged while root works in them


@pytest.fixture
def victim(install_root):
    """Another user's folder, whose files have the names of the bundle's."""
    for number in range(200):
        install_root.write(f"{VICTIM}/file {number}", b"private", 0o600)
    install_root.write(f"{VICTIM}/inner/file 0", b"private", 0o600)
    install_root.mkdir(VICTIM, 0o700)
    return install_root.tree(VICTIM)


def exchange_in_rounds(install_root, victim, prepare):
    """Runs the finalizer in rounds while another process exchanges a folder of the bundle with a
    link to the victim's. Returns how often that has succeeded."""
    target = f"{BUNDLE}/Contents/folder"
    own = install_root.path(ELSEWHERE + "/own")
    exchanges = 0
    for _ in range(ROUNDS):
        for path in (install_root.path(BUNDLE), own):
            if path.is_symlink():
                path.unlink()
            shutil.rmtree(path, ignore_errors=True)
        own.symlink_to(VICTIM)
        prepare(target)
        with Exchanger(install_root.path(target), own) as exchanger:
            result = install_root.run(["/"])
        assert (result.status, result.stdout, result.stderr) == (0, "", "")
        assert install_root.tree(VICTIM) == victim
        exchanges += exchanger.count
    return exchanges


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_folder_exchanged_while_the_old_bundle_is_removed(install_root, victim):
    def prepare(target):
        for number in range(200):
            install_root.write(f"{target}/file {number}", b"old")
        install_root.write(f"{target}/inner/file 0", b"old")
        install_root.lay_blob(blob.solid_root([], compress=False))

    exchanges = exchange_in_rounds(install_root, victim, prepare)
    assert exchanges > 0
    print(f"{exchanges} exchanges in {ROUNDS} rounds")


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_folder_exchanged_while_the_bundle_is_written(install_root, victim):
    entries = [blob.stored_directory("inner", files(1)), *files(400)]
    payload = blob.solid_root([blob.stored_directory("Contents", [
        blob.stored_directory("folder", entries)])], compress=False)

    exchanges = exchange_in_rounds(install_root, victim,
                                   lambda target: install_root.lay_blob(payload))
    assert exchanges > 0
    print(f"{exchanges} exchanges in {ROUNDS} rounds")


# ---- Two at once, and a blob that another process holds


BEFORE_THE_LOCK = finalizer_log.success()[:3]


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_two_finalizers(install_root):
    whole = {".": Node("directory", 0o775)}
    whole.update({f"file {number}": Node("file", 0o664, b"x" * 5000) for number in range(300)})
    payload = blob.solid_root(files(300, b"x" * 5000), compress=False)
    for number in range(ROUNDS):
        install_root.lay_blob(payload)
        install_root.write(f"{BUNDLE}/old", b"old")
        result = install_root.execute(
            ["sh", "-c", f"{FINALIZER} / & one=$!; sleep {number * 0.004}; {FINALIZER} / & two=$!;"
                         "wait $one; echo $?; wait $two; echo $?"])
        assert (sorted(result.stdout.split()), result.stderr) == (["0", "1"], "")
        assert install_root.tree(BUNDLE) == whole
        assert not install_root.path(BLOB).exists()
        assert collections.Counter(install_root.log("alice")) == collections.Counter(
            finalizer_log.success() + finalizer_log.missing_blob())
        install_root.log_path("alice").unlink()


class Held:
    """A lock on the blob, as another process holds it."""

    def __init__(self, install_root):
        self._install_root = install_root

    def __enter__(self):
        self._file = open(self._install_root.path(BLOB), "rb")
        fcntl.flock(self._file, fcntl.LOCK_SH)
        return self

    def __exit__(self, *_):
        self._file.close()


def is_open_elsewhere(path):
    """Whether another process has the file open."""
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        if int(process.name) == os.getpid():
            continue
        try:
            if any(os.path.samefile(descriptor, path) for descriptor in (process / "fd").iterdir()):
                return True
        except OSError:
            pass  # It has ended, or has just closed a file.
    return False


def run_while_held(install_root, act):
    """Runs the finalizer, and calls `act` when it waits for the blob, which is then released."""
    results = []
    path = install_root.path(BLOB)
    runner = threading.Thread(target=lambda: results.append(install_root.run(["/"])))
    log = install_root.log_path("alice")
    with Held(install_root):
        runner.start()
        while (not log.exists() or log.read_text().count("\n") < len(BEFORE_THE_LOCK)
               or not is_open_elsewhere(path)):
            assert runner.is_alive(), "it has not waited"
            time.sleep(0.01)
        assert install_root.log("alice") == BEFORE_THE_LOCK
        act()
    runner.join()
    return results[0]


def test_blob_that_its_holder_removes_is_missing(install_root):
    install_root.lay_blob(blob.solid_root(files(2)))
    install_root.write(f"{BUNDLE}/old", b"old")
    result = run_while_held(install_root, install_root.path(BLOB).unlink)
    assert (result.status, result.stderr) == (1, "")
    assert install_root.log("alice") == finalizer_log.missing_blob()
    assert set(install_root.tree(BUNDLE)) == {".", "old"}


def test_blob_that_follows_the_one_waited_for_is_installed(install_root):
    install_root.lay_blob(blob.solid_root(files(2)))

    def replace():
        install_root.path(BLOB).unlink()
        install_root.lay_blob(blob.solid_root([blob.stored_file("next", b"")]))

    result = run_while_held(install_root, replace)
    assert (result.status, result.stderr) == (0, "")
    assert install_root.log("alice") == finalizer_log.success()
    assert set(install_root.tree(BUNDLE)) == {".", "next"}


def test_blob_that_is_held_for_ever(install_root):
    install_root.lay_blob(blob.solid_root(files(2)))
    install_root.mkdir("/run/trace")
    with Held(install_root):
        # The pauses are skipped.
        result = install_root.execute(
            ["strace", "-qq", "-o", "/run/trace/calls", "-e", "trace=flock,clock_nanosleep",
             "-e", "inject=clock_nanosleep:retval=0", FINALIZER, "/"])
    assert (result.status, result.stderr) == (0, "")
    assert install_root.log("alice") == finalizer_log.success("", finalizer_log.HELD_BLOB)
    assert set(install_root.tree(BUNDLE)) == {".", "file 0", "file 1"}
    assert not install_root.path(BLOB).exists()
    calls = install_root.path("/run/trace/calls").read_text().splitlines()
    pauses = [line for line in calls if "tv_nsec=50000000" in line]
    assert (len(pauses), sum("flock" in line for line in calls)) == (1200, 1201)
