"""The script that checks the load commands of a linked macOS program, with files made here."""

import pathlib
import struct
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts/macos_file.py"
INTEL, APPLE = 0x01000007, 0x0100000C
MAIN, UNIXTHREAD, SIGNATURE = 0x80000028, 0x5, 0x1D
VERSION = "32.0.0.269"
INFO = (b'<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleVersion</key>'
        b"<string>32.0.0.269</string></dict></plist>")
FIRST_SECTION = 512


def packed(release):
    major, minor = release.split(".")
    return int(major) << 16 | int(minor) << 8


def command(number, content=b""):
    return struct.pack("<2I", number, 8 + len(content)) + content


def text_segment(info, where):
    section = struct.pack("<16s16s2Q8I", b"__info_plist", b"__TEXT", where, len(info), where,
                          *[0] * 7)
    return command(0x19, struct.pack("<16s4Q4I", b"__TEXT", 0, 4096, 0, 4096, 7, 5, 1, 0)
                   + section)


def program(cpu, minimum, sdk="14.2", start=MAIN, signed=False, info=INFO, where=FIRST_SECTION):
    """An executable of load commands and an information dictionary. Without a `minimum`, the
    command with the minimum and the SDK is left out."""
    commands = [text_segment(info, where), command(start, bytes(16))]
    if minimum is not None:
        commands.insert(1, command(0x24, struct.pack("<2I", packed(minimum), packed(sdk)))
                        if cpu == INTEL else
                        command(0x32, struct.pack("<4I", 1, packed(minimum), packed(sdk), 0)))
    if signed:
        commands.append(command(SIGNATURE, bytes(8)))
    body = b"".join(commands)
    header = struct.pack("<8I", 0xFEEDFACF, cpu, 3, 2, len(commands), len(body), 0, 0)
    return (header + body).ljust(where, b"\0") + info


def universal(*programs, is_large=False):
    """The programs in one file, each at its own page; `is_large` is the form for files beyond 4 GiB."""
    magic, layout, reserved = ((0xCAFEBABF, ">2I2Q2I", [0]) if is_large else
                               (0xCAFEBABE, ">5I", []))
    header, content, offset = struct.pack(">2I", magic, len(programs)), b"", 4096
    for one in programs:
        cpu, = struct.unpack_from("<I", one, 4)
        header += struct.pack(layout, cpu, 3, offset, len(one), 12, *reserved)
        content += one.ljust(4096, b"\0")
        offset += 4096
    return header.ljust(4096, b"\0") + content


GOOD_INTEL = program(INTEL, "10.6")
GOOD_APPLE = program(APPLE, "11.0", signed=True)
BOTH = ("--slice", "x86_64:10.6", "--slice", "arm64:11.0")


@pytest.fixture
def check(tmp_path):
    """Runs the script on a file with the content."""
    def run(content, *arguments):
        file = tmp_path / "program"
        file.write_bytes(content)
        return subprocess.run([SCRIPT, "--version", VERSION, *arguments, file], text=True,
                              capture_output=True, check=False)
    return run


def test_each_slice_of_a_universal_file_gets_a_line(check):
    result = check(universal(GOOD_INTEL, GOOD_APPLE), *BOTH)
    assert (result.returncode, result.stderr) == (0, "")
    intel, apple = result.stdout.splitlines()
    assert intel == (f"  x86_64: {len(GOOD_INTEL)} bytes, 3 load commands of 192 bytes with room "
                     "for 288 more, macOS 10.6, SDK 14.2, starts by LC_MAIN (macOS 10.8 and "
                     "later), not signed")
    assert apple.startswith(f"  arm64: {len(GOOD_APPLE)} bytes") and apple.endswith(", signed")


def test_the_form_for_large_files(check):
    result = check(universal(GOOD_INTEL, GOOD_APPLE, is_large=True), *BOTH)
    assert (result.returncode, result.stderr) == (0, "")
    assert [line.split(":")[0] for line in result.stdout.splitlines()] == ["  x86_64", "  arm64"]


@pytest.mark.parametrize("make", [lambda path: None, lambda path: path.mkdir()])
def test_a_file_that_cannot_be_read(tmp_path, make):
    make(tmp_path / "program")
    result = subprocess.run([SCRIPT, "--version", VERSION, *BOTH, tmp_path / "program"], text=True,
                            capture_output=True, check=False)
    assert result.returncode == 1
    assert result.stderr.startswith(f"macos_file: {tmp_path}/program: ")
    assert len(result.stderr.splitlines()) == 1


def test_the_start_of_10_6_is_reported(check):
    result = check(program(INTEL, "10.6", start=UNIXTHREAD), "--slice", "x86_64:10.6")
    assert "starts by LC_UNIXTHREAD (any macOS)" in result.stdout


def test_load_commands_are_listed_on_request(check):
    result = check(GOOD_INTEL, "--slice", "x86_64:10.6", "--commands")
    assert [line.strip() for line in result.stdout.splitlines()[1:]] == [
        "LC_SEGMENT_64 __TEXT", "LC_VERSION_MIN_MACOSX", "LC_MAIN"]


@pytest.mark.parametrize("file, fault", [
    (program(INTEL, "10.7"), "x86_64 asks for macOS 10.7 instead of 10.6"),
    (program(INTEL, "10.6", sdk="10.6"), "x86_64 was linked with an SDK of 10.6"),
    (program(INTEL, "10.6", sdk="10.15"), "x86_64 was linked with an SDK of 10.15"),
    (universal(GOOD_INTEL, GOOD_INTEL), "holds x86_64, x86_64 instead of x86_64"),
    (program(INTEL, "10.6", start=0x26), "x86_64 has no entry point"),
    (program(INTEL, "10.6", info=INFO.replace(b"269", b"268")),
     "x86_64 __TEXT,__info_plist does not carry the version 32.0.0.269"),
    (program(INTEL, "10.6", info=b"no property list"), "x86_64 __TEXT,__info_plist"),
    (program(INTEL, "10.6", where=232), "x86_64 has 8 bytes of room for a signature's"),
    (GOOD_APPLE, "holds arm64 instead of x86_64"),
    (universal(GOOD_INTEL, GOOD_APPLE), "holds arm64, x86_64 instead of x86_64"),
])
def test_a_fault_is_named(check, file, fault):
    result = check(file, "--slice", "x86_64:10.6")
    assert result.returncode == 1
    assert fault in result.stderr and len(result.stderr.splitlines()) == 1


def test_a_file_that_names_no_sdk(check):
    result = check(program(INTEL, None), "--slice", "x86_64:10.6")
    assert result.returncode == 1
    assert "asks for macOS ? instead of 10.6" in result.stderr
    assert "was linked with an SDK of ?" in result.stderr


def test_apples_processors_need_a_signature(check):
    result = check(program(APPLE, "11.0"), "--slice", "arm64:11.0")
    assert result.returncode == 1
    assert "arm64 is not signed" in result.stderr


@pytest.mark.parametrize("file", [
    b"", b"#!/bin/sh\n", GOOD_INTEL[:40], GOOD_INTEL[:-8], universal(GOOD_INTEL)[:4100],
    GOOD_INTEL[:36] + struct.pack("<I", 0) + GOOD_INTEL[40:],
])
def test_a_file_that_ends_early_is_refused(check, file):
    result = check(file, "--slice", "x86_64:10.6")
    assert result.returncode == 1
    assert result.stderr.startswith("macos_file: ") and "Traceback" not in result.stderr
