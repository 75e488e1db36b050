"""Roots with Debian 12 in them, made by debootstrap.

cached_root() makes one and keeps it in CACHE. BareRoot is a private copy of the smallest, in which
commands run as on a machine that has just been installed.
"""

import fcntl
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

from install_root import write_file

CACHE = pathlib.Path(os.environ.get("KP_BOOTED_ROOT_CACHE", "/var/cache/kpinstallmanager"))
SUITE = "bookworm"
MIRROR = "http://deb.debian.org/debian"
MAKE_SECONDS = 3600

# Asks no user, starts no service, and leaves recommended packages out, so that a dependency that a
# package does not name is missing.
APT_SETTINGS = """APT::Get::Assume-Yes "true";
APT::Install-Recommends "false";
Acquire::Languages "none";
Acquire::https::CaInfo "/etc/apt/host.crt";
"""
HOST_AUTHORITIES = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")
NOTHING_IS_STARTED = "#!/bin/sh\nexit 101\n"
# The host's settings for reaching the mirror.
REACHING = re.compile(r'^Acquire::(?:Check-|http::|Retries).* "[^"]*";$', re.M)


class BareRoot:
    """A Debian with only debootstrap's minimum, in the new folder `folder`."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        subprocess.run(["cp", "-a", "--reflink=auto", cached_root("bare-root"), self.folder],
                       check=True)
        host = subprocess.run(["apt-config", "dump"], check=True, text=True,
                              stdout=subprocess.PIPE).stdout
        self.write("/etc/apt/apt.conf.d/90test",
                   APT_SETTINGS + "\n".join(REACHING.findall(host)) + "\n")
        # A mirror may need them, and the package ca-certificates is not installed.
        self.write("/etc/apt/host.crt", HOST_AUTHORITIES.read_bytes())
        self.write("/usr/sbin/policy-rc.d", NOTHING_IS_STARTED, 0o755)
        for name in ("/etc/hosts", "/etc/resolv.conf"):
            self.path(name).unlink(missing_ok=True)
            if os.path.exists(name):
                self.write(name, pathlib.Path(name).read_bytes())

    def path(self, inside):
        """The host's path of the absolute path `inside`."""
        return self.folder / str(inside).lstrip("/")

    def write(self, inside, content, mode=0o644):
        """Writes a file and its parents."""
        write_file(self.path(inside), content, mode)

    def sh(self, script, cwd="/", user=None, timeout=300):
        """The output of a bash script that must succeed, without blanks at its ends. It runs as
        root or as the user id `user`, with a network that reaches no other machine."""
        return self._run(["--unshare-net"], script, cwd, user, timeout)

    def sh_with_packages(self, script, cwd="/", timeout=3000):
        """Like sh(), as root, with the host's network, for apt-get. The files that it fetches are
        kept for the next root."""
        kept = []
        for name in ("/var/lib/apt/lists", "/var/cache/apt/archives"):
            folder = CACHE / "bare-root-apt" / pathlib.Path(name).name
            folder.mkdir(parents=True, exist_ok=True)
            kept += ["--bind", str(folder), name]
        # apt fails, instead of waiting, when another one works in these folders.
        with _locked("bare-root-apt.lock"):
            return self._run(kept, script, cwd, None, timeout)

    def _run(self, options, script, cwd, user, timeout):
        command = ["bwrap", "--unshare-pid", "--unshare-ipc", "--unshare-uts", "--die-with-parent",
                   "--new-session", "--cap-add", "ALL", "--bind", str(self.folder), "/",
                   "--proc", "/proc", "--dev", "/dev", *options, "--clearenv", "--chdir", cwd,
                   "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin", "--setenv", "HOME", "/root",
                   "--setenv", "DEBIAN_FRONTEND", "noninteractive"]
        for name, value in os.environ.items():
            if name.lower().endswith("_proxy"):
                command += ["--setenv", name, value]
        command += ["--"]
        if user is not None:
            command += ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", "--"]
        done = subprocess.run([*command, "bash", "-euc", script], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=timeout, umask=0o022, check=False)
        assert done.returncode == 0, (script, done.returncode, done.stdout[-2000:],
                                      done.stderr[-2000:])
        return done.stdout.strip()


def cached_root(name, packages=()):
    """The folder of a root with `packages` over the minimum, made when it is missing. A half-made
    one is never used."""
    assert shutil.which("debootstrap"), "debootstrap missing: run scripts/bootstrap.sh"
    made_of = hashlib.sha256(" ".join([SUITE, *sorted(packages)]).encode()).hexdigest()[:12]
    root = CACHE / f"{name}-{made_of}"
    with _locked("lock"):
        if root.is_dir():
            return root
        making = pathlib.Path(tempfile.mkdtemp(prefix="making-", dir=CACHE))
        try:
            include = [f"--include={','.join(packages)}"] if packages else []
            made = subprocess.run(
                ["debootstrap", "--force-check-gpg", "--variant=minbase", *include, SUITE, making,
                 _mirror()],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                timeout=MAKE_SECONDS, check=False)
            assert made.returncode == 0, made.stdout.decode(errors="replace")[-3000:]
            making.chmod(0o755)
            making.rename(root)
        finally:
            shutil.rmtree(making, ignore_errors=True)
    return root


def _locked(name):
    """Holds a lock of that name among all test runs of the machine, in a `with`."""
    CACHE.mkdir(parents=True, exist_ok=True)
    lock = open(CACHE / name, "w", encoding="utf-8")
    fcntl.flock(lock, fcntl.LOCK_EX)
    return lock


def _mirror():
    """Where the host's own packages come from, or Debian's own mirror."""
    for path in sorted(pathlib.Path("/etc/apt").rglob("*.list")):
        found = re.search(rf"^deb\s+(?:\[.*?\]\s*)?(https?://\S+)\s+{SUITE}\s.*\bmain\b",
                          path.read_text(), re.M)
        if found:
            return found.group(1)
    for path in sorted(pathlib.Path("/etc/apt").rglob("*.sources")):
        for paragraph in path.read_text().split("\n\n"):
            uri = re.search(r"^URIs:\s*(https?://\S+)", paragraph, re.M)
            suites = re.search(r"^Suites:(.*)$", paragraph, re.M)
            if uri and suites and SUITE in suites.group(1).split():
                return uri.group(1)
    return MIRROR
