"""Removal of the files of older generations of the plug-in."""

import pytest

import finalizer_log
from install_root import PROGRAMS, ROOT_HOME, VOLUME

FOLDER = "/Library/Internet Plug-Ins"
SYSTEM_PLUGIN = FOLDER + "/Korvel Player Enabler.plugin"
NAMES = ["Korvel Player.plugin", "Korvel Player Enabler.plugin", "Quorrel Korvel NP-PPC",
         "korvelplayer.xpt"]
# Similar names, which stay.
OTHERS = ["Korvel Player.plugins", "korvel player.plugin", "Another.plugin"]


@pytest.fixture
def run(install_root, finalizer_run, bundle_blob):
    """Installs below `root` and checks that the log has no other lines."""

    def run_quietly(root="/", log_of="alice", **options):
        install_root.lay_blob(bundle_blob, root)
        finalizer_run([root], **options)
        assert install_root.log(log_of) == finalizer_log.success(root.rstrip("/"))

    return run_quietly


def write_file(install_root, path):
    install_root.write(path, b"old")


def write_bundle(install_root, path):
    install_root.write(path + "/Contents/MacOS/plugin", b"old", mode=0o555)
    install_root.mkdir(path + "/Contents/Empty", mode=0o555)
    install_root.path(path + "/Contents/link").symlink_to("MacOS")


def lay_all(install_root, home=ROOT_HOME, write=write_file):
    """Every obsolete item of `home` and of the system, and what is to stay beside them."""
    for name in NAMES + OTHERS:
        write(install_root, home + FOLDER + "/" + name)
    write(install_root, SYSTEM_PLUGIN)


def names_in(install_root, folder):
    return sorted(path.name for path in install_root.path(folder).iterdir())


@pytest.mark.parametrize("write", [write_file, write_bundle])
def test_removes_each(install_root, run, write):
    lay_all(install_root, write=write)
    run(check_leaks=True)
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(OTHERS)
    assert names_in(install_root, FOLDER) == ["PepperKorvelPlayer"]


@pytest.mark.parametrize("name", NAMES)
def test_removes_one(install_root, run, name):
    write_file(install_root, f"{ROOT_HOME}{FOLDER}/{name}")
    run()
    assert names_in(install_root, ROOT_HOME + FOLDER) == []


def test_removes_the_systems_alone(install_root, run):
    write_bundle(install_root, SYSTEM_PLUGIN)
    run()
    assert not install_root.path(SYSTEM_PLUGIN).exists()


def test_nothing_to_remove(run):
    run()


def test_removes_a_link_and_not_what_it_leads_to(install_root, run):
    write_bundle(install_root, "/Users/alice/mine")
    before = install_root.tree("/Users/alice/mine")
    install_root.mkdir(ROOT_HOME + FOLDER)
    install_root.path(f"{ROOT_HOME}{FOLDER}/{NAMES[0]}").symlink_to("/Users/alice/mine")
    run()
    assert names_in(install_root, ROOT_HOME + FOLDER) == []
    assert install_root.tree("/Users/alice/mine") == before


@pytest.mark.parametrize("pinned", NAMES)
@pytest.mark.parametrize("write", [write_file, write_bundle])
def test_what_cannot_be_removed_stays_alone(install_root, run, write, pinned):
    lay_all(install_root, write=write)
    install_root.pin(f"{ROOT_HOME}{FOLDER}/{pinned}")
    run()
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted([*OTHERS, pinned])
    assert not install_root.path(SYSTEM_PLUGIN).exists()


def test_mounted_folder_is_not_emptied(install_root, bundle_blob):
    install_root.lay_blob(bundle_blob)
    mounted = f"{ROOT_HOME}{FOLDER}/{NAMES[0]}/Contents"
    install_root.empty(mounted)
    result = install_root.execute(
        ["sh", "-c", f"touch '{mounted}/kept'; '{PROGRAMS}/finalizer' / && ls '{mounted}'"])
    assert (result.status, result.stdout) == (0, "kept\n"), result


def test_systems_that_cannot_be_removed_stays(install_root, run):
    lay_all(install_root)
    install_root.pin(SYSTEM_PLUGIN)
    run()
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(OTHERS)
    assert install_root.path(SYSTEM_PLUGIN).exists()


def test_home_of_another_user(install_root, run):
    lay_all(install_root)
    lay_all(install_root, home="/Users/alice")
    lay_all(install_root, home="/Users/bob")
    run(env={"HOME": "/Users/bob"})
    everything = sorted(NAMES + OTHERS)
    assert names_in(install_root, "/Users/bob" + FOLDER) == sorted(OTHERS)
    assert names_in(install_root, "/Users/alice" + FOLDER) == everything
    assert names_in(install_root, ROOT_HOME + FOLDER) == everything


@pytest.mark.parametrize("home", [None, "/nonexistent"])
def test_without_a_home_the_systems_goes(install_root, run, home):
    lay_all(install_root)
    run(env={"HOME": home})
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(NAMES + OTHERS)
    assert not install_root.path(SYSTEM_PLUGIN).exists()


def test_empty_home_is_the_current_folder(install_root, run):
    lay_all(install_root)
    lay_all(install_root, home="/Users/alice")
    run(env={"HOME": ""}, cwd="/Users/alice")
    assert names_in(install_root, "/Users/alice" + FOLDER) == sorted(OTHERS)
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(NAMES + OTHERS)
    assert names_in(install_root, FOLDER) == ["PepperKorvelPlayer"]


def test_empty_home_in_the_root_is_the_systems_folder(install_root, run):
    lay_all(install_root, home="")
    run(env={"HOME": ""}, cwd="/")
    assert names_in(install_root, FOLDER) == sorted([*OTHERS, "PepperKorvelPlayer"])


@pytest.mark.parametrize("console", [None, "loginwindow"])
def test_not_without_a_console_user(install_root, run, console):
    install_root.set_console(console)
    lay_all(install_root)
    run(log_of=None)
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(NAMES + OTHERS)
    assert install_root.path(SYSTEM_PLUGIN).exists()


@pytest.mark.parametrize("root", [VOLUME, "/."])
def test_not_but_on_the_boot_volume(install_root, run, root):
    lay_all(install_root)
    lay_all(install_root, home=VOLUME)
    run(root)
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(NAMES + OTHERS)
    assert install_root.path(SYSTEM_PLUGIN).exists()
    assert set(NAMES + OTHERS) <= set(names_in(install_root, VOLUME + FOLDER))


def test_not_after_a_failed_extraction(install_root, finalizer_run):
    lay_all(install_root)
    finalizer_run(["/"], status=1)
    assert names_in(install_root, ROOT_HOME + FOLDER) == sorted(NAMES + OTHERS)
    assert install_root.path(SYSTEM_PLUGIN).exists()
