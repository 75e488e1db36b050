"""The build folder, configured again for other hosts of the vendor: the demo and the nearest tests.

A copy of the folder is mounted in its place for the build, so that only files that depend on the
hosts are built again.
"""

import os
import shutil
import subprocess
import sys

import pytest

import vendor_config
from install_root import REPOSITORY

# Hosts and addresses that differ from the defaults in every way.
HOSTS = {
    "KP_DOWNLOAD_HOST": "Get-1." + ".".join(["player-downloads"] * 4) + ".vendor.test",
    "KP_VENDOR_WEB_HOST": "vendor-2",
    "KP_UNINSTALLER_URL": "https://vendor-2:8443/~u/%41?a=[1]&b=${X};#'c'",
}
UNIT_TESTS = ["CompleteExpressInstallTest", "KPIMInstallChecksTest", "KPIMPingbackTest",
              "KPIMVersionManagerTest"]
SYSTEM_TESTS = [
    "finalizer/test_finalizer_express_install.py::test_hand_off",
    "finalizer/test_pingback.py::test_first_install",
    "finalizer/test_pingback.py::test_flag_made_again_meanwhile",
    "finalizer/test_pingback.py::test_wrong_certificate_gets_no_request",
    "kpim/test_check.py::test_all_fail",
    "kpim/test_command_line.py::test_version",
    "kpim/test_latest.py::test_example",
]


@pytest.fixture(scope="module")
def own_build(build, tmp_path_factory):
    """A copy of the build folder, configured and built for HOSTS."""
    if os.geteuid() != 0:
        pytest.skip("a root of its own needs root")
    if build.name in ("asan", "coverage"):
        pytest.skip("packages are made of a build without instruments")
    copy = tmp_path_factory.mktemp("own-hosts") / build.name
    # Without the files that other tests write.
    shutil.copytree(build, copy, symlinks=True, ignore=shutil.ignore_patterns(
        "test-results", "homes", "Testing", "packages", "_CPack_Packages"))
    inside = ["bwrap", "--dev-bind", "/", "/", "--bind", copy, build, "--die-with-parent", "--"]
    for command in (["cmake", *(f"-D{name}={value}" for name, value in HOSTS.items()), build],
                    ["cmake", "--build", build, "--target", "finalizer", "kpim", *UNIT_TESTS]):
        done = subprocess.run([*inside, *command], text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        assert done.returncode == 0, done.stdout[-4000:]
    yield copy
    shutil.rmtree(copy)


def test_hosts_are_in_the_build(own_build):
    vendor = vendor_config.read(own_build)
    assert HOSTS == {"KP_DOWNLOAD_HOST": vendor.download_host, "KP_VENDOR_WEB_HOST": vendor.web_host,
                     "KP_UNINSTALLER_URL": vendor.uninstaller_url}
    said = subprocess.run([own_build / "bin/kpim", "--version"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    assert said.splitlines()[1:] == [f"download server: {vendor.download_host}",
                                     f"web site: {vendor.web_host}",
                                     f"uninstaller: {vendor.uninstaller_url}"]


def test_package_names_the_hosts(own_build, tmp_path):
    printer = tmp_path / "print.cmake"
    printer.write_text(f"include({own_build}/CPackConfig.cmake)\n"
                       "message(\"${CPACK_PACKAGE_DESCRIPTION}\")\n")
    said = subprocess.run(["cmake", "-P", printer], check=True, text=True,
                          stderr=subprocess.PIPE).stderr
    for host in HOSTS.values():
        assert f": {host}\n" in said


def test_demo(own_build):
    done = subprocess.run([sys.executable, REPOSITORY / "scripts/demo.py", "--small", "--build", own_build],
                          text=True, capture_output=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    assert f"nginx serves https://{HOSTS['KP_DOWNLOAD_HOST']} " in done.stdout
    assert "diff -r: no difference" in done.stdout
    assert "\nGET /get/korvelplayer/update/current/install/" in done.stdout


@pytest.mark.parametrize("name", UNIT_TESTS)
def test_unit_test(own_build, tmp_path, name):
    done = subprocess.run([own_build / "tests" / name, "--gtest_brief=1"], text=True, check=False,
                          capture_output=True, env={**os.environ, "HOME": str(tmp_path)})
    assert done.returncode == 0, done.stdout


def test_system_tests(own_build):
    done = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "--build", own_build,
         *(REPOSITORY / "tests/system" / name for name in SYSTEM_TESTS)],
        text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert done.returncode == 0, done.stdout[-4000:]
