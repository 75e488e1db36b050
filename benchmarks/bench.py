#!/usr/bin/python3
"""Measures packing, extraction, their growth, what a run costs at least, and settings files.

Every contestant handles the same tree, in the same sandbox, in the same run, in turn; what is
reported is the median over the rounds and the median of the ratios of paired runs. The end of the report
lists which goals were met. Nothing passes or fails here: the numbers are for people.
"""

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
from pathlib import Path

from plot import plot
from report import between_markers, ratios_of
from sections import EMPTY_PROGRAMS, MEASURES, MIB, Bench

REPOSITORY = Path(__file__).resolve().parents[1]
DOCUMENT = REPOSITORY / "docs/performance.md"
REPORT = REPOSITORY / "docs/performance-report.txt"
PLOT = REPOSITORY / "docs/performance-growth.svg"

MEMORY_FILES = Path("/dev/shm")
# The largest tree, its tar file, the archives, one extraction, and the memory of what is measured.
NEEDED = 3500 * MIB
NEEDED_QUICKLY = 1000 * MIB

QUICK_ROUNDS = 3
QUICK_SCALE = 0.05

PEERS = {"7zz": ["7zz"], "xz": ["xz", "--version"], "bsdtar": ["bsdtar", "--version"],
         "tar": ["tar", "--version"]}


def output_of(*command):
    """The first line that is not empty; empty when the program is missing."""
    try:
        done = subprocess.run(command, check=False, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
    except FileNotFoundError:
        return ""
    return next((line.strip() for line in done.stdout.splitlines() if line.strip()), "")


def machine():
    """What the numbers were measured on."""
    model = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    return {
        "processor": model.group(1) if model else platform.machine(),
        "cores": os.cpu_count(),
        "memory MiB": memory_of("MemTotal") // MIB,
        "kernel": platform.release(),
        "commit": output_of("git", "-C", REPOSITORY, "describe", "--always", "--dirty",
                            "--exclude=*"),
        **{peer: output_of(*command) for peer, command in PEERS.items()},
    }


def versions(facts):
    """The peers with the numbers of their versions."""
    numbers = {peer: re.search(r"\d+(\.\d+)+", facts[peer]) for peer in PEERS}
    return ", ".join(f"{peer} {number.group() if number else 'of unknown version'}"
                     for peer, number in numbers.items())


def heading(facts, conditions):
    """What the report begins with."""
    lines = [f"{facts['processor']}, {facts['cores']} cores, Linux {facts['kernel']}, commit "
             f"{facts['commit']}", versions(facts),
             f"in {conditions['place']}, {conditions['rounds']} paired rounds, medians"]
    if conditions["quick"]:
        lines.append("a quick run: its trees are too small to judge by")
    return "\n".join(lines)


def memory_of(field):
    """Bytes that /proc/meminfo has in this field."""
    text = Path("/proc/meminfo").read_text(encoding="utf-8")
    return int(re.search(rf"^{field}:\s*(\d+) kB$", text, re.MULTILINE).group(1)) * 1024


def free_in(folder):
    """Bytes that files in the folder can take."""
    status = os.statvfs(folder)
    return status.f_bavail * status.f_frsize


def working_place(wanted, needed):
    """The folder to work in: the wanted one, or memory where it is large enough, or TMPDIR."""
    if wanted is None and MEMORY_FILES.is_dir():
        free = min(free_in(MEMORY_FILES), memory_of("MemAvailable"))
        if free >= needed:
            return MEMORY_FILES
        print(f"{MEMORY_FILES}: {free / MIB:.0f} MiB free of the {needed / MIB:.0f} needed; working "
              f"in {tempfile.gettempdir()}", flush=True)
    place = wanted or Path(tempfile.gettempdir())
    if free_in(place) < needed:
        sys.exit(f"{place}: {free_in(place) / MIB:.0f} MiB free of the {needed / MIB:.0f} needed")
    return place


def write_json(path, facts, conditions, bench):
    """Keeps what has been measured so far, with every sample."""
    path.write_text(json.dumps({
        "machine": facts, "run": conditions, "goals": [goal._asdict() for goal in bench.goals],
        "samples": bench.samples}, indent=1), encoding="utf-8")


def write_documents(bench):
    """Writes the report, the plot, and the table of ratios where the documentation shows them."""
    report = "\n\n".join(bench.texts) + "\n"
    REPORT.write_text(report, encoding="utf-8")
    DOCUMENT.write_text(between_markers(DOCUMENT.read_text(encoding="utf-8"), ratios_of(report)),
                        encoding="utf-8")
    PLOT.write_text(plot(bench.curves.values()), encoding="utf-8")


def parse_options(arguments=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/bench"), help="build folder")
    parser.add_argument("--work", type=Path, help="folder to work in (default: memory, then TMPDIR)")
    parser.add_argument("--rounds", type=int, default=5, help="paired runs that count")
    parser.add_argument("--quick", action="store_true",
                        help=f"small trees, {QUICK_ROUNDS} rounds")
    parser.add_argument("--only", choices=list(MEASURES), action="append",
                        help="this section; may be given more than once")
    parser.add_argument("--json", type=Path, help="write every sample here")
    parser.add_argument("--write-docs", action="store_true",
                        help="write report, ratios and plot into docs/ (not with --only or "
                        "--quick)")
    options = parser.parse_args(arguments)
    if options.rounds < 1:
        parser.error("--rounds needs at least one")
    if options.write_docs and (options.only or options.quick):
        parser.error("--write-docs needs every section, and whole trees")
    # Not after half an hour.
    if options.json and not options.json.resolve().parent.is_dir():
        parser.error(f"{options.json}: no such folder")
    return options


def main():
    options = parse_options()
    programs = ["bin/finalizer", "bin/kpim", "benchmarks/settings_bench",
                *(f"benchmarks/{name}" for name in EMPTY_PROGRAMS)]
    for name in programs:
        if not (options.build / name).exists():
            sys.exit(f"{options.build / name} is missing: scripts/bench.sh builds it")
    place = working_place(options.work, NEEDED_QUICKLY if options.quick else NEEDED)
    conditions = {
        "began": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
        "place": "memory" if place == MEMORY_FILES else str(place), "quick": options.quick,
        "rounds": QUICK_ROUNDS if options.quick else options.rounds}
    facts = machine()
    with tempfile.TemporaryDirectory(dir=place, prefix="kpbench-") as folder:
        bench = Bench(options.build, Path(folder), conditions["rounds"],
                      QUICK_SCALE if options.quick else 1.0)
        bench.add(heading(facts, conditions))
        for section in options.only or MEASURES:
            MEASURES[section](bench)
            if options.json:
                write_json(options.json, facts, conditions, bench)
    bench.add("\n".join(["goals", *(f"  {goal}" for goal in bench.goals)]))
    if options.write_docs:
        write_documents(bench)


if __name__ == "__main__":
    main()
