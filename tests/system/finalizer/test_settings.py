"""The analytics opt-out: the settings file before and after a run, byte by byte."""

import os

import pytest

import finalizer_log
from install_root import SETTINGS, SUPPORT, VOLUME

OPT_OUT = "-disableAnalytics"
NEW_FILE = b"DisableAnalytics=1\n"


@pytest.fixture
def run(install_root, finalizer_run):
    """Installs below `root` with the switch and checks that the log is that of any other run."""

    def run_with_switch(root="/", log_of="alice", wrapper=(), **options):
        # An empty blob: not every user here may write a bundle.
        install_root.lay_blob(b"", root)
        finalizer_run([root, OPT_OUT], wrapper=wrapper, **options)
        assert install_root.log(log_of) == finalizer_log.success(
            root.rstrip("/"), finalizer_log.DISABLING_ANALYTICS)

    return run_with_switch


@pytest.mark.parametrize("before, after", [
    pytest.param(None, NEW_FILE, id="missing"),
    pytest.param(b"", NEW_FILE, id="empty"),
    pytest.param(b"ExampleSetting = 1\r\n#comment\r\nDisableAnalytics=0\r\n",
                 b"ExampleSetting=1\nDisableAnalytics=1\n", id="changed"),
    pytest.param(b"DisableAnalytics=0\nb=2\n", b"DisableAnalytics=1\nb=2\n", id="in its place"),
    pytest.param(b"DisableAnalytics=1\nb=2\n", b"DisableAnalytics=1\nb=2\n", id="set already"),
    pytest.param(b"disableanalytics=0\n", b"disableanalytics=0\nDisableAnalytics=1\n",
                 id="other case"),
    pytest.param(b"x=1\ny=2\nx=3\n", b"y=2\nx=3\nDisableAnalytics=1\n", id="duplicate"),
    pytest.param(b"# a=b\n;\n\n k = v = w \nlast=1", b"# a=b\nk=v = w\nlast=1\nDisableAnalytics=1\n",
                 id="normalised"),
    pytest.param(b"a=1\rb=2", b"a=1\n2=2\nDisableAnalytics=1\n", id="lone CR"),
    pytest.param(b"0123456789\nabc=\n", b"abc=56789\nDisableAnalytics=1\n", id="tail"),
    pytest.param(b"\xef\xbb\xbfa=1\n", b"a=1\nDisableAnalytics=1\n", id="UTF-8 mark"),
    pytest.param("a=1\n".encode("utf-16"), NEW_FILE, id="UTF-16"),
    pytest.param(b"a=1", NEW_FILE, id="three bytes"),
    pytest.param(b"a=x\xff\xe9y\n", b"a=x\xff\xe9y\nDisableAnalytics=1\n", id="not UTF-8"),
    pytest.param(b"a=\0\nb=" + b"v" * 5000, b"a=\nb=" + b"v" * 5000 + b"\nDisableAnalytics=1\n",
                 id="long line"),
])
def test_rewrite(install_root, run, before, after):
    if before is not None:
        install_root.write(SETTINGS, before)
    run()
    assert install_root.path(SETTINGS).read_bytes() == after


def test_on_another_volume(install_root, run):
    install_root.write(SETTINGS, b"a = 1\n")
    install_root.write(VOLUME + SETTINGS, b"b = 2\n")
    run(VOLUME, check_leaks=True)
    assert install_root.path(SETTINGS).read_bytes() == b"a = 1\n"
    assert install_root.path(VOLUME + SETTINGS).read_bytes() == b"b=2\nDisableAnalytics=1\n"


@pytest.mark.parametrize("arguments", [["/"], ["/", "-DisableAnalytics"], ["/", "-DISABLEANALYTICS"],
                                       ["/", "-disableAnalytics "], ["/", "disableAnalytics"]])
def test_not_without_the_very_switch(install_root, finalizer_run, bundle_blob, arguments):
    before = b" untouched = yes \r\n# note\r\n"
    install_root.write(SETTINGS, before)
    install_root.lay_blob(bundle_blob)
    finalizer_run(arguments)
    assert install_root.path(SETTINGS).read_bytes() == before
    assert install_root.log("alice") == finalizer_log.success()


def test_switch_as_install_root(install_root, finalizer_run, bundle_blob):
    install_root.lay_blob(bundle_blob, "/" + OPT_OUT)
    install_root.mkdir("/" + OPT_OUT + SUPPORT)
    finalizer_run([OPT_OUT])
    assert install_root.path("/" + OPT_OUT + SETTINGS).read_bytes() == NEW_FILE
    assert not install_root.path(SETTINGS).exists()


def test_not_after_a_failed_extraction(install_root, finalizer_run):
    finalizer_run(["/", OPT_OUT], status=1)
    assert not install_root.path(SETTINGS).exists()


@pytest.mark.parametrize("root", ["/", VOLUME])
def test_missing_folder_is_not_made(install_root, run, root):
    folder = install_root.path(root.rstrip("/") + SUPPORT)
    if folder.exists():
        folder.rmdir()
    run(root)
    assert not folder.exists()


def test_read_only_file_of_another_stays(install_root, run):
    path = install_root.write(SETTINGS, b" a = 1\n", mode=0o444)
    install_root.set_console("bob")
    run(log_of="bob", user="bob", env={"HOME": "/Users/bob"})
    assert path.read_bytes() == b" a = 1\n"


def test_read_only_file_is_written_by_root(install_root, run):
    path = install_root.write(SETTINGS, b" a = 1\n", mode=0o444)
    run()
    assert path.read_bytes() == b"a=1\nDisableAnalytics=1\n"
    assert path.stat().st_mode & 0o7777 == 0o444


def test_file_that_may_only_be_written_becomes_the_line(install_root, run):
    path = install_root.write(SETTINGS, b"a = 1\nDisableAnalytics=0\n", mode=0o222)
    install_root.set_console("bob")
    run(log_of="bob", user="bob", env={"HOME": "/Users/bob"})
    assert path.read_bytes() == NEW_FILE
    assert path.stat().st_mode & 0o7777 == 0o222


def test_folder_in_its_place_stays(install_root, run):
    install_root.write(SETTINGS + "/inside", b"kept")
    run()
    assert install_root.tree(SETTINGS)["inside"].content == b"kept"


def test_link_is_written_through(install_root, run):
    target = install_root.write("/Users/alice/mine.cfg", b"a = 1\n", mode=0o640)
    link = install_root.path(SETTINGS)
    link.symlink_to("/Users/alice/mine.cfg")
    run()
    assert link.is_symlink()
    assert target.read_bytes() == b"a=1\nDisableAnalytics=1\n"
    assert target.stat().st_mode & 0o7777 == 0o640


def test_dangling_link_gets_its_file(install_root, run):
    install_root.path(SETTINGS).symlink_to("other.cfg")
    run()
    assert install_root.path(SUPPORT + "/other.cfg").read_bytes() == NEW_FILE


def test_modes(install_root, run):
    path = install_root.write(SETTINGS, b"a=1\n", mode=0o600)
    run()
    assert path.stat().st_mode & 0o7777 == 0o600
    path.unlink()
    install_root.log_path("alice").unlink()
    run(umask=0o027)
    assert path.stat().st_mode & 0o7777 == 0o640


def test_large_file(install_root, run):
    lines = b"first = 1\r\n# " + b"a long note " * 80 + b"\nsecond=2\n"
    install_root.write(SETTINGS, lines * (10_000_000 // len(lines) + 1))
    run()
    assert install_root.path(SETTINGS).read_bytes() == b"first=1\nsecond=2\nDisableAnalytics=1\n"


# ---- What is not a settings file


@pytest.mark.parametrize("target", [None, "/dev/zero", "/dev/full", "/run/pipe"])
def test_what_is_no_regular_file_stays_as_it_is(install_root, run, target):
    """The finalizer neither waits for a pipe nor reads a device."""
    path = install_root.path(SETTINGS)
    if target is None:
        os.mkfifo(path)
    else:
        os.mkfifo(install_root.path("/run/pipe"))
        path.symlink_to(target)
    before = path.lstat()
    run()
    assert path.lstat().st_mode == before.st_mode
    assert path.lstat().st_ino == before.st_ino


# Enough for a run that reads a file of the largest size.
ADDRESS_SPACE = 1 << 30


@pytest.mark.release_only("AddressSanitizer reserves more addresses than any limit")
def test_file_that_asks_for_gigabytes_stays_as_it_is(install_root, run):
    """Many blank values, each of which takes the tail of a long line."""
    before = b"#" + b"x" * 200_000 + b"\n" + b"".join(b"%d=\n" % n for n in range(7_000))
    assert len(before) < 249_000, "asks for 1.4 GB"
    path = install_root.write(SETTINGS, before)
    run(wrapper=["prlimit", f"--as={ADDRESS_SPACE}"])
    assert path.read_bytes() == before


@pytest.mark.release_only("it takes seven seconds, for a refusal that unit tests have too")
def test_huge_file_stays_as_it_is(install_root, run):
    path = install_root.write(SETTINGS, b"a=1\n")
    os.truncate(path, 1 << 40)
    run(wrapper=install_root.within_memory(ADDRESS_SPACE))
    assert path.stat().st_size == 1 << 40
