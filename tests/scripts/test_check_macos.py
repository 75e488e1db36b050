"""What scripts/check-macos.sh refuses before it compiles anything."""

import pathlib
import shutil
import subprocess

import pytest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"


def run(*arguments, script=SCRIPTS / "check-macos.sh"):
    return subprocess.run([script, *arguments], text=True, capture_output=True, check=False)


@pytest.fixture
def sdk(tmp_path):
    (tmp_path / "sdk/usr/include").mkdir(parents=True)
    (tmp_path / "sdk/SDKSettings.json").write_text('{"Version": "14.2"}')
    return tmp_path / "sdk"


@pytest.mark.parametrize("arguments", [
    [], ["--sdk"], ["--tests"], ["--sdk", "/", "--build-dir"], ["--sdk", "/", "-DNAME"],
    ["--sdk", "/", "--verbose"], ["--sdk", "/", "more"],
])
def test_usage(arguments):
    result = run(*arguments)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith("usage: scripts/check-macos.sh --sdk DIR")


def test_missing_sdk(tmp_path):
    result = run("--sdk", tmp_path / "none")
    assert (result.returncode, result.stderr) == (
        1, f"check-macos: {tmp_path}/none: no SDK: usr/include is missing\n")


def test_sdk_that_does_not_name_its_release(sdk):
    (sdk / "SDKSettings.json").unlink()
    result = run("--sdk", sdk)
    assert result.returncode == 1
    assert "SDKSettings.json is missing" in result.stderr


def test_sources_that_do_not_configure(sdk, tmp_path):
    """CMake's words and the architecture; a copy of the script has no sources around it."""
    script = tmp_path / "copy/scripts/check-macos.sh"
    script.parent.mkdir(parents=True)
    shutil.copy(SCRIPTS / "check-macos.sh", script)
    result = run("--sdk", sdk, script=script)
    assert result.returncode == 1
    assert "check-macos: x86_64: configuring failed" in result.stderr
    assert "CMake Error" in result.stderr
