"""The elevated launch in a booted system: real jobs of a real service manager, real polkit.

alice may submit jobs and run tools, carol may submit jobs only, bob may do nothing.
"""

import concurrent.futures
import contextlib
import itertools
import os
import re
import stat

import pytest

from booted_root import TEST_PROGRAMS, USERS, wait_until

DRIVER = TEST_PROGRAMS + "/elevated_launch_driver"
JOBS = "10.7"
DIRECT = "10.6"
ALLOWED = [None, "alice"]
AWKWARD = ["a b", " ", "", '"', "'", "%", "%%n", "%n %i", "$", "$$", "${HOME}", "$HOME", ";", "a;b", "&& x",
           "\\", "\\x41", "`id`", "line\nbreak", "tab\t", "*", "~", "-v", "--", "é", "日本 😀", "@", "+x", "!", ":"]

numbers = itertools.count(1)


LOOKS_IN_VAIN = pytest.mark.release_only("a launch looks for three seconds without a pause, as in another test")


class Tool:
    """A copy of the probe tool of its own, with a label of its own."""

    def __init__(self, booted, label=None):
        number = next(numbers)
        self.booted = booted
        self.label = f"com.example.job-{number}" if label is None else label
        self.env = {}
        self.path = f"/usr/local/lib/tools/probe-{number}"
        booted.write(self.path, booted.path(TEST_PROGRAMS + "/probe_tool").read_bytes(), 0o755)

    def launch(self, version, *arguments, user=None, output=True, path=None, cwd="/"):
        """Returns the result and the output as the driver prints them: None for nil, bytes for
        text, "none" if no output was asked for. pkexec writes to standard error why it refuses."""
        result = self.booted.run(
            [DRIVER, version, "output" if output else "no-output", self.label, path or self.path,
             *arguments], user=user, cwd=cwd, env=self.env)
        assert result.status == 0, result
        returned, kind, text = (result.stdout + b"\n").split(b"\n", 2)
        return returned == b"true", {b"text": text[:-1], b"nil": None, b"none": "none"}[kind]

    def ran(self):
        """(user id, arguments) of each run."""
        path = self.booted.path(self.path + ".ran")
        if not path.exists():
            return []
        runs = []
        for record in path.read_bytes().split(b"\0\n")[:-1]:
            user, *arguments = record.split(b"\0")
            runs.append((int(user), [each.decode() for each in arguments]))
        return runs

    def unit(self):
        name = self.booted.ask("systemd-escape", "--", self.label)
        return self.booted.unit(f"launch-job-{name}.service")

    def is_registered(self):
        return self.unit()["LoadState"] != "not-found"

    def is_running(self):
        # The brackets keep the pattern from matching pgrep's own command line.
        return self.booted.run(["pgrep", "-f", f"[/]{self.path[1:]}( |$)"]).status == 0


@pytest.fixture
def tool(booted):
    made = Tool(booted)
    yield made
    assert not made.is_running(), "left running"


def temporary_files(booted):
    return {path.name: path.lstat() for path in booted.path("/tmp").glob("tarvixsmuoutp*")}


@pytest.mark.parametrize("version", [JOBS, DIRECT])
@pytest.mark.parametrize("user", ALLOWED)
class TestEitherWay:
    """The behaviour that a job and direct execution have in common."""

    def test_two_lines_and_a_partial_third(self, tool, version, user):
        text = "one\ntwo é\nthree"
        assert tool.launch(version, "print", text, user=user) == (True, text.encode())
        assert tool.ran() == [(0, ["print", text])]
        assert not tool.is_registered()

    def test_one_second(self, tool, version, user):
        assert tool.launch(version, "print", "done", "1", user=user) == (True, b"done")
        assert not tool.is_running()

    def test_arguments_arrive_unchanged(self, tool, version, user):
        printed = "".join(each + "\n" for each in AWKWARD).encode()
        assert tool.launch(version, *AWKWARD, user=user) == (True, printed)
        assert tool.ran() == [(0, AWKWARD)]

    def test_no_arguments(self, tool, version, user):
        assert tool.launch(version, user=user) == (True, b"")
        assert tool.ran() == [(0, [])]

    def test_a_megabyte_of_output(self, tool, version, user):
        assert tool.launch(version, "flood", "1048576", user=user) == (
            True, (b"x" * 63 + b"\n") * 16384)

    def test_exit_status_and_standard_error_are_not_told(self, tool, version, user):
        result = tool.booted.run([DRIVER, version, "output", tool.label, tool.path, "fail", "3"],
                                 user=user)
        assert (result.status, result.stdout) == (0, b"true\ntext\n")
        # Run directly, the tool shares the caller's standard error; a job writes to the journal.
        assert result.stderr == (b"this is standard error\n" if version == DIRECT else b"")
        assert not tool.is_registered()

    def test_missing_tool(self, tool, version, user):
        missing = "/no/such/tool"
        expected = (False, None if version == JOBS else b"")
        assert tool.launch(version, "x", user=user, path=missing) == expected
        assert tool.launch(version, user=user, path=missing, output=False) == (False, "none")
        assert not tool.is_registered()

    def test_relative_path(self, tool, version, user):
        folder, name = tool.path.rsplit("/", 1)
        assert tool.launch(version, "print", "x", user=user, path="./" + name, cwd=folder) == (
            True, b"x")
        assert tool.ran() == [(0, ["print", "x"])]

    def test_link(self, tool, version, user):
        link = tool.booted.path(tool.path + ".link")
        link.symlink_to(tool.path)
        assert tool.launch(version, "print", "x", user=user, path=tool.path + ".link") == (
            True, b"x")


@pytest.mark.parametrize("version, user", [pytest.param(JOBS, None, marks=LOOKS_IN_VAIN), (JOBS, "alice"),
                                           (DIRECT, None), (DIRECT, "alice")])
def test_tool_that_is_no_program(tool, version, user):
    tool.booted.path(tool.path).chmod(0o644)
    expected = (False, None if version == JOBS else b"")
    assert tool.launch(version, "print", "x", user=user) == expected
    assert tool.ran() == []


@pytest.mark.parametrize("version", [JOBS, DIRECT])
def test_refused_user_runs_nothing(tool, version):
    before = temporary_files(tool.booted)
    assert tool.launch(version, "print", "x", user="bob") == (False, b"untouched")
    assert tool.launch(version, "print", "x", user="bob", output=False) == (False, "none")
    assert tool.ran() == []
    assert not tool.is_registered()
    assert temporary_files(tool.booted) == before


def test_refused_direct_execution_runs_nothing(tool):
    assert tool.launch(DIRECT, "print", "x", user="carol") == (False, b"")
    assert tool.ran() == []
    assert tool.launch(JOBS, "print", "x", user="carol") == (True, b"x")


@LOOKS_IN_VAIN
@pytest.mark.parametrize("user", ALLOWED)
def test_job_that_is_quicker_than_the_look(tool, user):
    returned, output = tool.launch(JOBS, "print", "quick", "0", user=user)
    assert tool.ran() == [(0, ["print", "quick", "0"])]
    # The launch fails if it did not see the tool, though the tool has run.
    assert (returned, output) in [(True, b"quick"), (False, None)]
    assert tool.is_registered() == (not returned)
    # The rest of that job does not prevent the next.
    assert tool.launch(JOBS, "print", "again", user=user) == (True, b"again")
    assert not tool.is_registered()


@LOOKS_IN_VAIN
def test_script_is_not_found_as_a_job_though_it_runs(tool):
    user = "alice"
    script = tool.path + "-script"
    tool.booted.write(script, f"#!/bin/sh\n{tool.path} print x 0\nsleep 5\n", 0o755)
    assert tool.launch(JOBS, user=user, path=script) == (False, None)
    assert tool.ran() == [(0, ["print", "x", "0"])]
    assert tool.is_registered()
    assert tool.launch(JOBS, "print", "y", user=user) == (True, b"y")


@pytest.mark.parametrize("user", ALLOWED)
def test_without_output_the_job_stays_registered(tool, user):
    assert tool.launch(JOBS, "print", "x", "0", user=user, output=False) == (True, "none")
    wait_until(lambda: tool.unit()["SubState"] == "exited")
    first = tool.unit()
    assert (first["ActiveState"], first["SubState"]) == ("active", "exited")
    assert tool.launch(JOBS, "print", "y", "0", user=user, output=False) == (True, "none")
    assert tool.unit()["InvocationID"] != first["InvocationID"]
    # The job is accepted when the call returns, but may not have begun.
    wait_until(lambda: len(tool.ran()) == 2)
    assert tool.ran() == [(0, ["print", "x", "0"]), (0, ["print", "y", "0"])]


@pytest.mark.parametrize("user", ALLOWED)
def test_running_job_of_the_label_is_ended(tool, user):
    assert tool.launch(JOBS, "stay", "/never", user=user, output=False) == (True, "none")
    await_run(tool)
    other = Tool(tool.booted, tool.label)
    assert other.launch(JOBS, "print", "x", user=user) == (True, b"x")
    assert not tool.is_running()


def test_jobs_that_failed_do_not_stand_in_the_way(tool):
    for _ in range(2):
        assert tool.launch(JOBS, "fail", "1", output=False) == (True, "none")
        wait_until(lambda: tool.unit()["ActiveState"] == "failed")
        assert tool.unit()["ExecMainStatus"] == "1"
    assert len(tool.ran()) == 2


@pytest.mark.parametrize("label", ["com.example/a-b", ".hidden", "é %n $HOME", "x" * 236, "a\\b@c"])
def test_any_label_names_one_unit(booted, label):
    tool = Tool(booted, label)
    assert tool.launch(JOBS, "print", "x", "0", output=False) == (True, "none")
    assert tool.is_registered()
    assert tool.launch(JOBS, "print", "y") == (True, b"y")
    assert not tool.is_registered()


@pytest.mark.parametrize("label", ["", "x" * 237, "é" * 100])
def test_labels_that_name_no_unit_are_refused(booted, label):
    tool = Tool(booted, label)
    assert tool.launch(JOBS, "print", "x") == (False, None)
    assert tool.ran() == []


@pytest.mark.parametrize("user", ALLOWED)
def test_output_file_is_the_callers_own_and_stays(tool, user):
    before = temporary_files(tool.booted)
    assert tool.launch(JOBS, "print", "secret", user=user) == (True, b"secret")
    new = {name: status for name, status in temporary_files(tool.booted).items()
           if name not in before}
    ((name, status),) = new.items()
    assert re.fullmatch("tarvixsmuoutp[A-Za-z0-9]{6}", name)
    assert stat.S_IMODE(status.st_mode) == 0o600 and stat.S_ISREG(status.st_mode)
    assert status.st_uid == USERS.get(user, 0)
    assert tool.booted.path("/tmp/" + name).read_bytes() == b"secret"


def test_direct_execution_keeps_no_file_and_no_job(tool):
    before = temporary_files(tool.booted)
    assert tool.launch(DIRECT, "print", "x") == (True, b"x")
    assert temporary_files(tool.booted) == before
    assert not tool.is_registered()


def test_over_long_line_is_the_last_one_of_direct_execution(tool):
    assert tool.launch(DIRECT, "print", "a\n" + "x" * 5000 + "\nb\n") == (
        True, b"a\n" + b"x" * 4096)


def test_unset_version_is_the_systems_own(tool):
    tool.booted.write("/System/Library/CoreServices/SystemVersion.plist", """<?xml version="1.0"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>ProductVersion</key><string>10.9.5</string></dict></plist>
""")
    assert tool.launch("-", "print", "x", output=False) == (True, "none")
    assert tool.is_registered()
    await_run(tool)
    wait_until(lambda: not tool.is_running())


# ---- What other processes do while the tool runs


@contextlib.contextmanager
def other_processes(booted):
    """systemd's generators, a dozen processes and more, again and again, and 200 processes of bob's."""
    for _ in range(5):
        booted.ask("systemctl", "daemon-reload")
    pids = booted.ask("runuser", "-u", "bob", "--", "sh", "-c",
                      "for i in $(seq 200); do sleep 60 > /dev/null 2>&1 & echo $!; done")
    try:
        yield
    finally:
        booted.ask("kill", *pids.split())


@pytest.mark.release_only("it waits for other processes; the other tests make the same calls")
@pytest.mark.parametrize("meanwhile, children, user", [
    (contextlib.nullcontext, 15, None), (other_processes, 0, "alice")])
def test_younger_processes_do_not_end_the_wait(tool, user, meanwhile, children):
    gate = tool.path + ".gate"
    with concurrent.futures.ThreadPoolExecutor() as executor:
        launched = executor.submit(tool.launch, JOBS, "between", gate, str(children), user=user)
        try:
            await_run(tool)
            with meanwhile(tool.booted):
                # A launch that does not see the tool gives up within 3 seconds.
                concurrent.futures.wait([launched], timeout=4)
                assert not launched.done()
        finally:
            tool.booted.write(gate, "")
        assert launched.result() == (True, b"first\nlast\n")


@pytest.mark.release_only("it waits for other processes; the other tests make the same calls")
def test_what_another_user_mounts_over_the_tool_does_not_pass_for_it(tool):
    # Root sees what any process runs. On a slow machine the launch may be given up before the impostor
    # is there.
    assert any(impostor_runs_meanwhile(tool, f"{tool.path}-script-{number}") for number in range(10))
    # The next launch removes the rest of the job.
    assert tool.launch(JOBS, "print", "y") == (True, b"y")


@pytest.mark.parametrize("version, user", [(JOBS, None), (JOBS, "alice"), (DIRECT, None)])
def test_no_signal_is_ignored(tool, version, user):
    assert tool.launch(version, "signals", user=user) == (True, b"SigIgn:\t0000000000000000\n")


@pytest.mark.parametrize("version", [JOBS, DIRECT])
@pytest.mark.parametrize("user", ALLOWED)
def test_variables_of_the_caller_do_not_reach_the_tool(tool, version, user):
    tool.env = {"OPENSSL_CONF": "/nonexistent", "SSLKEYLOGFILE": "/nonexistent"}
    returned, variables = tool.launch(version, "variables", user=user)
    assert returned and b"PATH=" in variables
    assert b"OPENSSL_CONF" not in variables and b"SSLKEYLOGFILE" not in variables


def impostor_runs_meanwhile(tool, script):
    """Launches `script`, which the launch never sees, since its interpreter runs. bob mounts an
    impostor over it, which could be seen. Returns whether that ran before the launch was given
    up."""
    tool.booted.write(script, f"#!/bin/sh\n{tool.path} print x 0\nexec sleep 20\n", 0o755)
    runs = len(tool.ran())
    with concurrent.futures.ThreadPoolExecutor() as executor:
        launched = executor.submit(tool.launch, JOBS, path=script)
        await_run(tool, runs + 1)
        impostor = executor.submit(
            tool.booted.run, ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                              f"mount --bind /bin/sleep {script} && exec {script} 4"], user="bob")
        wait_until(lambda: impostor.done() or is_executed(tool.booted, script))
        is_in_time = not launched.done()
        assert launched.result() == (False, None)
        assert impostor.result().status == 0
    return is_in_time


def await_run(tool, times=1):
    """Waits until the tool has run `times` times."""
    wait_until(lambda: len(tool.ran()) >= times)
    assert len(tool.ran()) >= times


def is_executed(booted, path):
    """Whether a process runs a file whose path is `path` in its own mount namespace."""
    for process in booted.path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "exe") == path:
                return True
        except OSError:
            pass  # It has ended, or is a kernel thread.
    return False
