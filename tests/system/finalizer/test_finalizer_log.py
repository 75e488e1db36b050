"""The place of the finalizer's log, and a log that cannot be written."""

import pytest

import finalizer_log
from install_root import BUNDLE, LINE, LOG, PROGRAMS, UNKNOWN_UID


@pytest.mark.parametrize("console, home", [
    ("alice", "alice"), ("bob", "bob"), ("loginwindow", None), ("closing", None), (None, None)])
def test_location(install_root, finalizer_run, bundle_blob, console, home):
    install_root.set_console(console)
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.log(home) == finalizer_log.success()
    logs = [path for path in install_root.folder.rglob("KorvelPlayerInstallManager.log")]
    assert logs == [install_root.log_path(home)]


def test_user_without_a_passwd_entry_is_known_by_number(install_root, finalizer_run):
    install_root.set_console("unknown")
    install_root.mkdir(f"/Users/{UNKNOWN_UID}/Library/Logs")
    finalizer_run(["/"], status=1)
    assert install_root.log(UNKNOWN_UID) == finalizer_log.missing_blob()


@pytest.mark.parametrize("gone", ["/run/systemd/sessions/2", "/run/systemd/seats/seat0",
                                  "/run/systemd"])
def test_without_a_session_nobody_is_logged_in(install_root, finalizer_run, gone):
    install_root.path(gone).rename(install_root.path("/gone"))
    finalizer_run(["/"], status=1)
    assert install_root.log() == finalizer_log.missing_blob()


def test_location_does_not_depend_on_the_install_root(install_root, finalizer_run):
    install_root.set_console(None)
    finalizer_run(["/Volumes/Target"], status=1)
    assert install_root.log() == finalizer_log.missing_blob("/Volumes/Target")


def test_lines_are_stamped_with_local_time(install_root, finalizer_run):
    finalizer_run(["/"], status=1, env={"TZ": "XXX-05:30"})
    text = install_root.log_path("alice").read_text()
    assert [LINE.fullmatch(line).group(1)[-5:] for line in text.splitlines()] == ["+0530"] * 5


@pytest.mark.parametrize("before", [
    b"an earlier line\n", b"an earlier line without an end", b"\xff\xfe\0 not UTF-8\n"])
def test_log_is_appended_to(install_root, finalizer_run, bundle_blob, before):
    install_root.log_path("alice").write_bytes(before)
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    finalizer_run(["/"], status=1)
    content = install_root.log_path("alice").read_bytes()
    assert content.startswith(before)
    install_root.log_path("alice").write_bytes(content[len(before):])
    assert install_root.log("alice") == finalizer_log.success() + finalizer_log.missing_blob()


@pytest.fixture(params=["no folder", "a folder in its place"])
def unwritable_log(request, install_root):
    """A root whose log cannot be written."""
    path = install_root.log_path("alice")
    if request.param == "no folder":
        path.parent.rmdir()
    else:
        path.mkdir()
    return install_root


def test_without_a_log_everything_else_is_done(unwritable_log, finalizer_run, bundle_blob,
                                               installed):
    unwritable_log.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert unwritable_log.tree(BUNDLE) == installed
    # No other place is tried.
    assert not unwritable_log.path("/" + LOG).exists()


def test_without_a_log_a_missing_blob_still_fails(unwritable_log, finalizer_run):
    finalizer_run(["/"], status=1)


def test_a_folder_of_logs_is_not_created(install_root, finalizer_run):
    install_root.log_path("alice").parent.rmdir()
    finalizer_run(["/"], status=1)
    assert not install_root.log_path("alice").parent.exists()


def test_signal_of_a_reader_that_has_left(install_root, finalizer, bundle_blob, installed):
    """The log's lines are lost, but the installation succeeds."""
    assert finalizer
    install_root.lay_blob(bundle_blob)
    result = install_root.execute(
        ["strace", "-f", "-qq", "-o", "/run/trace", "-P", f"/Users/alice/{LOG}", "-e", "trace=write",
         "-e", "inject=write:error=EPIPE:signal=SIGPIPE:when=2+", f"{PROGRAMS}/finalizer", "/"])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert "SIGPIPE" in install_root.path("/run/trace").read_text()
    assert install_root.log("alice") == finalizer_log.success()[:1]
    assert install_root.tree(BUNDLE) == installed
