"""kpim's command line: wrong usage, help, and standard output that fails."""

import os
import re
import subprocess

import pytest

import blob
import vendor_config
from install_root import REPOSITORY
from kpim_program import FAILED, OK, USAGE, error, make_bundle, names, write_blob


BEFORE_COMMAND = "an option of a command: put it after the command"


@pytest.mark.parametrize("arguments, complaint, helper", [
    ([], "command line: no command given", "kpim"),
    (["bogus"], "bogus: no such command or option", "kpim"),
    (["--bogus"], "--bogus: no such command or option", "kpim"),
    (["--json", "list", "x"], f"--json: {BEFORE_COMMAND}", "kpim"),
    (["--json", "check"], f"--json: {BEFORE_COMMAND}", "kpim"),
    (["--quiet", "pack", "a"], f"--quiet: {BEFORE_COMMAND}", "kpim"),
    (["--locale=de", "latest"], f"--locale=de: {BEFORE_COMMAND}", "kpim"),
    (["-ob", "pack", "a"], f"-ob: {BEFORE_COMMAND}", "kpim"),
    (["--json"], f"--json: {BEFORE_COMMAND}", "kpim"),
    (["--bogus", "list", "x"], "--bogus: no such command or option", "kpim"),
    (["bogus", "list", "x"], "bogus: no such command or option", "kpim"),
    ([""], "'': no such command or option", "kpim"),
    (["pack"], "pack: BUNDLE is required", "kpim pack"),
    (["pack", "--bogus"], "pack: The following argument was not expected: --bogus", "kpim pack"),
    (["list", "--bogus", "--", "a", "-b"],
     "list: The following arguments were not expected: --bogus -b", "kpim list"),
    (["check", "--", "x"], "check: The following argument was not expected: x", "kpim check"),
    (["list", "--"], "list: BLOB is required", "kpim list"),
    (["pack", "a", "b"], "pack: The following argument was not expected: b", "kpim pack"),
    (["pack", "--bogus", "a"], "pack: The following argument was not expected: --bogus",
     "kpim pack"),
    (["pack", "a", "-o"], "pack: --output: 1 required BLOB missing", "kpim pack"),
    (["pack", "a", "-o", "b", "-o", "c"], "pack: --output", "kpim pack"),
    (["pack", "a", "--sort=no"], "pack: sort was given a disallowed flag override", "kpim pack"),
    (["pack", "a", "--sort", "--no-sort"], "pack: --sort excludes --no-sort", "kpim pack"),
    (["pack", "a", "--threads", "0"], "pack: --threads: Value 0 not in range", "kpim pack"),
    (["pack", "a", "--threads", "1025"], "pack: --threads: Value 1025 not in range", "kpim pack"),
    (["pack", "a", "--threads", "many"], "pack: --threads: ", "kpim pack"),
    (["pack", "a", "--exclude=", "--strict"], "--exclude: the value is empty", "kpim"),
    (["latest", "--locale=", "--json"], "--locale: the value is empty", "kpim"),
    (["pack", "a", "--exclude"], "pack: --exclude: 1 required GLOB missing", "kpim pack"),
    (["pack", "a", "--exclude", ""], "pack: --exclude: an empty pattern matches nothing",
     "kpim pack"),
    (["pack", "a", "--json", "-o", "-"], "pack: --json: standard output is for the blob",
     "kpim pack"),
    (["pack", "a", "--verify=0"], "pack: verify was given a disallowed flag override",
     "kpim pack"),
    (["list"], "list: BLOB is required", "kpim list"),
    (["list", "a", "b"], "list: The following argument was not expected: b", "kpim list"),
    (["list", "a", "--json=0"], "list: json was given a disallowed flag override", "kpim list"),
    (["verify"], "verify: BLOB is required", "kpim verify"),
    (["verify", "a", "b", "c"], "verify: The following argument was not expected: c",
     "kpim verify"),
    (["unpack"], "unpack: BLOB is required", "kpim unpack"),
    (["unpack", "a"], "unpack: DIR is required", "kpim unpack"),
    (["diff", "a"], "diff: RIGHT is required", "kpim diff"),
    (["list", "a", "--one", "b", "--two", "-3"],
     "list: The following arguments were not expected: --one --two -3", "kpim list"),
    (["check", "c", "b", "a"], "check: The following arguments were not expected: c b a",
     "kpim check"),
    (["help", "bogus"], "bogus: no such command or option", "kpim"),
    (["help", "list", "b", "a"], "help: The following arguments were not expected: b a",
     "kpim help"),
    (["list", "a", "\u202e"], r"list: The following argument was not expected: \xe2\x80\xae",
     "kpim list"),
])
def test_wrong_usage(run, tmp_path, arguments, complaint, helper):
    result = run(*arguments)
    assert (result.returncode, result.stdout) == (USAGE, "")
    first, second = result.stderr.splitlines()
    assert first.startswith(f"kpim: {complaint}")
    assert "not expected" not in complaint or first == f"kpim: {complaint}"
    assert second == f"Try '{helper} --help'."
    assert names(tmp_path) == []


@pytest.mark.parametrize("arguments, texts", [
    (["--help"], ["pack", "list", "verify", "unpack", "--version", "Exit status"]),
    (["-h"], ["pack", "list", "verify", "unpack", "--version", "Exit status"]),
    (["pack", "--help"], ["BUNDLE", "--output", "--no-sort", "--verify", "execute bits",
                          "  --exclude GLOB  ", "  --threads N  "]),
    (["list", "--help"], ["BLOB", "--json", "nameBytes"]),
    (["verify", "--help"], ["BLOB", "BUNDLE", "missing: PATH", "unreadable: PATH: WHY"]),
    (["diff", "--help"], ["LEFT", "RIGHT", "missing: PATH", "--json"]),
    (["unpack", "--help"], ["BLOB", "DIR", "PATH", "0664", "--json"]),
    (["latest", "--help"], ["--locale", "--ca-file"]),
])
def test_help(run, arguments, texts):
    result = run(*arguments)
    assert (result.returncode, result.stderr) == (OK, "")
    for text in texts:
        assert text in result.stdout


@pytest.mark.parametrize("command", [[], ["pack"], ["list"], ["verify"], ["diff"], ["unpack"],
                                     ["check"], ["latest"], ["help"]], ids=str)
def test_help_command(run, command):
    """It prints what --help prints."""
    result = run("help", *command)
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == run(*command, "--help").stdout


@pytest.mark.parametrize("arguments, status", [
    (["--help"], OK), (["--version"], OK), (["pack"], USAGE), (["pack", "missing"], FAILED),
    (["pack", "B"], OK), (["pack", "B", "--threads=2", "--verify"], OK),
    (["list", "small"], OK), (["list", "--json", "small"], OK), (["list", "damaged"], FAILED),
    (["verify", "small", "B"], OK), (["verify", "other", "B"], FAILED), (["verify", "damaged"], FAILED),
    (["unpack", "small", "out"], OK), (["unpack", "damaged", "out"], FAILED),
    (["unpack", "small", "B"], FAILED), (["unpack", "small", "out", "a", "--json"], OK),
    (["unpack", "small", "out", "b"], FAILED), (["diff", "small", "other", "--json"], FAILED),
    (["diff", "B", "small"], OK), (["verify", "-"], FAILED), (["help", "list"], OK),
])
def test_nothing_leaks(run, tmp_path, small_blob, arguments, status):
    make_bundle(tmp_path / "B", {"a": b"12345"})
    write_blob(tmp_path, [blob.stored_file("a", b"54321")], name="other")
    (tmp_path / "damaged").write_bytes(small_blob.read_bytes()[:-1])
    result = run.looking_for_leaks(*arguments)
    assert result.returncode == status, result
    assert "Sanitizer" not in result.stderr


def test_version(run):
    project = (REPOSITORY / "CMakeLists.txt").read_text()
    version = re.search(r"project\(KPInstallManager VERSION ([\d.]+)", project)[1]
    vendor = vendor_config.tested()
    result = run("--version")
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == (f"kpim {version}\ndownload server: {vendor.download_host}\n"
                             f"web site: {vendor.web_host}\nuninstaller: {vendor.uninstaller_url}\n")


PRINTING = [["--help"], ["--version"], ["pack", "--help"], ["list", "small"],
            ["list", "--json", "small"], ["verify", "small"], ["verify", "--json", "small"],
            ["diff", "small", "small"], ["unpack", "small", "out"], ["help", "list"]]


@pytest.mark.parametrize("arguments", PRINTING)
def test_full_disk_under_standard_output(run, small_blob, arguments):
    with open("/dev/full", "wb") as full:
        result = run(*arguments, stdout=full)
    assert result.returncode == FAILED
    assert result.stderr == error("standard output", "No space left on device")


def without_reader(run, *arguments):
    """Runs kpim with a pipe as standard output that no one reads."""
    reader, writer = os.pipe()
    os.close(reader)
    result = run(*arguments, stdout=writer)
    os.close(writer)
    return result


@pytest.mark.parametrize("arguments", PRINTING)
def test_closed_pipe(run, small_blob, arguments):
    """A closed pipe is not an error: the reader has read all that it needs."""
    result = without_reader(run, *arguments)
    assert (result.returncode, result.stderr) == (OK, "")


def test_closed_pipe_changes_no_verdict(run, tmp_path, small_blob):
    write_blob(tmp_path, [], name="other")
    result = without_reader(run, "diff", "small", "other")
    assert (result.returncode, result.stderr) == (FAILED, error("small", "1 difference from other"))


def test_reader_that_leaves_in_the_middle(run, tmp_path):
    entries = [blob.stored_file(f"{i:0200}", b"") for i in range(10_000)]
    (tmp_path / "long").write_bytes(blob.solid_root(entries, compress=False))
    for options in ([], ["--json"]):
        result = subprocess.run(["bash", "-c", '"$0" list long "$@" | head -n 1; echo "${PIPESTATUS[0]}"',
                                 run.program, *options], cwd=tmp_path, check=True, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=300)
        assert result.stdout in ("- /\n0\n", "[\n0\n")
        assert result.stderr == ""


def test_write_error_in_the_middle_of_long_output(run, tmp_path):
    entries = [blob.stored_file(f"{i:0200}", b"") for i in range(1000)]
    (tmp_path / "long").write_bytes(blob.solid_root(entries, compress=False))
    with open("/dev/full", "wb") as full:
        result = run("list", "long", stdout=full)
    assert result.returncode == FAILED
    assert result.stderr.startswith("kpim: standard output: ")


@pytest.mark.parametrize("arguments", PRINTING)
def test_closed_standard_output(run, small_blob, arguments):
    result = run(*arguments, stdout=None, preexec_fn=lambda: os.close(1))
    assert result.returncode == FAILED
    assert result.stderr == error("standard output", "Bad file descriptor")


def test_closed_standard_streams_do_not_end_up_in_the_blob(run, bundle):
    assert run("pack", bundle, "-o", "expected").returncode == OK
    result = run("pack", bundle, "-o", "blob", stdout=None, stderr=None,
                 preexec_fn=lambda: os.closerange(0, 3))
    assert result.returncode == FAILED
    assert (run.folder / "blob").read_bytes() == (run.folder / "expected").read_bytes()
