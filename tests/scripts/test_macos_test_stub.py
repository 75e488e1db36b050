"""The script that writes a link stub of the symbols that the unit tests import from macOS."""

import pathlib
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts/macos_test_stub.py"
# A C function of a header, one under another name, a class, the C++ library, the compiler's own.
SYSTEMS = ["_getpid", "_stat$INODE64", "_environ", "_OBJC_CLASS_$_NSLock", "__ZNSt3__19to_stringEi", "__Znwm",
           "__ZTVN10__cxxabiv117__class_type_infoE", "___cxa_throw", "___stack_chk_fail"]


@pytest.fixture
def make_stub(tmp_path):
    """Runs the script for objects with these undefined symbols, and returns result and stub."""
    def run(undefined, defined=("_main",)):
        headers = tmp_path / "sdk/usr/include"
        headers.mkdir(parents=True)
        (headers / "unistd.h").write_text(
            "pid_t getpid(void);  // not getpidd()\n/* nor\ngetpiddd(); */\n"
            "int stat(const char *path);\nextern char **environ __API_AVAILABLE(macos(10.0));\n")
        (tmp_path / "sdk/lib.tbd").write_text("symbols: [ _only_in_a_stub ]\n")
        nm = tmp_path / "nm"
        nm.write_text(f'#!/bin/sh\ncase "$*" in *-u*) cat "{tmp_path}/undefined" ;; '
                      f'*) cat "{tmp_path}/defined" ;; esac\n')
        nm.chmod(0o755)
        (tmp_path / "undefined").write_text("a.o:\n" + "\n".join(undefined) + "\n")
        (tmp_path / "defined").write_text("\na.o:\n" + "\n".join(defined) + "\n")
        stub = tmp_path / "stub.tbd"
        result = subprocess.run([SCRIPT, "--nm", nm, "--sdk", tmp_path / "sdk", "--output", stub,
                                 "a.o"], text=True, capture_output=True, check=False)
        return result, stub.read_text() if stub.exists() else ""
    return run


def test_the_stub_has_what_the_system_has(make_stub):
    result, stub = make_stub([*SYSTEMS, "_only_in_a_stub", "_main"])
    assert (result.returncode, result.stderr) == (0, "")
    for name in [*SYSTEMS, "_only_in_a_stub"]:
        assert f"'{name}'" in stub
    assert "_main" not in stub and "a.o" not in stub


@pytest.mark.parametrize("name", ["_getpidd", "_getpiddd", "_path", "_OBJC_CLASS_$_KPIMLogger", "__ZN4kpim5PrintEv",
                                  "__Z10ParseBlobsv", "___llvm_profile_write_file"])
def test_what_only_the_tests_could_have_is_refused(make_stub, name):
    result, _ = make_stub([*SYSTEMS, name])
    assert result.returncode == 1
    assert result.stderr == f"macos_test_stub: {name}: not defined, and not of the system\n"


def test_objects_that_cannot_be_listed_are_an_error(tmp_path):
    result = subprocess.run([SCRIPT, "--nm", "/bin/false", "--sdk", tmp_path, "--output",
                             tmp_path / "stub", "a.o"], text=True, capture_output=True, check=False)
    assert result.returncode == 1
    assert result.stderr == "macos_test_stub: the symbols cannot be listed\n"
