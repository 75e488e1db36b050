"""A root of its own for the unmodified programs.

InstallRoot makes the folders of a Mac's root that the programs use (/Library, /Users,
/System/Library/CoreServices, /tmp, /Volumes) in a private folder, adds the host's /usr read-only,
and runs a program in there with bubblewrap: with its own mounts, process ids and a network that has
only loopback. Needs root: the programs change owner, mode and user id.
"""

import dataclasses
import json
import os
import pathlib
import re
import shutil
import signal
import stat
import subprocess
import tempfile
import uuid

import sanitizer
import vendor_config

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]

BUNDLE = "/Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin"
BLOB = BUNDLE + ".lzma"
SUPPORT = "/Library/Application Support/Velmora"
SETTINGS = SUPPORT + "/rks.cfg"
PREVIOUS_VERSION = SUPPORT + "/previous_version.txt"
INSTALL_VECTOR = SUPPORT + "/install_vector.txt"
EXPRESS_FLAG = "/tmp/KPExpressInstall.flag"
LOG = "Library/Logs/KorvelPlayerInstallManager.log"
SYSTEM_VERSION = "/System/Library/CoreServices/SystemVersion.plist"
VOLUME = "/Volumes/Target"

# Where the programs under test and their helpers appear inside.
PROGRAMS = "/opt/kpinstallmanager"
OPEN_CALLS = "/run/open/calls"
SANITIZER = "/run/sanitizer"
HOST_BIN = "/usr/bin.host"
PROFILES = "/run/profiles"

ROOT_HOME = "/var/root"
# Name: user id. All have a home in /Users and an entry in /etc/passwd.
USERS = {"alice": 1001, "bob": 1002}
GREETER = ("greeter", 112)
UNKNOWN_UID = 4242

LINE = re.compile(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4}) (.*)")


@dataclasses.dataclass
class Result:
    """The result of a program: its exit status (negative for a signal) and its output."""

    status: int
    stdout: str
    stderr: str


@dataclasses.dataclass(frozen=True)
class Node:
    """One item of a tree: `kind` is "file", "directory", "link" or "other"; `content` is a
    file's bytes or a link's target."""

    kind: str
    mode: int
    content: object = None


class InstallRoot:
    """A root below `folder` in which programs of the build folder `build` run.

    `console` is the user at the console, as for set_console(). Roots with the same `shared` folder,
    by default the one that holds `folder`, share what is the same in all of them. With has_open set
    to False there is no /usr/bin/open that can be executed. `vendor` holds the hosts that the
    programs were built with.
    """

    has_open = True

    def __init__(self, folder, build, console="alice", shared=None):
        self.folder = pathlib.Path(folder)
        self.build = pathlib.Path(build).resolve()
        self.vendor = vendor_config.read(self.build)
        self._host_bin = _bin_with_open(pathlib.Path(shared or self.folder.parent))
        self._pinned = []
        self._mounts = []
        self._lay_out()
        self.set_console(console)

    def within_memory(self, size):
        """The beginning of a command that limits the address space to `size` bytes. Empty for the
        sanitizer build: a sanitizer reserves more than any limit."""
        return [] if sanitizer.is_in(self.build) else ["prlimit", f"--as={size}"]

    def path(self, inside):
        """The host's path of the absolute path `inside`."""
        return self.folder / str(inside).lstrip("/")

    def write(self, inside, content, mode=None):
        """Writes a file and its parents, and returns the host's path."""
        return write_file(self.path(inside), content, mode)

    def mkdir(self, inside, mode=0o755):
        """Makes a directory and its parents, and returns the host's path."""
        path = self.path(inside)
        path.mkdir(parents=True, exist_ok=True)
        path.chmod(mode)
        return path

    def lay_blob(self, blob, install_root="/"):
        """Places the bytes or the file `blob` where a package would, below `install_root`."""
        content = blob if isinstance(blob, bytes) else pathlib.Path(blob).read_bytes()
        return self.write(install_root.rstrip("/") + BLOB, content)

    def pin(self, inside):
        """Makes an existing file or folder one that cannot be removed, not even by root."""
        self._pinned.append(inside)

    def mount(self, path, inside):
        """Shows the host's file or folder `path` as `inside`, read-only."""
        self._mounts += ["--ro-bind", str(path), inside]

    def empty(self, inside):
        """Shows the folder `inside` as empty, whatever the host has there. Later mounts may be in
        it."""
        self._mounts += ["--tmpfs", inside]

    def set_console(self, console):
        """Says who is at the console: a user's name, "loginwindow" for the login window,
        "unknown" for a user without a passwd entry, "closing" for alice, who is logging out, or
        None for no user."""
        shutil.rmtree(self.path("/run/systemd"), ignore_errors=True)
        for name in ("seats", "sessions", "users", "machines"):
            self.mkdir("/run/systemd/" + name)
        if console is None:
            self.write("/run/systemd/seats/seat0", _SEAT.format(active=""))
        elif console == "loginwindow":
            self._open_session("c1", *GREETER, "greeter")
        elif console == "unknown":
            self._open_session("7", str(UNKNOWN_UID), UNKNOWN_UID, "user")
        elif console == "closing":
            self._open_session("2", "alice", USERS["alice"], "user", state="closing")
        else:
            self._open_session("2", console, USERS[console], "user")

    def set_system_version(self, version):
        """Writes the system's version, for example "10.9.5"."""
        self.write(SYSTEM_VERSION, _SYSTEM_VERSION.format(version=version))

    def run(self, arguments=(), program="finalizer", **options):
        """Runs `program` of the build with `arguments`; options as for execute()."""
        return self.execute([f"{PROGRAMS}/{program}", *map(str, arguments)], **options)

    def execute(self, command, env=None, timeout=300, user=None, umask=0o022, cwd="/",
                check_leaks=False):
        """Runs any command inside and waits until it and the processes that it started have ended.

        `env` changes the environment, None as a value removes a name. `user` is the name of a user
        to run as, root otherwise. Raises subprocess.TimeoutExpired after `timeout` seconds, when
        everything inside has been killed, and SanitizerReport when a sanitizer reported a fault or,
        with `check_leaks`, a leak.
        """
        if user is not None:
            command = [*as_user(user), *command]
        read_end, write_end = os.pipe()
        sandbox = self._sandbox(env or {}, cwd, check_leaks) + ["--info-fd", str(write_end), "--"]
        with open(read_end, encoding="utf-8") as info, subprocess.Popen(
            sandbox + command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            pass_fds=[write_end],
            umask=umask,
        ) as process:
            os.close(write_end)
            try:
                stdout, stderr = process.communicate(timeout=timeout)
            except BaseException:
                # The end of the namespace's first process ends all others.
                os.kill(json.loads(info.read())["child-pid"], signal.SIGKILL)
                raise
        sanitizer.raise_reports(self.path(SANITIZER))
        return Result(process.returncode, stdout.decode(errors="replace"),
                      stderr.decode(errors="replace"))

    def log_path(self, home=None):
        """The host's path of the log of the user `home`, or of the one in /Library/Logs."""
        return self.path(f"/Users/{home}/{LOG}" if home else f"/{LOG}")

    def log(self, home=None):
        """The lines of a log without their time stamps. Fails on a line that has none."""
        text = self.log_path(home).read_text(encoding="utf-8")
        assert text.endswith("\n"), f"the log does not end with a newline: {text!r}"
        lines = []
        for line in text[:-1].split("\n"):
            match = LINE.fullmatch(line)
            assert match, f"not a time-stamped line: {line!r}"
            lines.append(match.group(2))
        return lines

    def tree(self, inside):
        """Everything below the directory `inside`: Nodes by relative path; "." is itself."""
        return tree_of(self.path(inside))

    def open_calls(self):
        """The arguments of each call of /usr/bin/open, in order."""
        calls = self.path(OPEN_CALLS).read_bytes().decode().split("\x1e")[:-1]
        return [call.split("\0")[:-1] for call in calls]

    def _lay_out(self):
        for directory in ("/etc", "/opt", PROFILES, SANITIZER, "/usr", "/var",
                          "/Library/Internet Plug-Ins/PepperKorvelPlayer", "/Library/Logs",
                          SUPPORT, VOLUME):
            self.mkdir(directory)
        for directory in ("/", ROOT_HOME):
            self.mkdir(directory, 0o755)
        for directory in ("/tmp", SANITIZER):
            self.mkdir(directory, 0o1777)
        self.write(OPEN_CALLS, b"", 0o666)
        for name, uid in USERS.items():
            for part in ("", "/Library", "/Library/Logs", "/Library/Preferences"):
                os.chown(self.mkdir(f"/Users/{name}{part}"), uid, uid)
        self.set_system_version("10.9.5")
        self._lay_out_etc()

    def _lay_out_etc(self):
        accounts = [("root", 0, ROOT_HOME), ("nobody", 65534, "/nonexistent"),
                    (*GREETER, "/nonexistent")]
        accounts += [(name, uid, f"/Users/{name}") for name, uid in USERS.items()]
        self.write("/etc/passwd", "".join(
            f"{name}:x:{uid}:{uid}::{home}:/bin/sh\n" for name, uid, home in accounts))
        self.write("/etc/group", "".join(f"{name}:x:{uid}:\n" for name, uid, _ in accounts))
        # No name service but these files: a name that is not in them resolves to nothing at once.
        self.write("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n")
        self.write("/etc/hosts", "127.0.0.1 localhost\n")
        self.write("/etc/machine-id", "0" * 31 + "1\n")

    def _open_session(self, session, name, uid, kind, state="active"):
        self.write("/run/systemd/seats/seat0", _SEAT.format(
            active=f"ACTIVE={session}\nACTIVE_UID={uid}\nSESSIONS={session}\nUIDS={uid}\n"))
        self.write(f"/run/systemd/sessions/{session}", _SESSION.format(
            session=session, name=name, uid=uid, kind=kind, state=state))
        self.write(f"/run/systemd/users/{uid}", _USER.format(
            session=session, name=name, uid=uid, state=state))

    def _sandbox(self, env, cwd, check_leaks):
        arguments = ["bwrap", "--unshare-net", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                     "--cap-add", "ALL", "--bind", str(self.folder), "/"]
        arguments += ["--proc", "/proc", "--dev", "/dev"]
        arguments += self._host_folders()
        arguments += ["--ro-bind", str(self.build / "bin"), PROGRAMS]
        arguments += ["--ro-bind", str(sanitizer.SUPPRESSIONS), SANITIZER + "/lsan.supp"]
        arguments += self._mounts
        if not self.has_open:
            arguments += ["--ro-bind", "/dev/null", "/usr/bin/open"]
        for inside in self._pinned:
            # A mount point cannot be removed (EBUSY).
            arguments += ["--bind", str(self.path(inside)), inside]
        variables = {
            "HOME": ROOT_HOME,
            "LANG": "C.UTF-8",
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "TZ": "UTC",
            **sanitizer.options(check_leaks, SANITIZER + "/lsan.supp", reports=SANITIZER),
        }
        profile = profile_of_this_run()
        if profile:
            # In a folder that every user inside can reach.
            folder, name = os.path.split(profile)
            variables["LLVM_PROFILE_FILE"] = f"{PROFILES}/{name}"
            arguments += ["--bind", folder, PROFILES]
        variables.update(env)
        arguments += ["--clearenv", "--chdir", cwd]
        for name, value in variables.items():
            if value is not None:
                arguments += ["--setenv", name, str(value)]
        return arguments

    def _host_folders(self):
        """bwrap's arguments for the host's programs and libraries, read-only.

        /usr is put together from its children, because /usr/bin must hold an "open", which most
        hosts lack and which cannot be added to a read-only folder: /usr/bin is a folder of links
        to the host's programs, with our own "open" among them.
        """
        arguments = ["--ro-bind", "/usr/bin", HOST_BIN, "--ro-bind", str(self._host_bin), "/usr/bin"]
        folders = [child for child in pathlib.Path("/usr").iterdir() if child.name != "bin"]
        folders += [pathlib.Path("/", name)
                    for name in ("bin", "sbin", "lib", "lib32", "lib64", "libx32")]
        folders += [pathlib.Path("/etc", name)
                    for name in ("alternatives", "GNUstep", "ld.so.cache", "ssl")]
        for path in folders:
            inside = self.path(path)
            if path.is_symlink():
                if not inside.is_symlink():
                    inside.symlink_to(os.readlink(path))
            elif path.exists():
                arguments += ["--ro-bind", str(path), str(path)]
        return arguments


def libcurl():
    """The host's path of libcurl."""
    # With several architectures, the machine's own is listed first.
    return next(os.path.realpath(line.split()[-1]) for line in
                subprocess.run(["/sbin/ldconfig", "-p"], check=True, text=True,
                               stdout=subprocess.PIPE).stdout.splitlines()
                if line.split()[0] == "libcurl.so.4")


def profile_of_this_run():
    """The value of LLVM_PROFILE_FILE for one run, or None if it is not set. Each run has files of
    its own: process ids in a namespace repeat, and another user's file cannot be extended."""
    profile = os.environ.get("LLVM_PROFILE_FILE")
    return profile and profile.replace("%p", f"%p-{uuid.uuid4().hex}")


def as_user(name):
    """The beginning of a command that runs as the user `name`."""
    uid = USERS[name]
    return ["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups", "--"]


def write_file(path, content, mode=None):
    """Writes bytes or text to the file at `path`, makes its parents, and returns the path."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content.encode() if isinstance(content, str) else content)
    if mode is not None:
        path.chmod(mode)
    return path


def tree_of(folder):
    """Everything below the host directory `folder`: Nodes by relative path; "." is itself."""
    # Relative to open folders, because a whole path may be longer than the system accepts.
    found = {}
    for parent, directories, files, parent_fd in os.fwalk(folder):
        found[os.path.relpath(parent, folder)] = _node(".", parent_fd)
        for name in directories + files:
            found[os.path.relpath(os.path.join(parent, name), folder)] = _node(name, parent_fd)
    return found


def _node(name, folder_fd):
    status = os.stat(name, dir_fd=folder_fd, follow_symlinks=False)
    mode = stat.S_IMODE(status.st_mode)
    if stat.S_ISLNK(status.st_mode):
        return Node("link", mode, os.readlink(name, dir_fd=folder_fd))
    if stat.S_ISDIR(status.st_mode):
        return Node("directory", mode)
    if stat.S_ISREG(status.st_mode):
        with open(name, "rb", opener=lambda path, flags: os.open(path, flags, dir_fd=folder_fd)) \
                as file:
            return Node("file", mode, file.read())
    return Node("other", mode)


def _bin_with_open(folder):
    """Makes the folder of links that becomes /usr/bin, once per `folder`."""
    host_bin = folder / "usr-bin"
    if host_bin.exists():
        return host_bin
    making = pathlib.Path(tempfile.mkdtemp(dir=folder))
    making.chmod(0o755)
    for name in os.listdir("/usr/bin"):
        os.symlink(f"{HOST_BIN}/{name}", making / name)
    recorder = making / "open"
    recorder.unlink(missing_ok=True)
    recorder.write_text(_OPEN)
    recorder.chmod(0o755)
    making.rename(host_bin)
    return host_bin


# Each argument ends with a NUL, each call with a record separator.
_OPEN = f"""#!/bin/sh
{{ for argument; do printf '%s\\0' "$argument"; done; printf '\\036'; }} >> {OPEN_CALLS}
"""

_SYSTEM_VERSION = """<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" \
"http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
\t<key>ProductName</key>
\t<string>Mac OS X</string>
\t<key>ProductVersion</key>
\t<string>{version}</string>
</dict>
</plist>
"""

# The files that logind of systemd 252 keeps for libsystemd's sd_seat_* and sd_session_* calls.
_SEAT = """# This is private data. Do not parse.
IS_SEAT0=1
CAN_MULTI_SESSION=1
CAN_TTY=1
CAN_GRAPHICAL=1
{active}"""

_SESSION = """# This is private data. Do not parse.
UID={uid}
USER={name}
ACTIVE=1
IS_DISPLAY=1
STATE={state}
REMOTE=0
TYPE=x11
ORIGINAL_TYPE=x11
CLASS={kind}
SCOPE=session-{session}.scope
FIFO=/run/systemd/sessions/{session}.ref
SEAT=seat0
DISPLAY=:0
SERVICE=gdm-password
DESKTOP=gnome
VTNR=2
LEADER=1
AUDIT=2
REALTIME=1800000000000000
MONOTONIC=1000000
"""

_USER = """# This is private data. Do not parse.
NAME={name}
STATE={state}
STOPPING=no
RUNTIME=/run/user/{uid}
DISPLAY={session}
REALTIME=1800000000000000
MONOTONIC=1000000
LAST_SESSION_TIMESTAMP=1000000
SESSIONS={session}
SEATS=seat0
ACTIVE_SESSIONS={session}
ONLINE_SESSIONS={session}
ACTIVE_SEATS=seat0
ONLINE_SEATS=seat0
"""
