"""The script that refuses imports newer than the oldest macOS, against listings as nm prints them."""

import pathlib
import stat
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts/macos_imports.py"


def imported(symbol, library):
    return f"                 (undefined) external {symbol} (from {library})\n"


OLD = (imported("_objc_msgSend", "libobjc") + imported("_objc_enumerationMutation", "libobjc")
       + imported("_OBJC_CLASS_$_NSURL", "CoreFoundation")
       + imported("_opendir$INODE64", "libSystem") + imported("___bzero", "libSystem")
       + imported("__Znam", "libstdc++") + imported("__ZdaPv", "libstdc++")
       + imported("___gxx_personality_v0", "libstdc++")
       + imported("__ZTVN10__cxxabiv120__si_class_type_infoE", "libstdc++")
       + imported("_SMJobSubmit", "ServiceManagement"))


def loaded(library):
    return f"\t{library} (compatibility version 1.0.0, current version 7.9.0)\n"


OLD_LIBRARIES = ("program:\n" + loaded("/usr/lib/libSystem.B.dylib")
                 + loaded("/usr/lib/libstdc++.6.dylib"))


def tool(path, output):
    """A program that prints `output`."""
    path.with_suffix(".out").write_text(output)
    path.write_text(f'#!/bin/sh\ncat "{path.with_suffix(".out")}"\n')
    path.chmod(path.stat().st_mode | stat.S_IXUSR)
    return path


@pytest.fixture
def check(tmp_path):
    """Runs the script on an executable whose imports and libraries are listed as given."""
    def run(imports, *arguments, libraries=OLD_LIBRARIES):
        nm = tool(tmp_path / "nm", imports)
        objdump = tool(tmp_path / "objdump", libraries)
        return subprocess.run([SCRIPT, "--nm", nm, "--objdump", objdump, *arguments, "program"],
                              text=True, capture_output=True, check=False)
    return run


def test_what_10_6_has_passes(check):
    result = check(OLD)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == "  x86_64: imports 10 symbols of 5 libraries, none newer than 10.6\n"


@pytest.mark.parametrize("symbol, library", [
    ("_objc_retain", "libobjc"), ("_objc_autoreleasePoolPush", "libobjc"),
    ("_objc_alloc_init", "libobjc"), ("_objc_opt_class", "libobjc"),
    ("_OBJC_CLASS_$_NSConstantArray", "CoreFoundation"),
    ("___chkstk_darwin", "libSystem"), ("_openat", "libSystem"),
    ("_fdopendir$INODE64", "libSystem"), ("_getline", "libSystem"),
    ("_clock_gettime", "libSystem"),
    ("__ZdlPvm", "libstdc++"), ("__ZnwmSt11align_val_t", "libstdc++"),
    ("__ZNSt11logic_errorC2EPKc", "libstdc++"), ("__ZTVSt12length_error", "libstdc++"),
    ("__ZNSt3__112basic_stringIcNS_11char_traitsIcEENS_9allocatorIcEEED1Ev", "libstdc++"),
])
def test_a_newer_symbol_is_refused_by_name(check, symbol, library):
    result = check(OLD + imported(symbol, library))
    assert result.returncode == 1
    assert len(result.stderr.splitlines()) == 1 and symbol in result.stderr


OLD_ON_APPLE = (imported("_objc_alloc_init", "libobjc") + imported("_objc_retain", "libobjc")
                + imported("_fstat", "libSystem") + imported("_bzero", "libSystem")
                + imported("__Znam", "libc++") + imported("___gxx_personality_v0", "libc++"))
APPLE_LIBRARIES = loaded("/usr/lib/libSystem.B.dylib") + loaded("/usr/lib/libc++.1.dylib")


def test_what_11_0_has_passes_on_apples_processors(check):
    result = check(OLD_ON_APPLE, "--arch", "arm64", libraries=APPLE_LIBRARIES)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == "  arm64: imports 6 symbols of 3 libraries, none newer than 11.0\n"


@pytest.mark.parametrize("symbol, library", [
    ("_objc_retain_x19", "libobjc"), ("_objc_msgSend$length", "libobjc"),
    ("_mkfifoat", "libSystem"), ("__ZNSt3__19to_stringEi", "libc++"), ("__ZdlPvm", "libc++"),
])
def test_a_newer_symbol_is_refused_on_apples_processors(check, symbol, library):
    result = check(OLD_ON_APPLE + imported(symbol, library), "--arch", "arm64",
                   libraries=APPLE_LIBRARIES)
    assert result.returncode == 1
    assert len(result.stderr.splitlines()) == 1 and symbol in result.stderr


OF_LIBCXX = (imported("_OBJC_CLASS_$_NSURL", "Foundation") + imported("_openat", "libSystem")
             + imported("_clock_gettime", "libSystem") + imported("_objc_alloc_init", "libobjc")
             + imported("__ZNSt3__19to_stringEi", "libc++")
             + imported("__ZNSt3__18to_charsEPcS0_i", "libc++")
             + imported("__ZTVSt12length_error", "libc++"))


@pytest.mark.parametrize("architecture, oldest", [("x86_64", "10.15"), ("arm64", "11.0")])
def test_kpim_may_use_libcxx(check, architecture, oldest):
    result = check(OF_LIBCXX, "--tool", "--arch", architecture, libraries=APPLE_LIBRARIES)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == (f"  {architecture}: imports 7 symbols of 4 libraries, none newer than "
                             f"{oldest}\n")


@pytest.mark.parametrize("symbol, library", [
    ("__ZNSt3__122__libcpp_verbose_abortEPKcz", "libc++"),
    ("__ZNSt3__18to_charsEPcS0_d", "libc++"), ("__ZNSt3__18to_charsEPcS0_fNS_12chars_formatEi", "libc++"),
    ("__ZNSt3__110from_charsEPKcS1_RdNS_12chars_formatE", "libc++"),
    ("__ZNSt3__13pmr20get_default_resourceEv", "libc++"),
    ("__ZNSt3__113__hash_memoryEPKvm", "libc++"),
    ("_objc_msgSend$length", "libobjc"), ("_mkfifoat", "libSystem"),
])
@pytest.mark.parametrize("architecture", ["x86_64", "arm64"])
def test_what_is_newer_than_kpims_oldest_system_is_refused(check, architecture, symbol, library):
    result = check(OF_LIBCXX + imported(symbol, library), "--tool", "--arch", architecture,
                   libraries=APPLE_LIBRARIES)
    assert result.returncode == 1
    assert len(result.stderr.splitlines()) == 1 and symbol in result.stderr


@pytest.mark.parametrize("symbol, library", [
    ("__ZNSt3__120__libcpp_atomic_waitEPVKvx", "libc++"),
    ("__ZNSt3__123__cxx_atomic_notify_oneEPVKv", "libc++"),
    ("___darwin_check_fd_set_overflow", "libSystem"),
])
def test_what_came_with_11_is_refused_in_kpims_intel_slice_alone(check, symbol, library):
    results = [check(OF_LIBCXX + imported(symbol, library), "--tool", "--arch", architecture,
                     libraries=APPLE_LIBRARIES) for architecture in ("x86_64", "arm64")]
    assert [result.returncode for result in results] == [1, 0]


def test_kpim_loads_libcxx_alone(check):
    result = check(OF_LIBCXX, "--tool", libraries=OLD_LIBRARIES)
    assert result.returncode == 1
    assert "libstdc++.6.dylib: not a library that the product may load" in result.stderr


def test_the_slice_that_is_asked_for_is_listed(tmp_path):
    for name, listing in (("nm", OLD_ON_APPLE), ("objdump", APPLE_LIBRARIES)):
        program = tool(tmp_path / name, listing)
        program.write_text(program.read_text().replace(
            "cat", 'case "$*" in *--arch=arm64*) ;; *) exit 1 ;; esac; cat'))
    result = subprocess.run([SCRIPT, "--nm", tmp_path / "nm", "--objdump", tmp_path / "objdump",
                             "--arch", "arm64", "program"],
                            text=True, capture_output=True, check=False)
    assert (result.returncode, result.stderr) == (0, "")


@pytest.mark.parametrize("library", [
    "/usr/lib/libc++.1.dylib", "/opt/local/lib/libstdc++.6.dylib",
    "/System/Library/Frameworks/Combine.framework/Versions/A/Combine",
])
def test_another_library_is_refused_even_when_nothing_is_imported_from_it(check, library):
    result = check(OLD, libraries=OLD_LIBRARIES + loaded(library))
    assert result.returncode == 1
    assert result.stderr == (f"macos_imports: program: {library}: "
                             "not a library that the product may load\n")


def test_a_line_that_is_not_understood_is_an_error(check):
    result = check(OLD + "program: no symbols\n")
    assert result.returncode == 1
    assert "not understood: program: no symbols" in result.stderr


def test_nothing_imported_is_an_error(check):
    result = check("")
    assert result.returncode == 1
    assert "imports nothing" in result.stderr


def test_the_table_lists_every_import_without_the_compilers_underscore(check):
    result = check(imported("_b", "libSystem") + imported("_a", "libSystem")
                   + imported("_objc_msgSend", "libobjc"), "--table")
    assert result.returncode == 0
    assert result.stdout == ("| library | imports |\n|---|---|\n"
                             "| libSystem | `a`, `b` |\n| libobjc | `objc_msgSend` |\n")
