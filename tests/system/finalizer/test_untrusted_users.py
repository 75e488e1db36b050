"""Ordinary users who place items of their own at paths that root opens, creates or removes."""

import os
import pathlib
import stat

import pytest

import exchanger
import finalizer_log
from install_root import (BLOB, BUNDLE, EXPRESS_FLAG, INSTALL_VECTOR, LOG, PREVIOUS_VERSION,
                          PROGRAMS, ROOT_HOME, SETTINGS, USERS, as_user, tree_of)
from test_finalizer_express_install import REDIRECT_PAGE, UPDATER
from test_obsolete_plugins import FOLDER, NAMES, SYSTEM_PLUGIN

ALICE = USERS["alice"]
LOGS = "/Users/alice/Library/Logs"
USER_LOG = f"/Users/alice/{LOG}"
EXCHANGE = "/opt/exchanger.py"


@pytest.fixture
def run(install_root, finalizer_run, bundle_blob, installed):
    """Installs on the boot volume, and checks that the bundle is installed and the blob gone."""

    def run_and_check(*arguments, **options):
        install_root.lay_blob(bundle_blob)
        exchanges = finalizer_run(["/", *arguments], **options)
        assert install_root.tree(BUNDLE) == installed
        assert not install_root.path(BLOB).exists()
        return exchanges

    return run_and_check


def own(path, user="alice"):
    os.chown(path, USERS[user], USERS[user], follow_symlinks=False)
    return path


# ---- The log


def everything_but(install_root, *own_paths):
    """The whole disk except for the items that a run with this log changes."""
    nodes = {}
    for folder in ("/Library", "/Users", "/etc", "/tmp", "/var"):
        for name, node in tree_of(install_root.path(folder)).items():
            nodes[os.path.normpath(f"{folder}/{name}")] = node
    return {path: node for path, node in nodes.items()
            if not path.startswith((BUNDLE, *own_paths))}


def link_to_a_file_of_roots(install_root, log):
    install_root.write("/etc/sudoers", "root ALL=(ALL) ALL\n", mode=0o440)
    log.symlink_to("/etc/sudoers")


def link_to_a_missing_file(_install_root, log):
    log.symlink_to("/etc/ld.so.preload")


def link_to_the_blob(_install_root, log):
    log.symlink_to(BLOB)


def hard_link_to_a_file_of_roots(install_root, log):
    os.link(install_root.write("/etc/secret", "secret\n", mode=0o600), log)


def hard_link_to_a_file_of_another_user(install_root, log):
    os.link(own(install_root.write("/Users/bob/mine", "bob's\n", mode=0o644), "bob"), log)


def fifo(_install_root, log):
    os.mkfifo(log, 0o666)


def device(_install_root, log):
    os.mknod(log, stat.S_IFCHR | 0o666, os.makedev(1, 7))  # as /dev/full


def link_to_a_device(_install_root, log):
    log.symlink_to("/dev/full")


def folder_of_logs_is_a_link(_install_root, log):
    log.parent.rmdir()
    log.parent.symlink_to("/etc")


def library_is_a_link(install_root, log):
    install_root.mkdir("/etc/Logs")
    log.parent.rmdir()
    log.parent.parent.rename(log.parent.parent.with_name("Moved"))
    log.parent.parent.symlink_to("/etc")


@pytest.mark.parametrize("attack", [
    link_to_a_file_of_roots, link_to_a_missing_file, link_to_the_blob,
    hard_link_to_a_file_of_roots, hard_link_to_a_file_of_another_user, fifo, device, link_to_a_device,
    folder_of_logs_is_a_link, library_is_a_link])
def test_log_that_root_must_not_write(install_root, run, attack):
    """The installation is done, without a log, and nothing else has changed."""
    install_root.execute(["true"])  # makes the places of what is mounted
    attack(install_root, install_root.log_path("alice"))
    before = everything_but(install_root)
    run()
    assert everything_but(install_root) == before


def test_fifo_with_a_reader_is_no_log(install_root, bundle_blob, installed):
    os.mkfifo(install_root.log_path("alice"), 0o666)
    install_root.lay_blob(bundle_blob)
    # After the run, the reader takes one byte, or ends within a second.
    result = install_root.execute(["sh", "-c", f"""
        exec 3<>'{USER_LOG}'
        {PROGRAMS}/finalizer /
        status=$?
        timeout 1 dd bs=1 count=1 <&3 2> /dev/null
        exit $status
        """])
    assert (result.status, result.stdout) == (0, "")
    assert install_root.tree(BUNDLE) == installed


def test_created_log_is_the_users(install_root, run):
    run()
    status = install_root.log_path("alice").stat()
    assert (status.st_uid, status.st_gid) == (ALICE, ALICE)


def test_log_that_an_earlier_run_has_left_as_roots(install_root, run):
    log = install_root.log_path("alice")
    log.write_text("")
    log.chmod(0o644)
    run()
    assert install_root.log("alice") == finalizer_log.success()
    assert log.stat().st_uid == 0


def test_folder_of_logs_that_is_roots(install_root, run):
    os.chown(install_root.path(LOGS), 0, 0)
    run()
    assert install_root.log("alice") == finalizer_log.success()


def test_log_of_another_user_is_not_appended_to(install_root, run):
    """Root may enter folders that the user may not, but only folders of root or of that user."""
    log = install_root.log_path("alice")
    log.write_text("bob's")
    log.chmod(0o644)
    own(log, "bob")
    run()
    assert log.read_text() == "bob's"


def test_log_elsewhere_that_the_user_may_write(install_root, run):
    """Users may keep their own log where they like."""
    elsewhere = own(install_root.mkdir("/Users/alice/elsewhere"))
    install_root.path(LOGS).rmdir()
    install_root.path(LOGS).symlink_to("/Users/alice/elsewhere")
    run()
    assert (elsewhere / pathlib.Path(LOG).name).stat().st_uid == ALICE


def test_log_for_which_the_users_group_counts(install_root, run):
    """A supplementary group of the user is enough; root's own group is not."""
    group = 2001
    etc_group = install_root.path("/etc/group")
    etc_group.write_text(etc_group.read_text() + f"staff:x:{group}:alice\n")
    logs = install_root.mkdir("/Users/shared", mode=0o775)
    install_root.path(LOGS).rmdir()
    install_root.path(LOGS).symlink_to("/Users/shared")
    os.chown(logs, USERS["bob"], 0)
    run()
    assert not list(logs.iterdir())
    os.chown(logs, USERS["bob"], group)
    run()
    assert [path.stat().st_uid for path in logs.iterdir()] == [ALICE]


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_log_exchanged_while_it_is_opened(install_root, run):
    """The user exchanges the log and a link all the time: nothing is appended to root's file."""
    secret = install_root.write("/etc/secret", "secret\n", mode=0o600)
    log = own(install_root.write(USER_LOG, ""))
    own_link(install_root, f"{LOGS}/link", "/etc/secret")
    own_link(install_root, f"{LOGS}/missing", "/etc/ld.so.preload")
    exchanges = sum(run_beside_attacker(install_root, run, [log, log.with_name("link"),
                                                            log, log.with_name("missing")])
                    for _ in range(exchanger.ROUNDS))
    assert exchanges > 0
    assert secret.read_text() == "secret\n"
    assert not install_root.path("/etc/ld.so.preload").exists()


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
def test_folder_of_logs_exchanged_while_root_goes_down(install_root, run):
    """The log is root's, so root itself enters its folders."""
    target = install_root.write(f"/etc/{pathlib.Path(LOG).name}", "secret\n", mode=0o600)
    install_root.write(USER_LOG, "", mode=0o600)
    own_link(install_root, "/Users/alice/Library/link", "/etc")
    pair = [install_root.path(LOGS), install_root.path("/Users/alice/Library/link")]
    exchanges = sum(run_beside_attacker(install_root, run, pair) for _ in range(exchanger.ROUNDS))
    assert exchanges > 0
    assert target.read_text() == "secret\n"


# ---- Removal


def own_link(install_root, inside, target):
    path = install_root.path(inside)
    path.symlink_to(target)
    return own(path)


def own_folder(install_root, inside):
    """A folder of alice's, like its parents below her home or /tmp."""
    path = install_root.mkdir(inside)
    for folder in (path, *path.parents):
        if folder.name == "alice" or folder == install_root.path("/tmp"):
            break
        own(folder)
    return path


def run_beside_attacker(install_root, run, paths, **options):
    """A run beside alice, who exchanges `paths` in pairs all the time. Returns how often that has
    succeeded."""
    inside = [f"/{path.relative_to(install_root.folder)}" for path in paths]
    install_root.mount(exchanger.__file__, EXCHANGE)
    attacker = " ".join(f"'{word}'" for word in
                        [*as_user("alice"), "/usr/bin/python3", EXCHANGE, *inside])
    return run(program_before=attacker, **options)


@pytest.fixture
def finalizer_run(install_root, finalizer_run):
    """The usual fixture. With `program_before`, this attacker runs beside the finalizer, and the
    number that it prints at its end is returned."""

    def run(arguments, status=0, program_before=None, **options):
        if program_before is None:
            return finalizer_run(arguments, status, **options)
        words = " ".join(f"'{word}'" for word in arguments)
        result = install_root.execute(["sh", "-c", f"""
            mkfifo /run/ready 2> /dev/null
            {program_before} > /run/ready 2> /dev/null &
            attacker=$!
            exec 3< /run/ready
            read -r line <&3
            {PROGRAMS}/finalizer {words} > /run/output 3<&-
            status=$?
            kill $attacker
            read -r count <&3
            echo "$count"
            exit $status
            """], **options)
        output = install_root.path("/run/output").read_text()
        assert (result.status, output, result.stderr) == (status, "", "")
        return int(result.stdout)

    return run


# A folder with this many files takes a while to remove.
PART_NAMES = [str(number) for number in range(100)]


def lay_treasure(install_root):
    """Files of bob's that no one else may touch, under the names that a removal looks for."""
    folder = install_root.mkdir("/Users/bob/private", mode=0o700)
    for name in (*PART_NAMES, "kpupdatepl", *NAMES):
        own(install_root.write(f"/Users/bob/private/{name}", "bob's", mode=0o600), "bob")
    return own(folder, "bob")


def lay_race(install_root, folder):
    """A folder of alice's whose parts can be exchanged for links to bob's private files. Returns
    the pairs."""
    pairs = []
    for number in range(4):
        part = own_folder(install_root, f"{folder}/{number}/deep")
        for name in PART_NAMES:
            own(install_root.write(f"{folder}/{number}/deep/{name}", "alice's"))
        link = own_link(install_root, f"{folder}/{number}/link", "/Users/bob/private")
        pairs += [part, link]
    return pairs


PLUGIN = f"/Users/alice{FOLDER}/{NAMES[0]}"


@pytest.mark.release_only("a race shows nothing more when it is slowed down")
@pytest.mark.parametrize("place", [EXPRESS_FLAG, f"/Users/alice{UPDATER}", PLUGIN])
def test_folder_whose_parts_are_exchanged_while_it_is_removed(install_root, run, place):
    treasure = lay_treasure(install_root)
    before = tree_of(treasure)
    if place != EXPRESS_FLAG:
        # The flag file stays, so that the updater is removed.
        install_root.write(EXPRESS_FLAG, "")
        install_root.pin(EXPRESS_FLAG)
    exchanges = 0
    for _ in range(exchanger.ROUNDS):
        pairs = lay_race(install_root, place)
        exchanges += run_beside_attacker(install_root, run, pairs, env={"HOME": "/Users/alice"})
        assert tree_of(treasure) == before
        clear(install_root.path(place))
    assert exchanges > 0


def clear(path):
    """Removes the rest of a round, without following links."""
    if not path.exists():
        return
    for parent, folders, files, descriptor in os.fwalk(path, topdown=False):
        for name in files:
            os.unlink(name, dir_fd=descriptor)
        for name in folders:
            if os.path.islink(os.path.join(parent, name)):
                os.unlink(name, dir_fd=descriptor)
            else:
                os.rmdir(name, dir_fd=descriptor)
    path.rmdir()


def test_folders_on_the_way_that_are_links(install_root, run):
    """The plug-in folder, and the updater's, lead to bob's private files."""
    treasure = lay_treasure(install_root)
    before = tree_of(treasure)
    own_link(install_root, f"/Users/alice{FOLDER}", "/Users/bob/private")
    parent = pathlib.PurePath(f"/Users/alice{UPDATER}").parent
    own_folder(install_root, parent.parent)
    own_link(install_root, parent, "/Users/bob/private")
    install_root.path(EXPRESS_FLAG).mkdir()
    own(install_root.write(f"{EXPRESS_FLAG}/file", "x"))
    run(env={"HOME": "/Users/alice"})
    assert tree_of(treasure) == before


@pytest.mark.parametrize("make", [
    lambda root: own(root.write(EXPRESS_FLAG, "")),
    lambda root: own(root.mkdir(EXPRESS_FLAG)),
    lambda root: own_link(root, EXPRESS_FLAG, "/Users/bob/private"),
], ids=["file", "empty folder", "link"])
def test_flag_is_removed_itself(install_root, run, make):
    treasure = lay_treasure(install_root)
    before = tree_of(treasure)
    make(install_root)
    run()
    assert not os.path.lexists(install_root.path(EXPRESS_FLAG))
    assert install_root.open_calls() == []
    assert tree_of(treasure) == before


def test_flag_that_is_a_full_folder_stays(install_root, run):
    own_folder(install_root, EXPRESS_FLAG)
    own(install_root.write(f"{EXPRESS_FLAG}/file", "x"))
    run()
    assert install_root.path(f"{EXPRESS_FLAG}/file").exists()
    assert install_root.open_calls() == [[REDIRECT_PAGE]]


def test_updater_that_is_a_full_folder_stays(install_root, run):
    install_root.write(EXPRESS_FLAG, "")
    install_root.pin(EXPRESS_FLAG)
    install_root.write(f"{ROOT_HOME}{UPDATER}/file", "x")
    run()
    assert install_root.path(f"{ROOT_HOME}{UPDATER}/file").exists()
    assert install_root.open_calls() == [[REDIRECT_PAGE]]


def test_folders_of_third_users_that_were_moved_there_stay(install_root, run):
    """alice may rename her own folder, in which bob keeps a private one, but not empty it."""
    treasure = lay_treasure(install_root)
    before = tree_of(treasure)
    shared = own(install_root.mkdir(PLUGIN))
    own(install_root.path(f"/Users/alice{FOLDER}"))
    treasure.rename(shared / "private")
    own(install_root.write(f"{PLUGIN}/file", "alice's"))
    run(env={"HOME": "/Users/alice"})
    assert tree_of(shared / "private") == before
    assert not (shared / "file").exists()


def test_log_of_a_user_who_has_left(install_root, run):
    """Without a user at the console root follows no link either."""
    install_root.set_console(None)
    install_root.path("/Library/Logs").rmdir()
    install_root.path("/Library/Logs").symlink_to("/etc")
    run()
    assert not install_root.path(f"/etc/{pathlib.Path(LOG).name}").exists()


def test_removal_goes_on_after_a_refusal(install_root, run):
    """One part of an obsolete bundle cannot be removed; all others are."""
    plugin = f"{ROOT_HOME}{FOLDER}/{NAMES[0]}"
    for name in ("1/file", "2/pinned", "2/file", "3/file"):
        install_root.write(f"{plugin}/{name}", "old")
    install_root.pin(f"{plugin}/2/pinned")
    install_root.write(SYSTEM_PLUGIN, "old")
    run()
    assert [str(path.relative_to(install_root.path(plugin)))
            for path in sorted(install_root.path(plugin).rglob("*"))] == ["2", "2/pinned"]
    assert not install_root.path(SYSTEM_PLUGIN).exists()


# ---- Reading


@pytest.mark.parametrize("file, log", [
    (PREVIOUS_VERSION, [finalizer_log.READING_VERSION]), (INSTALL_VECTOR, [])])
def test_fifo_in_the_place_of_a_file_that_is_read(install_root, run, file, log):
    os.mkfifo(install_root.path(file), 0o666)
    run()
    assert install_root.log("alice") == finalizer_log.success("", *log)


# ---- Stages that fail


@pytest.mark.release_only("AddressSanitizer reserves more addresses than any limit")
def test_want_of_memory_ends_one_stage(install_root, bundle_blob, installed):
    """The note of the previous version is larger than memory. The installation, the opt-out and the
    last line are there, and the line that says why."""
    install_root.lay_blob(bundle_blob)
    with install_root.write(PREVIOUS_VERSION, "").open("wb") as file:
        file.truncate(300 << 20)
    result = install_root.execute(["prlimit", f"--as={512 << 20}", f"{PROGRAMS}/finalizer", "/",
                                   "-disableAnalytics"])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert install_root.tree(BUNDLE) == installed
    log = install_root.log("alice")
    assert log[-1] == finalizer_log.SUCCEEDED
    assert finalizer_log.DISABLING_ANALYTICS in log
    assert install_root.path(SETTINGS).read_bytes() == b"DisableAnalytics=1\n"
    failures = [line for line in log if "[E]" in line]
    assert len(failures) == 1
    assert failures[0].startswith("[E] FIN: ERROR: Previous version failed: ")
