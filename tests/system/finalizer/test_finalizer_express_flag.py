"""The pingback removes the flag file of an express install, before the hand-off."""

import pytest

from install_root import EXPRESS_FLAG, ROOT_HOME, VOLUME
from test_finalizer_express_install import UPDATER


@pytest.mark.parametrize("console", ["alice", "loginwindow", None])
@pytest.mark.parametrize("root", ["/", VOLUME])
def test_flag_is_gone_before_the_hand_off(install_root, finalizer_run, bundle_blob, console, root):
    install_root.set_console(console)
    flag = install_root.write(EXPRESS_FLAG, "")
    updater = install_root.write(ROOT_HOME + UPDATER, "updater")
    install_root.lay_blob(bundle_blob, root)
    finalizer_run([root])
    assert not flag.exists()
    assert install_root.open_calls() == []
    assert updater.exists()


def test_failed_extraction_keeps_the_flag(install_root, finalizer_run):
    flag = install_root.write(EXPRESS_FLAG, "")
    finalizer_run(["/"], status=1)
    assert flag.exists()
