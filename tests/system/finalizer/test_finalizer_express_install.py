"""The hand-off that completes an express install begun in a web page.

The pingback removes the flag file, so that as a rule no hand-off follows. Here a flag file that
cannot be removed represents one that was made again after the pingback.
"""

import pytest

import finalizer_log
import vendor_config
from install_root import EXPRESS_FLAG, PROGRAMS, ROOT_HOME, VOLUME

REDIRECT_PAGE = vendor_config.tested().redirect_page
UPDATER = vendor_config.tested().updater


@pytest.fixture
def updater(install_root):
    """The updater in the home of the user who runs the finalizer."""
    return install_root.write(ROOT_HOME + UPDATER, "updater")


@pytest.fixture
def lasting_flag(install_root):
    """A flag file that is still there after the pingback."""
    install_root.write(EXPRESS_FLAG, "")
    install_root.pin(EXPRESS_FLAG)


@pytest.mark.usefixtures("lasting_flag")
def test_hand_off(install_root, finalizer_run, bundle_blob, updater):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"], check_leaks=True)
    assert install_root.open_calls() == [[REDIRECT_PAGE]]
    assert not updater.exists()
    assert updater.parent.exists()
    assert install_root.log("alice") == finalizer_log.success()


@pytest.mark.usefixtures("lasting_flag")
def test_hand_off_without_an_updater(install_root, finalizer_run, bundle_blob):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.open_calls() == [[REDIRECT_PAGE]]


@pytest.mark.usefixtures("lasting_flag")
def test_hand_off_with_an_updater_that_cannot_be_removed(install_root, finalizer_run, bundle_blob,
                                                         updater):
    install_root.pin(ROOT_HOME + UPDATER)
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.open_calls() == [[REDIRECT_PAGE]]
    assert updater.exists()
    assert install_root.log("alice") == finalizer_log.success()


@pytest.mark.usefixtures("finalizer", "lasting_flag")
def test_hand_off_is_not_waited_for(install_root, bundle_blob):
    """The launched program ends when the finalizer has ended, and after a while at the latest."""
    install_root.lay_blob(bundle_blob)
    # The pinned file hides the root's own /usr/bin/open.
    install_root.write("/usr/bin/open", _OPEN_THAT_WAITS, mode=0o755)
    install_root.pin("/usr/bin/open")
    result = install_root.execute(["sh", "-c", _FINALIZER_THEN_OPEN])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert install_root.path("/run/open/outcome").read_text() == "outlived the finalizer\n"
    assert install_root.log("alice") == finalizer_log.success()


@pytest.mark.usefixtures("lasting_flag")
@pytest.mark.parametrize("home", ["", ROOT_HOME + "/"])
def test_hand_off_with_homes_of_other_shapes(install_root, finalizer_run, bundle_blob, home):
    updater = install_root.write(home.rstrip("/") + UPDATER, "updater")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"], env={"HOME": home})
    assert install_root.open_calls() == [[REDIRECT_PAGE]]
    assert not updater.exists()


@pytest.mark.usefixtures("lasting_flag")
@pytest.mark.parametrize("home", [None, "/nonexistent"])
def test_hand_off_without_a_home(install_root, finalizer_run, bundle_blob, updater, home):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"], env={"HOME": home})
    assert install_root.open_calls() == [[REDIRECT_PAGE]]
    assert updater.exists()


@pytest.mark.usefixtures("lasting_flag")
def test_program_that_cannot_be_launched(install_root, finalizer_run, bundle_blob, updater):
    install_root.lay_blob(bundle_blob)
    install_root.has_open = False
    # Foundation leaks the task when its launch fails.
    finalizer_run(["/", "-disableAnalytics"])
    assert not updater.exists()
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.DISABLING_ANALYTICS)


@pytest.mark.usefixtures("lasting_flag")
@pytest.mark.parametrize("console, arguments", [
    ("alice", [VOLUME]), ("alice", ["//"]), ("alice", [""]), ("alice", []), ("loginwindow", ["/"]), (None, ["/"])])
def test_no_hand_off(install_root, finalizer_run, bundle_blob, updater, console, arguments):
    install_root.set_console(console)
    install_root.lay_blob(bundle_blob, "".join(arguments) or "/")
    finalizer_run(arguments)
    assert install_root.open_calls() == []
    assert updater.exists()


def test_no_hand_off_without_a_flag(install_root, finalizer_run, bundle_blob, updater):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.open_calls() == []
    assert updater.exists()


@pytest.mark.usefixtures("lasting_flag")
def test_no_hand_off_after_a_failed_extraction(install_root, finalizer_run, updater):
    finalizer_run(["/"], status=1)
    assert install_root.open_calls() == []
    assert updater.exists()


_OPEN_THAT_WAITS = """#!/bin/sh
if timeout 300 cat /run/open/gate; then
    echo "outlived the finalizer"
else
    echo "waited in vain"
fi > /run/open/outcome
exit 3
"""

_FINALIZER_THEN_OPEN = f"""
mkfifo /run/open/gate
{PROGRAMS}/finalizer /
status=$?
timeout 300 sh -c ': > /run/open/gate'
exit $status
"""
