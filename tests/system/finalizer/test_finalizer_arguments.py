"""The finalizer's command line and the install roots that it names."""

import os

import pytest

import finalizer_log
from install_root import BLOB, BUNDLE, PREVIOUS_VERSION, SETTINGS, VOLUME

SWITCH = "-disableAnalytics"
LONG_ROOT = "/Volumes/" + "/".join(["x" * 96] * 3)
assert len(LONG_ROOT) == 299


@pytest.mark.parametrize("argument, root", [
    ("/", ""),
    ("", ""),
    (VOLUME, VOLUME),
    (VOLUME + "/", VOLUME),
    (LONG_ROOT + "y", LONG_ROOT + "y"),
    ("/Volumes/Größe 日本 volume", "/Volumes/Größe 日本 volume"),
    ("/Volumes/100% '%@' %s", "/Volumes/100% '%@' %s"),
])
def test_install_root(install_root, finalizer_run, bundle_blob, installed, argument, root):
    install_root.lay_blob(bundle_blob, argument)
    finalizer_run([argument])
    assert install_root.log("alice") == finalizer_log.success(root)
    assert install_root.tree(root + BUNDLE) == installed
    assert not install_root.path(root + BLOB).exists()


@pytest.mark.parametrize("arguments", [
    pytest.param([], id="none"),
    pytest.param([os.fsdecode(b"/Vol\xff")], id="not UTF-8"),
])
def test_without_a_root_the_boot_volume_is_installed(install_root, finalizer_run, bundle_blob,
                                                     installed, arguments):
    install_root.write(PREVIOUS_VERSION, "32.0.0.255\n")
    install_root.lay_blob(bundle_blob)
    finalizer_run(arguments)
    # An absent root gives no path at which to look for the previous version.
    assert install_root.log("alice") == finalizer_log.success()
    assert install_root.tree(BUNDLE) == installed


def test_other_volumes_are_left_alone(install_root, finalizer_run, bundle_blob):
    install_root.lay_blob(bundle_blob)
    install_root.lay_blob(bundle_blob, VOLUME)
    finalizer_run([VOLUME])
    assert install_root.path(BLOB).read_bytes() == bundle_blob
    assert not install_root.path(BUNDLE).exists()


@pytest.mark.parametrize("arguments", [
    ["/", SWITCH],
    ["/", "other", SWITCH],
    ["/", SWITCH, "other", SWITCH],
])
def test_switch_in_any_position(install_root, finalizer_run, bundle_blob, arguments):
    install_root.lay_blob(bundle_blob)
    finalizer_run(arguments)
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.DISABLING_ANALYTICS)


@pytest.mark.parametrize("console", ["loginwindow", None])
def test_switch_with_nobody_at_the_console(install_root, finalizer_run, bundle_blob, console):
    install_root.set_console(console)
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/", SWITCH])
    assert install_root.log() == finalizer_log.success("", finalizer_log.DISABLING_ANALYTICS)
    assert install_root.path(SETTINGS).read_bytes() == b"DisableAnalytics=1\n"


@pytest.mark.parametrize("argument", [
    "-DisableAnalytics", "-disableanalytics", "--disableAnalytics", "disableAnalytics",
    "-disableAnalytics ", "-disableAnalytic", ""])
def test_what_is_not_the_switch_is_ignored(install_root, finalizer_run, bundle_blob, argument):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/", argument])
    assert install_root.log("alice") == finalizer_log.success()


def test_switch_as_first_argument_is_the_install_root_too(install_root, finalizer_run,
                                                          bundle_blob, installed):
    install_root.lay_blob(bundle_blob, "/folder/" + SWITCH)
    finalizer_run([SWITCH], cwd="/folder")
    assert install_root.log("alice") == finalizer_log.success(
        SWITCH, finalizer_log.DISABLING_ANALYTICS)
    assert install_root.tree(f"/folder/{SWITCH}{BUNDLE}") == installed


def test_switch_alone_finds_no_blob(install_root, finalizer_run, bundle_blob):
    install_root.lay_blob(bundle_blob)
    finalizer_run([SWITCH], status=1)
    assert install_root.log("alice") == finalizer_log.missing_blob(SWITCH)
    assert install_root.path(BLOB).exists()
