"""What is compared: our programs and their peers, all run in the same sandbox."""

import os
import shutil
import subprocess
import sys
import time

from trees import make_tree, same_tree

BUNDLE = "Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin"

# The settings of the payload writer, in each peer's own spelling. The payload has no filters for
# machine code, so 7zz gets none either.
SEVENZIP_METHOD = ["-t7z", "-mx=5", "-m0=lzma:d=64m:fb=32:lc=3:lp=0:pb=2", "-mf=off", "-ms=on"]
XZ_FILTER = "dict=64MiB,lc=3,lp=0,pb=2,mode=normal,nice=32,mf=bt4,depth=32"

PACKERS = ["kpim", "7zz", "xz"]
# With more than one thread: ours with all it can use, 7zz with what it takes by itself.
THREADED_PACKERS = ["kpim --threads 2", "7zz, its default", "xz -T2"]
EXTRACTORS = ["finalizer", "7zz", "xz | tar", "bsdtar"]
# Who made the archive that an extractor reads.
ARCHIVE_OF = {"finalizer": "kpim", "7zz": "7zz", "xz | tar": "xz", "bsdtar": "xz"}


def sandbox(work, programs, command):
    """The command in a root where only `work` can be written and no network is."""
    return [
        "bwrap", "--die-with-parent", "--unshare-net", "--tmpfs", "/",
        "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin",
        "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
        "--ro-bind", "/etc", "/etc", "--proc", "/proc", "--dev", "/dev",
        "--ro-bind", str(programs), str(programs),
        "--dir", "/tmp", "--bind", str(work), str(work),
        "--chdir", str(work), "--setenv", "HOME", "/tmp",
        # The install log is part of the work: it lies on the same file system.
        "--bind", str(work / "logs"), "/Library/Logs",
    ] + [str(word) for word in command]


def run(work, programs, command, shell=False):
    """Runs a command; returns wall seconds, CPU seconds and the largest process's peak KiB."""
    words = ["/bin/sh", "-c", command] if shell else command
    # The peak that wait4(2) reports starts at that of the forking process, so a small process forks.
    peak = work / "peak"
    timed = ["time", "--format=%M", f"--output={peak}", *words]
    start = time.perf_counter()
    process = subprocess.Popen(sandbox(work, programs, timed), stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    errors = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"{words}: status {process.returncode}: {errors.decode(errors='replace')}")
    return {"wall": wall, "cpu": usage.ru_utime + usage.ru_stime,
            "rss_kib": int(peak.read_text(encoding="utf-8"))}


class Case:
    """One tree with its blob and the peers' archives, all in the folder `parent`/`name`. Use it in
    a `with`, which removes them."""

    def __init__(self, name, programs, parent, wanted_bytes, wanted_files, largest):
        self.name = name
        self.programs = programs
        self.work = parent / name
        (self.work / "logs").mkdir(parents=True)
        self.tree = self.work / "tree"
        self.files, self.bytes = make_tree(self.tree, wanted_bytes, wanted_files, largest)
        self.archives = {
            "kpim": self.work / "tree.lzma", "7zz": self.work / "tree.7z",
            "xz": self.work / "tree.tar.lzma",
            "kpim --threads 2": self.work / "threads.lzma",
            "7zz, its default": self.work / "threads.7z", "xz -T2": self.work / "tree.tar.xz"}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.work)

    def run(self, command, shell=False):
        """As run(), in this case's folder."""
        return run(self.work, self.programs, command, shell)

    def pack(self, packer):
        """Makes the packer's archive anew and returns what that took."""
        archive = self.archives[packer]
        archive.unlink(missing_ok=True)
        if packer.startswith("kpim"):
            return self.run([self.programs / "kpim", "pack", self.tree, "-o", archive,
                             *packer.split()[1:]])
        if packer.startswith("7zz"):
            threads = ["-mmt=1"] if packer == "7zz" else []
            return self.run(["7zz", "a", *SEVENZIP_METHOD, *threads, archive, f"{self.tree}/."])
        tar = self.work / "tree.tar"
        if not tar.exists():
            subprocess.run(["tar", "-cf", tar, "-C", self.tree, "."], check=True)
        form = (f"--format=lzma -T1 --lzma1={XZ_FILTER}" if packer == "xz" else
                f"--format=xz -T2 --lzma2={XZ_FILTER}")
        return self.run(f"xz {form} -c tree.tar > {archive.name}", shell=True)

    def archive_size(self, packer):
        """Bytes of the packer's archive, which is made when it is missing."""
        if not self.archives[packer].exists():
            self.pack(packer)
        return self.archives[packer].stat().st_size

    def facts(self):
        """The tree's files and bytes, and the bytes of each archive of it."""
        return {"files": self.files, "bytes": self.bytes,
                "archives": {packer: self.archive_size(packer) for packer in PACKERS}}

    def extract(self, extractor):
        """Extracts into a new folder, compares it with the tree and returns what that took."""
        self.archive_size(ARCHIVE_OF[extractor])
        out = self.work / "out"
        shutil.rmtree(out, ignore_errors=True)
        out.mkdir()
        result = out
        if extractor == "finalizer":
            result = out / BUNDLE
            result.parent.mkdir(parents=True)
            shutil.copyfile(self.archives["kpim"], f"{result}.lzma")
        os.sync()
        measured = self._extract(extractor, out)
        if not same_tree(self.tree, result):
            sys.exit(f"{extractor} did not give the tree back")
        shutil.rmtree(out)
        return measured

    def _extract(self, extractor, out):
        if extractor == "finalizer":
            return self.run([self.programs / "finalizer", out])
        if extractor == "7zz":
            return self.run(["7zz", "x", "-y", f"-o{out}", self.archives["7zz"]])
        if extractor == "xz | tar":
            return self.run(f"xz -dc --format=lzma {self.archives['xz'].name} | "
                            "tar -x -f - -C out", shell=True)
        return self.run(["bsdtar", "-x", "-f", self.archives["xz"], "-C", out])


def rounds_of(contestants, count, function):
    """`count` rounds of every contestant in turn, after one that is not counted."""
    samples = {contestant: [] for contestant in contestants}
    for number in range(count + 1):
        order = contestants if number % 2 else list(reversed(contestants))
        for contestant in order:
            measured = function(contestant)
            if number:
                samples[contestant].append(measured)
    return samples
