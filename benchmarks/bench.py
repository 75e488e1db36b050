#!/usr/bin/env python3
"""Measures packing, extraction, their growth, what a run costs at least, and settings files.

Every contestant handles the same tree, in the same sandbox, in the same run, in turn; what is
reported is the median over the rounds and the median of the ratios of paired runs. At the end stands
which goals were met. Nothing passes or fails here: the numbers are for people.
"""

import argparse
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
from pathlib import Path

from contestants import EXTRACTORS, PACKERS, Case, rounds_of, run
from report import (between_markers, exponent, median, plot, ratio, spread, table, verdict)

REPOSITORY = Path(__file__).resolve().parents[1]
DOCUMENT = REPOSITORY / "docs/performance.md"
PLOT = REPOSITORY / "docs/performance-growth.svg"

MIB = 1 << 20
# What a run may take beyond the blob and twice its content.
MEMORY_ALLOWANCE = 24 * MIB
GREATEST_RATIO = 1.0
GREATEST_EXPONENT = 1.05

LARGE_FILE = 8 * MIB
SMALL_FILE = 4096
TINY_FILE = 1024

SECTIONS = ["packing", "extraction", "size", "files", "fixed", "settings"]


class Bench:
    """A run: what it measures by, what it has measured, and what it says."""

    def __init__(self, options, parent):
        self.programs = (options.build / "bin").resolve()
        self.tests = options.build
        self.parent = parent
        self.rounds = 3 if options.quick else options.rounds
        self.scale = 0.1 if options.quick else 1.0
        self.texts = []
        self.goals = []
        self.samples = {}
        self.curves = {}

    def case(self, name, wanted_bytes, wanted_files, largest):
        """A tree of that size, or a part of it in a quick run."""
        return Case(name, self.programs, self.parent, int(wanted_bytes * self.scale),
                    max(int(wanted_files * self.scale), 1),
                    int(largest * self.scale) if largest > MIB else largest)

    def tell(self, text):
        """Prints a part of the report and keeps it."""
        self.texts.append(text)
        print(f"\n{text}", flush=True)


def large(bench):
    """Some 1,400 files of up to 8 MiB."""
    return bench.case("large", 64 * MIB, 1, LARGE_FILE)


def small(bench):
    """20,000 files of up to 4 KiB."""
    return bench.case("small", 1, 20000, SMALL_FILE)


def title_of(case):
    """The tree's name and size."""
    return f"{case.name}: {case.files} files, {case.bytes / MIB:.1f} MiB"


def peak_of(case, samples):
    """Bytes that extracting took at most, and that it may take."""
    allowed = case.archive_size("kpim") + 2 * case.bytes + MEMORY_ALLOWANCE
    return median(samples, "rss_kib") * 1024, allowed


def measure_packing(bench):
    """kpim against its peers, with the payload writer's settings."""
    for make in (large, small):
        with make(bench) as case:
            samples = rounds_of(PACKERS, bench.rounds, case.pack)
            ours = samples["kpim"]
            rows = [["packing", "CPU s", "spread", "wall s", "bytes", "our CPU / its",
                     "our bytes / its"]]
            for name, own in samples.items():
                rows.append([
                    name, f"{median(own, 'cpu'):.2f}", spread(own, "cpu"),
                    f"{median(own, 'wall'):.2f}", str(case.archive_size(name)),
                    f"{ratio(ours, own, 'cpu'):.2f}",
                    f"{case.archive_size('kpim') / case.archive_size(name):.4f}"])
            bench.tell(table(title_of(case), rows))
            fastest = min(PACKERS[1:], key=lambda name: median(samples[name], "cpu"))
            bench.goals.append(verdict(f"packing {case.name}, CPU time of {fastest}'s",
                                       ratio(ours, samples[fastest], "cpu"), GREATEST_RATIO))
            bench.samples[f"packing {case.name}"] = samples


def measure_extraction(bench):
    """The finalizer against its peers."""
    for make in (large, small):
        with make(bench) as case:
            samples = rounds_of(EXTRACTORS, bench.rounds, case.extract)
            ours = samples["finalizer"]
            rows = [["extraction", "wall s", "spread", "CPU s", "peak MiB", "our wall / its",
                     "our CPU / its"]]
            for name, own in samples.items():
                rows.append([
                    name, f"{median(own, 'wall'):.3f}", spread(own, "wall"),
                    f"{median(own, 'cpu'):.3f}", f"{median(own, 'rss_kib') / 1024:.1f}",
                    f"{ratio(ours, own, 'wall'):.2f}", f"{ratio(ours, own, 'cpu'):.2f}"])
            bench.tell(table(title_of(case), rows))
            for key, what in (("wall", "wall"), ("cpu", "CPU")):
                fastest = min(EXTRACTORS[1:], key=lambda name: median(samples[name], key))
                bench.goals.append(verdict(f"extracting {case.name}, {what} time of {fastest}'s",
                                           ratio(ours, samples[fastest], key), GREATEST_RATIO))
            peak, allowed = peak_of(case, ours)
            bench.goals.append(verdict(f"extracting {case.name}, peak memory", peak / MIB,
                                       allowed / MIB, " MiB"))
            bench.samples[f"extraction {case.name}"] = samples


def measure_growth(bench, name, title, cases, amount):
    """Extraction of one tree after the other, each larger than the last. `amount` gives what a case
    has more of."""
    rounds = min(bench.rounds, 3)
    contestants = ["finalizer", "7zz"]
    # Packing is measured once: it takes minutes.
    fixed = median(fixed_costs(bench, 5)["finalizer"], "wall")
    rows = [["finalizer", title, "wall s", "spread", "CPU s", "packing CPU s", "peak MiB",
             "allowed MiB", "our wall / 7zz's"]]
    curves = {contestant: [] for contestant in contestants}
    packing, beyond = [], []
    for make in cases:
        with make() as case:
            packed = case.pack("kpim")
            samples = rounds_of(contestants, rounds, case.extract)
            ours = samples["finalizer"]
            peak, allowed = peak_of(case, ours)
            rows.append([
                case.name, f"{amount(case):,.0f}", f"{median(ours, 'wall'):.3f}",
                spread(ours, "wall", 3), f"{median(ours, 'cpu'):.3f}", f"{packed['cpu']:.2f}",
                f"{peak / MIB:.1f}", f"{allowed / MIB:.1f}",
                f"{ratio(ours, samples['7zz'], 'wall'):.2f}"])
            bench.goals.append(verdict(f"{case.name}, peak memory", peak / MIB, allowed / MIB,
                                       " MiB"))
            for contestant in contestants:
                walls = [sample["wall"] for sample in samples[contestant]]
                curves[contestant].append(
                    (amount(case), min(walls), median(samples[contestant], "wall"), max(walls)))
            beyond.append((amount(case), max(median(ours, "wall") - fixed, 1e-4)))
            packing.append((amount(case), packed["cpu"]))
            bench.samples[f"growth {name} {case.name}"] = {"packing": packed, **samples}
    whole = exponent([(x, y) for x, _, y, _ in curves["finalizer"]])
    bench.tell(table(f"growth with {name}, {rounds} rounds, packed once", rows) +
               f"\n  exponent of extracting {whole:.2f}, without the {fixed:.3f} s that any run "
               f"takes {exponent(beyond):.2f}; of packing {exponent(packing):.2f}")
    bench.goals.append(verdict(f"growth with {name}, exponent", exponent(beyond),
                               GREATEST_EXPONENT))
    bench.curves[name] = (f"Extraction by {name}", title, list(curves.items()))


def measure_size(bench):
    """Growth with the bytes of the content."""
    measure_growth(bench, "size", "MB", [
        lambda megabytes=megabytes: bench.case(f"{megabytes * bench.scale:g} MB",
                                               megabytes * 10**6, 1, LARGE_FILE)
        for megabytes in (10, 100, 400)], lambda case: case.bytes / 1e6)


def measure_files(bench):
    """Growth with the number of files."""
    measure_growth(bench, "number of files", "files", [
        lambda count=count: bench.case(f"{count * bench.scale:,.0f} files", 1, count, TINY_FILE)
        for count in (1000, 10000, 100000)], lambda case: case.files)


def fixed_costs(bench, rounds):
    """Samples of a run that does next to nothing: the finalizer with one tiny file, programs without
    any work, and a program that is no more than a process in the sandbox."""
    programs = bench.tests.resolve() / "benchmarks"
    with Case("tiny", bench.programs, bench.parent, 1, 1, TINY_FILE) as case:
        def measure(name):
            if name == "finalizer":
                return case.extract("finalizer")
            return run(case.work, programs, [programs / name])
        return rounds_of(["finalizer", "empty_foundation_program", "empty_program"], rounds, measure)


def measure_fixed(bench):
    """What a run costs before it does anything."""
    rounds = max(bench.rounds, 20)
    samples = fixed_costs(bench, rounds)
    ours = samples["finalizer"]
    rows = [["a run with one tiny file", "wall ms", "spread", "CPU ms", "peak MiB",
             "our wall / its", "our CPU - its, ms"]]
    for name, own in samples.items():
        in_milliseconds = [{key: value * 1000 for key, value in sample.items()} for sample in own]
        rows.append([
            name, f"{median(in_milliseconds, 'wall'):.1f}", spread(in_milliseconds, "wall", 1),
            f"{median(in_milliseconds, 'cpu'):.1f}", f"{median(own, 'rss_kib') / 1024:.1f}",
            f"{ratio(ours, own, 'wall'):.2f}",
            f"{(median(ours, 'cpu') - median(own, 'cpu')) * 1000:.1f}"])
    bench.tell(table(f"fixed cost, the sandbox's own in each, {rounds} rounds", rows))
    bench.samples["fixed"] = samples


def measure_settings(bench):
    """Reading settings files of ever more keys."""
    done = subprocess.run(
        [bench.tests / "benchmarks/settings_bench", "--benchmark_filter=DistinctKeys/",
         "--benchmark_format=json", f"--benchmark_repetitions={bench.rounds}"],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    runs = json.loads(done.stdout)["benchmarks"]
    rows = [["settings", "keys", "CPU µs", "spread"]]
    points = []
    for keys in (10, 100, 1000, 10000):
        own = [{"cpu": each["cpu_time"]} for each in runs
               if each["name"] == f"DistinctKeys/{keys}" and each["run_type"] == "iteration"]
        rows.append(["read", f"{keys:,}", f"{median(own, 'cpu'):.1f}", spread(own, "cpu", 1)])
        points.append((keys, median(own, "cpu")))
        bench.samples[f"settings {keys}"] = own
    bench.tell(table("settings files of distinct keys", rows) +
               f"\n  exponent {exponent(points[1:]):.2f} from 100 keys on")


MEASURES = {"packing": measure_packing, "extraction": measure_extraction, "size": measure_size,
            "files": measure_files, "fixed": measure_fixed, "settings": measure_settings}


def output_of(*command):
    """The first line that says something, or nothing when there is no such program."""
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
        "kernel": platform.release(),
        "commit": output_of("git", "-C", REPOSITORY, "rev-parse", "--short", "HEAD"),
        "7zz": output_of("7zz"), "xz": output_of("xz", "--version"),
        "bsdtar": output_of("bsdtar", "--version"), "tar": output_of("tar", "--version"),
    }


def write_documents(bench):
    """Puts the report and the plot where the documentation shows them."""
    DOCUMENT.write_text(between_markers(DOCUMENT.read_text(encoding="utf-8"),
                                        "\n\n".join(bench.texts)), encoding="utf-8")
    PLOT.write_text(plot(bench.curves.values()), encoding="utf-8")


def working_place(wanted, needed):
    """The folder to work in: the wanted one, memory where it is large enough, or TMPDIR."""
    memory = Path("/dev/shm")
    if wanted is None and memory.is_dir():
        free = os.statvfs(memory).f_bavail * os.statvfs(memory).f_frsize
        if free >= needed:
            return memory
        print(f"{memory} has {free / MIB:.0f} MiB free of {needed / MIB:.0f}: not used")
    return wanted


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/bench"), help="build folder")
    parser.add_argument("--work", type=Path, help="folder to work in (default: memory, then TMPDIR)")
    parser.add_argument("--rounds", type=int, default=5, help="paired runs that count")
    parser.add_argument("--quick", action="store_true", help="small trees, three rounds")
    parser.add_argument("--only", choices=SECTIONS, action="append",
                        help="this section; may be given more than once")
    parser.add_argument("--json", type=Path, help="write every sample here")
    parser.add_argument("--write-docs", action="store_true",
                        help="write report and plot into docs/ (of a whole run)")
    options = parser.parse_args()
    if options.write_docs and (options.only or options.quick):
        parser.error("--write-docs is for whole runs")
    return options


def main():
    options = parse_options()
    for name in ("bin/finalizer", "bin/kpim", "benchmarks/empty_program",
                 "benchmarks/empty_foundation_program", "benchmarks/settings_bench"):
        if not (options.build / name).exists():
            sys.exit(f"{options.build / name} is missing: scripts/bench.sh builds it")
    place = working_place(options.work, (300 if options.quick else 2500) * MIB)
    facts = machine()
    with tempfile.TemporaryDirectory(dir=place, prefix="kpbench-") as folder:
        bench = Bench(options, Path(folder))
        bench.tell(f"{facts['processor']}, {facts['cores']} cores, Linux {facts['kernel']}, commit "
                   f"{facts['commit']}; in {place or tempfile.gettempdir()}, "
                   f"{bench.rounds} paired rounds, medians")
        for section in options.only or SECTIONS:
            MEASURES[section](bench)
    if bench.goals:
        bench.tell("\n".join(["goals", *(f"  {goal}" for goal in bench.goals)]))
    if options.json:
        options.json.write_text(json.dumps({"machine": facts, "goals": bench.goals,
                                            "samples": bench.samples}, indent=1))
    if options.write_docs:
        write_documents(bench)


if __name__ == "__main__":
    main()
