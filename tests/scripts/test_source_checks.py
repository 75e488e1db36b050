"""The scripts that check sources and run the tests, and the build's first words."""

import json
import os
import pathlib
import re
import shutil
import subprocess

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = REPOSITORY / "scripts"
UGLY = "int  main( ){return 0;}\n"
SHELL = "#!/bin/sh\n"


def run(*command, **options):
    return subprocess.run(command, text=True, capture_output=True, check=False, **options)


def write(path, text, mode=0o755):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(mode)


@pytest.fixture
def clone(tmp_path):
    """A repository with the scripts and no sources. PATH begins with its bin/."""
    for name in ("format.sh", "shellcheck.sh", "lint.sh", "test.sh"):
        write(tmp_path / "scripts" / name, (SCRIPTS / name).read_text())
    shutil.copy(REPOSITORY / ".clang-format", tmp_path)
    write(tmp_path / ".gitignore", "/build/\n/bin/\n")
    write(tmp_path / ".ci/run", SHELL)
    (tmp_path / "bin").mkdir()
    for arguments in (["init", "--quiet"], ["add", "."]):
        subprocess.run(["git", *arguments], cwd=tmp_path, check=True)
    return tmp_path


@pytest.mark.parametrize("track", [True, False])
def test_format_looks_at_all_files(clone, track):
    write(clone / "player/ugly.cpp", UGLY)
    write(clone / "build/generated.cpp", UGLY)
    if track:
        subprocess.run(["git", "add", "."], cwd=clone, check=True)
    result = run(clone / "scripts/format.sh", "--check")
    assert result.returncode != 0
    assert "player/ugly.cpp" in result.stderr and "generated.cpp" not in result.stderr
    assert (clone / "player/ugly.cpp").read_text() == UGLY
    assert run(clone / "scripts/format.sh").returncode == 0
    assert run(clone / "scripts/format.sh", "--check").returncode == 0
    assert (clone / "build/generated.cpp").read_text() == UGLY


def test_format_passes_over_deleted_files(clone):
    write(clone / "a.cpp", UGLY)
    subprocess.run(["git", "add", "."], cwd=clone, check=True)
    (clone / "a.cpp").unlink()
    assert run(clone / "scripts/format.sh", "--check").returncode == 0


def test_shellcheck_looks_at_untracked_scripts(clone):
    assert run(clone / "scripts/shellcheck.sh").returncode == 0
    write(clone / "new.sh", SHELL + "echo $1\n")
    result = run(clone / "scripts/shellcheck.sh")
    assert result.returncode != 0 and "new.sh" in result.stdout


@pytest.fixture
def lint(clone):
    """Runs lint.sh over a build of three sources, of which a test compiles one too; returns its result,
    and for each call of clang-tidy the file and its commands."""
    names = ["player/a.mm", "tools/b.cpp", "tests/c.cpp"]
    for name in names:
        write(clone / name, "")
    for build in ("release", "other"):
        headers = " -Xclang -include-pch -Xclang '/a b.pch' -Xclang -include -Xclang '/a b.hxx'"
        commands = [{"file": str(clone / name), "directory": str(clone), "command": build + headers}
                    for name in names]
        commands.append({**commands[1], "command": "of a test"})
        write(clone / "build" / build / "compile_commands.json", json.dumps(commands))
    write(clone / "bin/clang-tidy", f"""#!/usr/bin/python3
import json, os, sys
quiet, p, folder, name = sys.argv[1:]
assert (quiet, p) == ("-quiet", "-p")
commands = [each["command"] for each in json.load(open(folder + "/compile_commands.json"))
            if each["file"] == os.path.abspath(name)]
with open("{clone}/bin/calls", "a") as calls:
    print(name, *commands, file=calls)
sys.exit(os.path.exists("{clone}/bin/fails"))
""")

    def call(*arguments, cwd=clone):
        environment = {**os.environ, "PATH": f"{clone}/bin:{os.environ['PATH']}"}
        result = run(clone / "scripts/lint.sh", *arguments, cwd=cwd, env=environment)
        calls = clone / "bin/calls"
        called = sorted(calls.read_text().splitlines()) if calls.exists() else []
        return result, called

    return call


def test_lint_checks_the_product_once_without_precompiled_headers(lint):
    result, calls = lint()
    assert result.returncode == 0, result.stderr
    assert calls == ["player/a.mm release", "tools/b.cpp release"]


def test_lint_checks_the_given_files(lint, clone):
    result, calls = lint("--build", "../build/other", "c.cpp", cwd=clone / "tests")
    assert result.returncode == 0, result.stderr
    assert calls == ["tests/c.cpp other"]


def test_lint_fails_as_clang_tidy_does(lint, clone):
    (clone / "bin/fails").touch()
    assert lint("tools/b.cpp")[0].returncode != 0


def test_lint_refuses_what_is_not_compiled(lint):
    result, calls = lint("tools/b.cpp", "tools/b.h")
    assert (result.returncode, calls) == (1, [])
    assert result.stderr == "lint: not a source that the build compiles: tools/b.h\n"


@pytest.mark.parametrize("arguments, status", [(["--build"], 2), (["-x"], 2), (["--build", "none"], 1)])
def test_lint_wrong_usage(lint, arguments, status):
    result, calls = lint(*arguments)
    assert (result.returncode, calls) == (status, [])
    assert result.stderr


def test_seconds_of_each_step_are_shown(clone):
    write(clone / "scripts/bootstrap.sh", SHELL)
    for name in ("cmake", "ctest"):
        write(clone / "bin" / name, SHELL)
    write(clone / "scripts/summarize_tests.py", "")
    result = run(clone / "scripts/test.sh", "quick",
                 env={**os.environ, "PATH": f"{clone}/bin:{os.environ['PATH']}"})
    assert re.fullmatch(r"== bootstrap\n   \d+ s\n== build-release\n   \d+ s\n== tests\n   \d+ s\n",
                        result.stdout), result


def test_another_compiler_is_refused_with_the_command_to_type(tmp_path):
    write(tmp_path / "other++", SHELL + 'exec clang++ -U__clang__ "$@"\n')
    result = run("cmake", "-S", REPOSITORY, "-B", tmp_path / "x",
                 f"-DCMAKE_CXX_COMPILER={tmp_path}/other++", "-DCMAKE_C_COMPILER=clang")
    assert result.returncode == 1
    said = " ".join(result.stderr.split())
    assert f"built with clang++, not with {tmp_path}/other++ (GNU)" in said
    assert "cmake --preset release " in said
    assert (f"cmake --fresh -B {tmp_path}/x -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++" in said)
