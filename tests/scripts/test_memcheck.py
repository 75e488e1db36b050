"""scripts/memcheck.sh takes every unit test there is but the one that measures memory."""

import pathlib
import re
import subprocess

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

LEFT_OUT = "InstallerCompressorMemoryTest"


def _unit_tests():
    """The names that the unit tests' CMake files give."""
    folder = REPOSITORY / "tests" / "unit"
    return {name for file in folder.rglob("CMakeLists.txt")
            for name in re.findall(r"^\s*kp_unit_test\((\w+)", file.read_text(), re.MULTILINE)}


def test_every_unit_test_is_run(build):
    listed = subprocess.run([REPOSITORY / "scripts" / "memcheck.sh", "--list", build],
                            capture_output=True, text=True, timeout=60, check=True)
    assert len(_unit_tests()) > 30
    assert LEFT_OUT in _unit_tests()
    assert sorted(listed.stdout.split()) == sorted(_unit_tests() - {LEFT_OUT})


def test_a_folder_without_unit_tests_is_told_of(tmp_path):
    run = subprocess.run([REPOSITORY / "scripts" / "memcheck.sh", tmp_path],
                         capture_output=True, text=True, timeout=60, check=False)
    assert run.returncode == 1
    assert run.stderr == f"scripts/memcheck.sh: no unit tests in {tmp_path}\n"
