"""A Debian system that is really booted, for tests that need a service manager.

BootedRoot boots a root made by debootstrap with systemd-nspawn, with its own processes and network
and a writable layer that is discarded afterwards. The root itself is made once and kept.
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import uuid

import sanitizer
from debian_root import cached_root
from install_root import LINE, Result, SANITIZER, profile_of_this_run, write_file

# The service manager, polkit, and the libraries of our programs.
PACKAGES = ["ca-certificates", "dbus", "gnustep-base-runtime", "libcurl4", "libgnustep-base1.28",
            "libobjc4", "libpam-systemd", "libsystemd0", "pkexec", "polkitd", "procps", "systemd",
            "systemd-sysv"]
NEEDED = ["nsenter", "setpriv", "systemd-nspawn"]

# Where the build folder appears inside.
BUILD = "/opt/build"
PROGRAMS = BUILD + "/bin"
TEST_PROGRAMS = BUILD + "/tests/programs"

# alice may submit jobs and run tools, carol may submit jobs only, bob may do neither.
USERS = {"alice": 1001, "bob": 1002, "carol": 1003}
RULES = """polkit.addRule(function(action, subject) {
  var jobs = action.id == "org.freedesktop.systemd1.manage-units";
  var tools = action.id == "org.freedesktop.policykit.exec";
  if (subject.user == "alice" && (jobs || tools) || subject.user == "carol" && jobs) {
    return polkit.Result.YES;
  }
});
"""

BOOT_SECONDS = 450
# The errors of nspawn where it may not make namespaces, mounts or control groups, or where control
# groups are missing, as in most containers. Errors in the root itself have other words.
FORBIDDEN = re.compile(
    r"(clone\(\) failed|Failed to mount .*|Failed to create .*subcgroup): (Operation not permitted|"
    "Permission denied|Read-only file system|Function not implemented)|"
    "Failed to determine whether the unified cgroups hierarchy is used: .*")


class CannotBoot(Exception):
    """This machine does not allow systemd-nspawn."""


class BootedRoot:
    """A booted system with the programs of the build folder `build` in it. Use it in a `with`."""

    def __init__(self, build, console):
        self.build = pathlib.Path(build).resolve()
        self._console = pathlib.Path(console)
        self._nspawn = None
        self.leader = None

    def __enter__(self):
        missing = [name for name in NEEDED if shutil.which(name) is None]
        assert not missing, f"{missing} missing: run scripts/bootstrap.sh"
        root = cached_root("booted-root", PACKAGES)
        command = ["systemd-nspawn", "--quiet", "--boot", f"--directory={root}",
                   "--volatile=overlay", "--private-network", "--register=no", "--keep-unit",
                   "--console=pipe", f"--machine=kp-{uuid.uuid4().hex[:8]}",
                   f"--bind-ro={self.build}:{BUILD}"]
        profile = os.environ.get("LLVM_PROFILE_FILE")
        if profile:
            folder = os.path.dirname(profile)
            command.append(f"--bind={folder}:{folder}")
        with open(self._console, "wb") as console:
            self._nspawn = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=console,
                                            stderr=subprocess.STDOUT)
        try:
            self._await_boot()
            self._add_users()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        # The end of the namespace's first process ends all others, and nspawn then cleans up.
        if self.leader is not None and self._nspawn.poll() is None:
            os.kill(self.leader, signal.SIGKILL)
        else:
            self._nspawn.terminate()
        try:
            self._nspawn.wait(30)
        except subprocess.TimeoutExpired:
            self._nspawn.kill()
            self._nspawn.wait()

    def path(self, inside):
        """The host's path of the absolute path `inside`. None of its components may be an absolute
        link, which would lead to the host's files."""
        return pathlib.Path(f"/proc/{self.leader}/root", str(inside).lstrip("/"))

    def write(self, inside, content, mode=0o644):
        """Writes a file and its parents."""
        return write_file(self.path(inside), content, mode)

    def run(self, command, user=None, timeout=300, cwd="/", env=None):
        """Runs a command inside and returns its Result, with its output as bytes. Raises
        SanitizerReport when a sanitizer reported a fault. After `timeout` seconds the command is
        killed."""
        variables = {
            "LANG": "C.UTF-8",
            "HOME": f"/Users/{user}" if user else "/root",
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "TZ": "UTC",
            **sanitizer.options(reports=SANITIZER),
        }
        profile = profile_of_this_run()
        if profile:
            variables["LLVM_PROFILE_FILE"] = profile
        variables.update(env or {})
        prefix = ["nsenter", f"--target={self.leader}", "--mount", "--uts", "--ipc", "--net", "--pid",
                  "env", "-i", "-C", cwd, *(f"{n}={v}" for n, v in variables.items())]
        if user:
            prefix += ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", "--"]
        # The command inside would go on after nsenter has been killed.
        prefix += ["timeout", "--kill-after=5", str(timeout)]
        done = subprocess.run(prefix + [str(each) for each in command], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout + 10,
                              check=False)
        sanitizer.raise_reports(self.path(SANITIZER))
        return Result(done.returncode, done.stdout, done.stderr)

    def ask(self, *command):
        """The output of a command that must succeed, as text without blanks at its ends."""
        result = self.run(command)
        assert result.status == 0, (command, result)
        return result.stdout.decode().strip()

    def unit(self, name):
        """Properties of a unit, as systemd reports them."""
        lines = self.ask("systemctl", "show", name, "--property=LoadState,ActiveState,SubState,"
                         "MainPID,InvocationID,Result,ExecMainStatus").splitlines()
        return dict(line.split("=", 1) for line in lines)

    def log(self, inside):
        """The lines of a log without their time stamps."""
        lines = self.path(inside).read_text(encoding="utf-8").splitlines()
        return [LINE.fullmatch(line).group(2) for line in lines]

    def _await_boot(self):
        end = time.monotonic() + BOOT_SECONDS
        while time.monotonic() < end:
            if self._nspawn.poll() is not None:
                said = self._console.read_text(errors="replace").strip()
                forbidden = [line for line in said.splitlines() if FORBIDDEN.fullmatch(line.strip())]
                if forbidden:
                    raise CannotBoot(forbidden[-1])
                raise AssertionError(f"systemd-nspawn ended with {self._nspawn.returncode}: {said}")
            self.leader = self.leader or _first_process_of(self._nspawn.pid)
            if self.leader is not None and self._is_up():
                return
            time.sleep(0.1)
        raise AssertionError("not booted in time: "
                             + self._console.read_text(errors="replace")[-2000:])

    def _is_up(self):
        try:
            state = self.run(["systemctl", "is-system-running"], timeout=100).stdout.strip()
        except FileNotFoundError:
            return False
        return state in (b"running", b"degraded")

    def _add_users(self):
        self.path(SANITIZER).mkdir(exist_ok=True)
        self.path(SANITIZER).chmod(0o1777)
        self.path("/Users").mkdir()
        for name, uid in USERS.items():
            self.ask("useradd", "--create-home", f"--home-dir=/Users/{name}", f"--uid={uid}", name)
        self.write("/etc/polkit-1/rules.d/10-test.rules", RULES)
        # polkit looks into the folder when it starts.
        self.ask("systemctl", "restart", "polkit")


def wait_until(condition):
    """Calls `condition` until it is true, for a minute at most. The caller asserts the result."""
    for _ in range(600):
        if condition():
            return
        time.sleep(0.1)


def _first_process_of(nspawn):
    """The host's id of the process with id 1 in nspawn's namespace, or None."""
    for status in pathlib.Path("/proc").glob("[0-9]*/status"):
        try:
            text = status.read_text()
        except (FileNotFoundError, ProcessLookupError):
            continue
        parent = re.search(r"^PPid:\s+(\d+)$", text, re.M)
        inside = re.search(r"^NSpid:\s+(\d+)\s+1$", text, re.M)
        if parent and inside and int(parent.group(1)) == nspawn:
            return int(inside.group(1))
    return None
