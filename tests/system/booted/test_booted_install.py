"""The whole finalizer in a booted system: installing on "/", with logind to ask and a real disk."""

import subprocess

import pytest

import blob
import finalizer_log
from booted_root import PROGRAMS, wait_until
from install_root import BUNDLE, BLOB, LOG, SETTINGS, SUPPORT, tree_of


@pytest.fixture
def mac(booted):
    """The folders that a Mac has."""
    for folder in (BUNDLE.rsplit("/", 1)[0], SUPPORT, "/Library/Logs", "/Users/alice/Library/Logs"):
        booted.path(folder).mkdir(parents=True, exist_ok=True)
    booted.ask("chown", "-R", "alice:alice", "/Users/alice/Library")
    yield booted
    booted.ask("rm", "-rf", "/Library", "/Users/alice/Library")


@pytest.fixture
def alice_at_console(mac):
    """Logs alice in at seat0, as a display manager would."""
    mac.ask("systemd-run", "--unit=alice-session", "--uid=alice", "--property=PAMName=login",
            "--setenv=XDG_SEAT=seat0", "--setenv=XDG_SESSION_TYPE=x11",
            "--setenv=XDG_SESSION_CLASS=user", "sleep", "600")
    show = ["loginctl", "show-seat", "seat0", "--property=ActiveSession", "--value"]
    wait_until(lambda: mac.ask(*show))
    session = mac.ask(*show)
    assert mac.ask("loginctl", "show-session", session, "--property=Name", "--value") == "alice"
    yield
    mac.ask("systemctl", "stop", "alice-session")


def install(mac, kpim, bundle, *arguments):
    subprocess.run([kpim, "pack", bundle, "-o", mac.path(BLOB)], check=True,
                   stdout=subprocess.DEVNULL)
    result = mac.run([PROGRAMS + "/finalizer", "/", *arguments])
    assert (result.status, result.stdout, result.stderr) == (0, b"", b"")


def test_install_with_somebody_at_the_console(mac, alice_at_console, kpim, bundle, installed):
    install(mac, kpim, bundle, "-disableAnalytics")
    assert tree_of(mac.path(BUNDLE)) == installed
    assert not mac.path(BLOB).exists()
    assert mac.path(SETTINGS).read_bytes() == b"DisableAnalytics=1\n"
    expected = finalizer_log.success("", finalizer_log.DISABLING_ANALYTICS)
    assert mac.log(f"/Users/alice/{LOG}") == expected
    assert not mac.path("/" + LOG).exists()

    # Installs again, over the first bundle.
    (bundle / "PkgInfo").write_bytes(b"another")
    install(mac, kpim, bundle)
    assert mac.path(BUNDLE + "/PkgInfo").read_bytes() == b"another"
    assert mac.log(f"/Users/alice/{LOG}") == expected + finalizer_log.success()


def test_install_with_nobody_at_the_console(mac, kpim, bundle, installed):
    install(mac, kpim, bundle)
    assert tree_of(mac.path(BUNDLE)) == installed
    assert mac.log("/" + LOG) == finalizer_log.success()
    assert not mac.path(f"/Users/alice/{LOG}").exists()


def test_malformed_blob(mac, bundle):
    damaged = bytearray(blob.pack(bundle, compress=True))
    damaged[1] ^= 0xFF
    mac.write(BLOB, bytes(damaged))
    result = mac.run([PROGRAMS + "/finalizer", "/"])
    assert (result.status, result.stdout, result.stderr) == (0, b"", b"")
    assert not mac.path(BUNDLE).exists()
