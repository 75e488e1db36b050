"""What is measured, section by section, and which goals that meets."""

import json
import os
import subprocess
from typing import NamedTuple

from contestants import EXTRACTORS, PACKERS, THREADED_PACKERS, Case, rounds_of, run
from report import (Verdict, difference, exponent, exponent_beyond, greatest, median, ratio,
                    ratio_spread, spread, table)

MIB = 1 << 20
# What a run may take beyond the blob and twice its content.
MEMORY_ALLOWANCE = 24 * MIB
GREATEST_RATIO = 1.0
GREATEST_EXPONENT = 1.05

LARGE_FILE = 8 * MIB
SMALL_FILE = 4096
TINY_FILE = 1024
GROWTH_ROUNDS = 3
# Content whose packing takes so long, a minute and more for each packer, that one run has to do.
PACKED_ONCE = 80 * 10**6
FIXED_ROUNDS = 20
SETTINGS_KEYS = [10, 100, 1000, 10000]
MICROSECOND = 1e-6

CLOCKS = {"wall": "wall", "cpu": "CPU"}
# The clock for growth: packing of the larger trees is one run, and CPU time varies less.
GROWTH_CLOCK = {"extraction": "wall", "packing": "cpu"}

# Programs that do nothing: with Foundation and the host port, with Foundation, with neither.
EMPTY_PROGRAMS = ["empty_host_program", "empty_foundation_program", "empty_program"]


class Bench:
    """A run: what it measures by, what it has measured, and what it says."""

    def __init__(self, build, parent, rounds, scale):
        self.programs = (build / "bin").resolve()
        self.tests = (build / "benchmarks").resolve()
        self.parent = parent
        self.rounds = rounds
        self.scale = scale
        self.texts = []
        self.goals = []
        self.samples = {}
        self.curves = {}
        self._fixed = None

    def case(self, name, wanted_bytes, wanted_files, largest):
        """A tree of that size, or a part of it in a quick run."""
        return Case(name, self.programs, self.parent, int(wanted_bytes * self.scale),
                    max(int(wanted_files * self.scale), 1),
                    int(largest * self.scale) if largest > MIB else largest)

    def add(self, text):
        """Prints a part of the report and keeps it."""
        self.texts.append(text)
        print(f"\n{text}", flush=True)

    def keep(self, name, case, samples):
        """Keeps a case's samples with what the tree is."""
        self.samples[name] = {**case.facts(), "samples": samples}

    def judge_speed(self, what, samples, clocks=("wall", "cpu")):
        """Whether the first contestant, ours, takes no longer than its fastest peer."""
        ours, *peers = samples
        for clock in clocks:
            fastest = min(peers, key=lambda peer, clock=clock: median(samples[peer], clock))
            self.goals.append(Verdict(f"{what}, {CLOCKS[clock]} time against {fastest}",
                                      ratio(samples[ours], samples[fastest], clock), GREATEST_RATIO,
                                      spread=ratio_spread(samples[ours], samples[fastest], clock)))

    def judge_memory(self, what, case, samples):
        """Whether no run took more memory than extracting may."""
        self.goals.append(Verdict(f"{what}, peak memory", peak(samples) / MIB, allowed(case) / MIB,
                                  " MiB"))

    def fixed(self):
        """Samples of runs that have next to nothing to do, by activity and contestant; measured
        once."""
        if self._fixed is None:
            with Case("tiny", self.programs, self.parent, 1, 1, TINY_FILE) as case:
                self._fixed = self._measure_fixed(case)
        return self._fixed

    def _measure_fixed(self, case):
        def start(contestant):
            if contestant in EMPTY_PROGRAMS:
                return run(case.work, self.tests, [self.tests / contestant])
            return case.extract(contestant)
        rounds = max(self.rounds, FIXED_ROUNDS)
        extraction = rounds_of(EXTRACTORS + EMPTY_PROGRAMS, rounds, start)
        fixed = {"extraction": extraction, "packing": rounds_of(PACKERS, rounds, case.pack)}
        self.keep("fixed", case, fixed)
        return fixed


def peak(samples):
    """Bytes of memory that any of the runs took at most."""
    return greatest(samples, "rss_kib") * 1024


def allowed(case):
    """Bytes of memory that extracting the tree may take."""
    return case.archive_size("kpim") + 2 * case.bytes + MEMORY_ALLOWANCE


def large_and_small(bench):
    """Two cases, one after the other: some 1,400 files of up to 8 MiB, and 20,000 of up to 4 KiB."""
    for tree in (("large", 64 * MIB, 1, LARGE_FILE), ("small", 1, 20000, SMALL_FILE)):
        with bench.case(*tree) as case:
            yield case


def title_of(case):
    """The tree's name and size."""
    return f"{case.name}: {case.files} files, {case.bytes / MIB:.1f} MiB"


def measure_packing(bench):
    """kpim against its peers, with the payload writer's settings."""
    for case in large_and_small(bench):
        samples = rounds_of(PACKERS, bench.rounds, case.pack)
        bench.add(packing_table(case, samples))
        bench.judge_speed(f"packing {case.name}", samples)
        bench.keep(f"packing {case.name}", case, samples)
        samples = rounds_of(THREADED_PACKERS, bench.rounds, case.pack)
        bench.add(packing_table(case, samples))
        bench.judge_speed(f"packing {case.name} with threads", samples, ["wall"])
        bench.keep(f"packing {case.name} with threads", case, samples)


def packing_table(case, samples):
    ours_name, ours = next(iter(samples.items()))
    rows = [["packing", "CPU s", "spread", "wall s", "bytes", "peak MiB", "our CPU / its",
             "our wall / its", "our bytes / its"]]
    for name, own in samples.items():
        rows.append([
            name, f"{median(own, 'cpu'):.2f}", spread(own, "cpu"), f"{median(own, 'wall'):.2f}",
            str(case.archive_size(name)), f"{peak(own) / MIB:.1f}", f"{ratio(ours, own, 'cpu'):.2f}",
            f"{ratio(ours, own, 'wall'):.2f}",
            f"{case.archive_size(ours_name) / case.archive_size(name):.4f}"])
    return table(title_of(case), rows)


def measure_extraction(bench):
    """The finalizer against its peers."""
    for case in large_and_small(bench):
        samples = rounds_of(EXTRACTORS, bench.rounds, case.extract)
        bench.add(extraction_table(case, samples))
        bench.judge_speed(f"extracting {case.name}", samples)
        bench.judge_memory(f"extracting {case.name}", case, samples["finalizer"])
        bench.keep(f"extraction {case.name}", case, samples)


def extraction_table(case, samples):
    ours = samples["finalizer"]
    rows = [["extraction", "wall s", "spread", "CPU s", "peak MiB", "our wall / its",
             "our CPU / its"]]
    for name, own in samples.items():
        rows.append([
            name, f"{median(own, 'wall'):.3f}", spread(own, "wall", 3), f"{median(own, 'cpu'):.3f}",
            f"{peak(own) / MIB:.1f}", f"{ratio(ours, own, 'wall'):.2f}",
            f"{ratio(ours, own, 'cpu'):.2f}"])
    return table(title_of(case), rows)


class Step(NamedTuple):
    """One of the trees that grow, and what was measured with it by activity and contestant."""

    name: str
    amount: float
    content: int
    blob: int
    allowed: int
    samples: dict

    def point(self, activity, contestant):
        """The amount and the time from which growth is computed."""
        return self.amount, median(self.samples[activity][contestant], GROWTH_CLOCK[activity])


def measure_growth(bench, name, unit, makers, amount):
    """Trees of which each is larger than the last. `amount` gives what a case has more of."""
    fixed = bench.fixed()
    steps = [measure_step(bench, name, make, amount) for make in makers]
    bench.add(growth_table(f"extraction, growth with {name}", steps))
    bench.add(packing_growth_table(f"packing, growth with {name}", steps))
    bench.add(exponents_table(bench, name, steps, fixed))
    bench.curves[name] = (f"Extraction by {name}", unit, [
        (extractor, [curve_point(step, extractor) for step in steps]) for extractor in EXTRACTORS])


def measure_step(bench, name, make, amount):
    """Packs the tree with every packer and extracts it with every extractor, in turn."""
    with make() as case:
        rounds = min(bench.rounds, GROWTH_ROUNDS)
        once = case.bytes > PACKED_ONCE * bench.scale
        samples = {
            "packing": ({packer: [case.pack(packer)] for packer in PACKERS} if once
                        else rounds_of(PACKERS, rounds, case.pack)),
            "extraction": rounds_of(EXTRACTORS, rounds, case.extract)}
        # One run says nothing about a few per cent.
        if not once:
            bench.judge_speed(f"packing {case.name}", samples["packing"], ["cpu"])
        bench.judge_speed(f"extracting {case.name}", samples["extraction"])
        bench.judge_memory(f"extracting {case.name}", case, samples["extraction"]["finalizer"])
        bench.keep(f"growth with {name}, {case.name}", case, samples)
        return Step(case.name, amount(case), case.bytes, case.archive_size("kpim"), allowed(case),
                    samples)


def growth_table(title, steps):
    rows = [["finalizer", "content MB", "blob MB", "wall s", "spread", "CPU s", "peak MiB",
             "allowed MiB", *(f"our wall / {peer}" for peer in EXTRACTORS[1:])]]
    for step in steps:
        samples = step.samples["extraction"]
        ours = samples["finalizer"]
        rows.append([
            step.name, f"{step.content / 1e6:.1f}", f"{step.blob / 1e6:.1f}",
            f"{median(ours, 'wall'):.3f}", spread(ours, "wall", 3), f"{median(ours, 'cpu'):.3f}",
            f"{peak(ours) / MIB:.1f}", f"{step.allowed / MIB:.1f}",
            *(f"{ratio(ours, samples[peer], 'wall'):.2f}" for peer in EXTRACTORS[1:])])
    return table(title, rows)


def packing_growth_table(title, steps):
    rows = [["packing", "runs", *(f"{packer} CPU s" for packer in PACKERS), "our spread",
             *(f"our CPU / {peer}" for peer in PACKERS[1:])]]
    for step in steps:
        samples = step.samples["packing"]
        rows.append([
            step.name, str(len(samples["kpim"])),
            *(f"{median(samples[packer], 'cpu'):.2f}" for packer in PACKERS),
            spread(samples["kpim"], "cpu"),
            *(f"{ratio(samples['kpim'], samples[peer], 'cpu'):.2f}" for peer in PACKERS[1:])])
    return table(title, rows)


def exponents_table(bench, name, steps, fixed):
    """The exponents of every contestant. Ours without the fixed cost are held against the goal; the
    peers' show how much of them is due to the trees."""
    rows = [[f"growth with {name}", "exponent", "fixed cost s", "exponent without it"]]
    for activity, contestants in (("extraction", EXTRACTORS), ("packing", PACKERS)):
        for contestant in contestants:
            points = [step.point(activity, contestant) for step in steps]
            cost = median(fixed[activity][contestant], GROWTH_CLOCK[activity])
            without = exponent_beyond(points, cost)
            rows.append([f"{activity}, {contestant}", f"{exponent(points):.3f}", f"{cost:.4f}",
                         "not measured" if without is None else f"{without:.3f}"])
            if contestant == contestants[0]:
                bench.goals.append(Verdict(f"{activity}, growth with {name}, exponent", without,
                                           GREATEST_EXPONENT))
    return table("exponents, 1 when the time grows as the tree", rows)


def curve_point(step, extractor):
    """A point for the plot: the amount, and the least, middle and greatest time."""
    walls = [sample["wall"] for sample in step.samples["extraction"][extractor]]
    _, middle = step.point("extraction", extractor)
    return step.amount, min(walls), middle, max(walls)


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


def measure_fixed(bench):
    """What a run costs before it does anything."""
    samples = bench.fixed()["extraction"]
    ours, empty = samples["finalizer"], samples["empty_program"]
    rows = [["a run", "wall ms", "spread", "CPU ms", "peak MiB", "our wall / its",
             "our wall - its, ms", "our CPU - its, ms", "beyond empty_program, wall ms"]]
    for name, own in samples.items():
        in_milliseconds = [{"wall": sample["wall"] * 1000} for sample in own]
        rows.append([
            name, f"{median(own, 'wall') * 1000:.1f}", spread(in_milliseconds, "wall", 1),
            f"{median(own, 'cpu') * 1000:.1f}", f"{peak(own) / MIB:.1f}",
            f"{ratio(ours, own, 'wall'):.2f}", f"{difference(ours, own, 'wall') * 1000:.1f}",
            f"{difference(ours, own, 'cpu') * 1000:.1f}",
            f"{difference(own, empty, 'wall') * 1000:.1f}"])
    bench.add(table(f"fixed cost, {len(ours)} paired runs: extracting one tiny file, and programs "
                     "that do nothing", rows))


def measure_settings(bench):
    """Reading settings files of ever more keys."""
    counts = "|".join(map(str, SETTINGS_KEYS))
    done = subprocess.run(
        [bench.tests / "settings_bench", f"--benchmark_filter=DistinctKeys/({counts})$",
         "--benchmark_format=json", f"--benchmark_repetitions={bench.rounds}"],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        env={**os.environ, "TMPDIR": str(bench.parent)})
    runs = json.loads(done.stdout)["benchmarks"]
    rows = [["settings", "keys", "CPU µs", "spread"]]
    points = []
    for keys in SETTINGS_KEYS:
        own = [settings_sample(each) for each in runs
               if each["name"] == f"DistinctKeys/{keys}" and each["run_type"] == "iteration"]
        in_microseconds = [{"cpu": sample["cpu"] / MICROSECOND} for sample in own]
        rows.append(["read", f"{keys:,}", f"{median(in_microseconds, 'cpu'):.1f}",
                     spread(in_microseconds, "cpu", 1)])
        points.append((keys, median(own, "cpu")))
        bench.samples[f"settings of {keys} keys"] = own
    bench.add(table("settings files of distinct keys", rows) +
               f"\n  exponent {exponent(points):.2f}, from 100 keys on {exponent(points[1:]):.2f}")


def settings_sample(entry):
    """What Google Benchmark reports of one repetition, in seconds."""
    if entry["time_unit"] != "us":
        raise ValueError(f"unexpected unit of time: {entry['time_unit']}")
    return {"wall": entry["real_time"] * MICROSECOND, "cpu": entry["cpu_time"] * MICROSECOND}


MEASURES = {"packing": measure_packing, "extraction": measure_extraction, "size": measure_size,
            "files": measure_files, "fixed": measure_fixed, "settings": measure_settings}
