"""The tarball of the universal macOS programs."""

import json
import pathlib
import shutil
import subprocess
import tarfile

import pytest

from test_macos_file import APPLE, INTEL, program, universal

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = REPOSITORY / "scripts/package.sh"
NAME = "kpinstallmanager-32.0.0.269-macOS-universal"
FINALIZER = universal(program(INTEL, "10.6"), program(APPLE, "11.0", signed=True))
KPIM = universal(program(INTEL, "10.15"), program(APPLE, "11.0", signed=True))


@pytest.fixture
def package(tmp_path):
    """Packs the two programs, and returns the script's result."""
    def run(*options, finalizer=FINALIZER, kpim=KPIM, host="vendor.com"):
        for slices in ("x86_64", "arm64"):
            (tmp_path / slices / "generated").mkdir(parents=True)
            (tmp_path / slices / "generated/vendor-config.json").write_text(json.dumps(
                {"downloadHost": host, "vendorWebHost": host, "uninstallerURL": f"http://{host}/"}))
        (tmp_path / "bin").mkdir()
        (tmp_path / "bin/finalizer").write_bytes(finalizer)
        (tmp_path / "bin/kpim").write_bytes(kpim)
        # From another folder: the path given is relative to it.
        return subprocess.run([SCRIPT, *options, "--macos", "."], cwd=tmp_path, text=True,
                              capture_output=True, check=False)
    return run


def test_files_of_the_tarball(package, tmp_path):
    result = package()
    assert result.returncode == 0, result.stderr
    with tarfile.open(tmp_path / f"packages/{NAME}.tar.gz") as archive:
        members = {member.name: member for member in archive if member.isfile()}
        assert archive.extractfile(f"{NAME}/bin/kpim").read() == KPIM
        assert (archive.extractfile(f"{NAME}/libexec/kpinstallmanager/finalizer").read()
                == FINALIZER)
    modes = {name.removeprefix(NAME + "/"): member.mode for name, member in members.items()}
    assert modes == {
        "bin/kpim": 0o755,
        "libexec/kpinstallmanager/finalizer": 0o755,
        **dict.fromkeys(["share/man/man1/kpim.1", "share/man/man8/finalizer.8",
                         "share/bash-completion/completions/kpim",
                         "share/zsh/site-functions/_kpim",
                         "share/fish/vendor_completions.d/kpim.fish",
                         "share/doc/kpinstallmanager/LICENSE",
                         "share/doc/kpinstallmanager/README.md",
                         "share/doc/kpinstallmanager/ARCHITECTURE.md",
                         "share/doc/kpinstallmanager/CHANGELOG.md",
                         "share/doc/kpinstallmanager/CONTRIBUTING.md",
                         "share/doc/kpinstallmanager/copyright",
                         *(f"share/doc/kpinstallmanager/docs/{page.name}"
                           for page in (REPOSITORY / "docs").iterdir())], 0o644)}
    assert {(member.uid, member.gid) for member in members.values()} == {(0, 0)}


@pytest.mark.parametrize("programs, fault", [
    ({"finalizer": program(INTEL, "10.6")}, "holds x86_64 instead of arm64, x86_64"),
    ({"finalizer": KPIM}, "x86_64 asks for macOS 10.15 instead of 10.6"),
    ({"kpim": universal(program(INTEL, "10.15"), program(APPLE, "11.0"))}, "arm64 is not signed"),
    ({"kpim": b"#!/bin/sh\n".ljust(64)}, "not a 64-bit executable"),
])
def test_what_cannot_be_shipped_is_not_packed(package, tmp_path, programs, fault):
    result = package(**programs)
    assert result.returncode == 1
    assert fault in result.stderr
    assert not list(tmp_path.glob("packages/*"))


@pytest.mark.parametrize("missing", ["bin/kpim", "bin/finalizer", "x86_64/generated", "arm64", "."])
def test_missing_files_are_named(package, tmp_path, missing):
    package(host="vendor.com")
    shutil.rmtree(tmp_path / "packages")
    path = tmp_path / missing
    if path.is_file():
        path.unlink()
    else:
        shutil.rmtree(path)
    result = subprocess.run([SCRIPT, "--macos", tmp_path], text=True, capture_output=True,
                            check=False)
    assert result.returncode == 1
    assert result.stderr.startswith(f"package: {tmp_path}/") and len(result.stderr.splitlines()) == 1
    assert " is missing: " in result.stderr and (missing == "." or missing in result.stderr)


def test_placeholder_hosts(package, tmp_path):
    result = package(host="vendor.example")
    assert result.returncode == 1
    assert "reserved names" in result.stderr
    assert not list(tmp_path.glob("packages/*"))


def test_placeholder_hosts_that_are_wanted(package):
    result = package("--placeholder-hosts", host="vendor.example")
    assert result.returncode == 0, result.stderr
    assert result.stdout.startswith("download server: vendor.example\n")
