"""The finalizer with a home folder that is missing or unusable."""

import pytest

import finalizer_log
from install_root import BUNDLE


@pytest.mark.parametrize("home", [None, "", "/nonexistent", "/usr/share", "/etc/passwd",
                                  "/dev/null", "relative", "/proc"])
def test_home_of_no_use(install_root, finalizer_run, bundle_blob, installed, home):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/", "-disableAnalytics"], env={"HOME": home})
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.DISABLING_ANALYTICS)
    assert install_root.tree(BUNDLE) == installed


@pytest.mark.parametrize("home", [None, "/nonexistent", "/usr/share"])
def test_home_of_no_use_to_a_user(install_root, finalizer_run, home):
    install_root.set_console("bob")
    finalizer_run(["/"], status=1, user="bob", env={"HOME": home})
    assert install_root.log("bob") == finalizer_log.missing_blob()


@pytest.mark.parametrize("variables", [
    {"LANG": None}, {"LANG": "C"}, {"LANG": "ar_EG.UTF-8"}, {"LC_ALL": "xx_YY"},
    {"LANG": "", "LANGUAGE": "de:fr"}])
def test_language_does_not_change_the_log(install_root, finalizer_run, bundle_blob, variables):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"], env=variables)
    assert install_root.log("alice") == finalizer_log.success()


def test_empty_environment(install_root, finalizer_run, bundle_blob, installed):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"], env=dict.fromkeys(["HOME", "LANG", "PATH", "TZ"]))
    assert install_root.log("alice") == finalizer_log.success()
    assert install_root.tree(BUNDLE) == installed
