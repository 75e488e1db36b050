#!/usr/bin/env python3
"""Compares extraction and packing with 7zz, xz with tar, and bsdtar.

Every contestant handles the same tree, in the same sandbox, in the same run, in turn;
what is reported is the median over the rounds and the median of the ratios of paired
runs. Nothing passes or fails here: the numbers are for people.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

MIB = 1 << 20
BUNDLE = "Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin"

# The settings of the payload writer, in each peer's own spelling.
SEVENZIP_METHOD = ["-t7z", "-mx=5", "-m0=lzma:d=64m:fb=32:lc=3:lp=0:pb=2", "-ms=on", "-mmt=1"]
XZ_FILTER = "--lzma1=dict=64MiB,lc=3,lp=0,pb=2,mode=normal,nice=32,mf=bt4,depth=32"

# Where real files are taken from.
SOURCES = ["/usr/lib", "/usr/share", "/usr/include"]


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
    start = time.perf_counter()
    process = subprocess.Popen(sandbox(work, programs, words), stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    errors = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"{words}: status {process.returncode}: {errors.decode(errors='replace')}")
    return {"wall": wall, "cpu": usage.ru_utime + usage.ru_stime, "rss_kib": usage.ru_maxrss}


def real_files(largest):
    """Regular files of the machine up to a size, in an order that does not change."""
    for source in SOURCES:
        for folder, folders, names in os.walk(source):
            folders.sort()
            for name in sorted(names):
                path = Path(folder, name)
                try:
                    if path.is_symlink() or not path.is_file():
                        continue
                    size = path.stat().st_size
                except OSError:
                    continue
                if 0 < size <= largest:
                    yield path, size


def make_tree(target, wanted_bytes, wanted_files, largest):
    """Copies real files until there are enough bytes and files; returns both counts.

    When the machine has too few, the same ones are taken again, each time with a line in
    front, so that no file is quite like another.
    """
    count = total = again = 0
    while count < wanted_files or total < wanted_bytes:
        before = count
        for path, size in real_files(largest):
            if count >= wanted_files and total >= wanted_bytes:
                break
            folder = target / "Contents" / f"part{count // 200:04}"
            if count % 200 == 0:
                folder.mkdir(parents=True, exist_ok=True)
            content = path.read_bytes()
            if again:
                content = b"copy %d\n" % again + content
            (folder / f"{count:06}-{path.name[:80]}").write_bytes(content)
            count += 1
            total += len(content)
        if count == before:
            sys.exit("no files to take")
        again += 1
    return count, total


def tree_size(path):
    return sum(file.stat().st_size for file in path.rglob("*") if file.is_file())


def same_tree(one, other):
    result = subprocess.run(["diff", "-rq", one, other], stdout=subprocess.PIPE)
    return result.returncode == 0


class Case:
    """One tree with its blob and the peers' archives, all in `work`."""

    def __init__(self, name, programs, parent, wanted_bytes, wanted_files, largest):
        self.name = name
        self.programs = programs
        self.work = parent / name
        (self.work / "logs").mkdir(parents=True)
        self.tree = self.work / "tree"
        self.files, self.bytes = make_tree(self.tree, wanted_bytes, wanted_files, largest)
        self.archives = {
            "kpim": self.work / "tree.lzma", "7zz": self.work / "tree.7z",
            "xz": self.work / "tree.tar.lzma"}
        subprocess.run(["tar", "-cf", self.work / "tree.tar", "-C", self.tree, "."], check=True)

    def run(self, command, shell=False):
        return run(self.work, self.programs, command, shell)

    def pack(self, contestant):
        archive = self.archives[contestant]
        archive.unlink(missing_ok=True)
        if contestant == "kpim":
            command = [self.programs / "kpim", "pack", self.tree, "-o", archive]
        elif contestant == "7zz":
            command = ["7zz", "a", *SEVENZIP_METHOD, archive, f"{self.tree}/."]
        else:
            return self.run(f"xz --format=lzma -T1 {XZ_FILTER} -c tree.tar > {archive.name}",
                            shell=True)
        return self.run(command)

    def extract(self, contestant):
        out = self.work / "out"
        shutil.rmtree(out, ignore_errors=True)
        out.mkdir()
        result = out
        if contestant == "finalizer":
            result = out / BUNDLE
            result.parent.mkdir(parents=True)
            shutil.copyfile(self.archives["kpim"], f"{result}.lzma")
            os.sync()
            measured = self.run([self.programs / "finalizer", out])
        else:
            os.sync()
            if contestant == "7zz":
                measured = self.run(["7zz", "x", "-y", f"-o{out}", self.archives["7zz"]])
            elif contestant == "xz | tar":
                measured = self.run(f"xz -dc --format=lzma {self.archives['xz'].name} | "
                               "tar -x -f - -C out", shell=True)
            else:
                measured = self.run(["bsdtar", "-x", "-f", self.archives["xz"], "-C", out])
        if not same_tree(self.tree, result):
            sys.exit(f"{contestant} did not give the tree back")
        return measured


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


def median(samples, key):
    return statistics.median(sample[key] for sample in samples)


def ratio(samples, ours, theirs, key):
    return statistics.median(
        mine[key] / other[key] for mine, other in zip(samples[ours], samples[theirs]))


def print_table(title, rows):
    print(f"\n{title}")
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  " + "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def spread(samples, key):
    values = [sample[key] for sample in samples]
    return f"{min(values):.2f}..{max(values):.2f}"


def measure_extraction(case, rounds):
    contestants = ["finalizer", "7zz", "xz | tar", "bsdtar"]
    samples = rounds_of(contestants, rounds, case.extract)
    rows = [["extraction", "wall s", "spread", "CPU s", "peak MiB", "our wall / its", "our CPU / its"]]
    for contestant in contestants:
        own = samples[contestant]
        rows.append([contestant, f"{median(own, 'wall'):.3f}", spread(own, "wall"),
                     f"{median(own, 'cpu'):.3f}", f"{median(own, 'rss_kib') / 1024:.1f}",
                     f"{ratio(samples, 'finalizer', contestant, 'wall'):.2f}",
                     f"{ratio(samples, 'finalizer', contestant, 'cpu'):.2f}"])
    print_table(f"{case.name}: {case.files} files, {case.bytes / MIB:.1f} MiB", rows)
    blob = case.archives["kpim"].stat().st_size
    allowed = (blob + 2 * case.bytes) / MIB + 24
    peak = median(samples["finalizer"], "rss_kib") / 1024
    print(f"  peak memory {peak:.1f} MiB of blob + 2 * content + 24 MiB = {allowed:.1f} MiB")
    return {name: own for name, own in samples.items()}


def measure_packing(case, rounds):
    contestants = ["kpim", "7zz", "xz"]
    samples = rounds_of(contestants, rounds, case.pack)
    rows = [["packing", "CPU s", "spread", "wall s", "bytes", "our CPU / its", "our bytes / its"]]
    blob = case.archives["kpim"].stat().st_size
    for contestant in contestants:
        own = samples[contestant]
        size = case.archives[contestant].stat().st_size
        rows.append([contestant, f"{median(own, 'cpu'):.2f}", spread(own, "cpu"),
                     f"{median(own, 'wall'):.2f}", str(size),
                     f"{ratio(samples, 'kpim', contestant, 'cpu'):.2f}", f"{blob / size:.4f}"])
    print_table(f"{case.name}: {case.files} files, {case.bytes / MIB:.1f} MiB", rows)
    return samples


def measure_growth(half, whole, rounds):
    samples = rounds_of([half, whole], rounds, lambda case: case.extract("finalizer"))
    factor = statistics.median(
        two["wall"] / one["wall"] for one, two in zip(samples[half], samples[whole]))
    content = whole.bytes / half.bytes
    print(f"\ngrowth: {content:.2f} times the content takes {factor:.2f} times as long")
    return {"content": content, "time": factor}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build"), help="build folder")
    parser.add_argument("--work", type=Path, help="folder to work in (default: memory, then TMPDIR)")
    parser.add_argument("--rounds", type=int, default=5, help="paired runs that count")
    parser.add_argument("--quick", action="store_true", help="small trees, three rounds")
    parser.add_argument("--only", choices=["extraction", "packing"], help="one half of it")
    parser.add_argument("--json", type=Path, help="write every sample here")
    options = parser.parse_args()
    if options.quick:
        options.rounds = 3

    programs = (options.build / "bin").resolve()
    for name in ("finalizer", "kpim"):
        if not (programs / name).exists():
            sys.exit(f"{programs / name} is missing: build it first")
    place = options.work or (Path("/dev/shm") if Path("/dev/shm").is_dir() else None)
    scale = 0.15 if options.quick else 1.0
    results = {}
    with tempfile.TemporaryDirectory(dir=place, prefix="kpbench-") as folder:
        parent = Path(folder)
        print(f"working in {parent} ({os.statvfs(parent).f_bavail * 4096 / MIB:.0f} MiB free), "
              f"{options.rounds} paired rounds, medians")
        large = Case("large", programs, parent, int(64 * MIB * scale), 1, 8 * MIB)
        half = Case("half", programs, parent, int(32 * MIB * scale), 1, 8 * MIB)
        small = Case("small", programs, parent, 1, int(20000 * scale), 4096)

        if options.only != "extraction":
            for case in (large, small):
                results[f"packing {case.name}"] = measure_packing(case, options.rounds)
            half.pack("kpim")
        else:
            for case in (large, small):
                for contestant in ("kpim", "7zz", "xz"):
                    case.pack(contestant)
            half.pack("kpim")

        if options.only != "packing":
            for case in (large, small):
                results[f"extraction {case.name}"] = measure_extraction(case, options.rounds)
            results["growth"] = measure_growth(half, large, options.rounds)
    if options.json:
        options.json.write_text(json.dumps(results, indent=1))


if __name__ == "__main__":
    main()
