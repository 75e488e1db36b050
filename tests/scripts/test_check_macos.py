"""The errors of scripts/check-macos.sh before it compiles anything."""

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


@pytest.mark.parametrize("has_repository", [True, False])
def test_folder_without_sources(sdk, tmp_path, has_repository):
    """Without sources, of which git lists none there, the check fails."""
    script = tmp_path / "copy/scripts/check-macos.sh"
    script.parent.mkdir(parents=True)
    shutil.copy(SCRIPTS / "check-macos.sh", script)
    if has_repository:
        subprocess.run(["git", "init", "--quiet"], cwd=tmp_path / "copy", check=True)
    result = run("--sdk", sdk, script=script)
    assert result.returncode == 1
    assert f"check-macos: git lists no product sources in {tmp_path}/copy" in result.stderr
