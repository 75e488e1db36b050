#!/usr/bin/env python3
"""Reports which lines and branches of the product a run of the instrumented build has reached.

    scripts/coverage.py BUILD PROFILES [--minimum PERCENT] [--uncovered]

BUILD is the build folder of the coverage preset, PROFILES the folder with the profiles that its
programs wrote (LLVM_PROFILE_FILE). Fails when fewer lines than the minimum are covered, and unless
the table of reasons of docs/testing.md names, for each function with lines that were never reached,
how many they are. The host port is counted apart, and nothing is demanded of it.
"""

import argparse
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
REASONS = REPOSITORY / "docs/testing.md"
PRODUCT = ("player/", "shared/platform/mac/", "shared/platform/posix/", "tools/")
PORT = ("shared/platform/linux/",)

# How clang names the function behind a method of a class, without a category.
METHOD = re.compile(r"_([ci])_(\w+?)__(\w+)")


def export(build, profiles):
    """What llvm-cov knows of the files of the product and of the port: "files" and "functions"."""
    merged = profiles / "merged.profdata"
    listing = profiles / "profiles.txt"
    listing.write_text("".join(f"{path}\n" for path in profiles.glob("*.profraw")))
    subprocess.run(["llvm-profdata", "merge", "--sparse", "--failure-mode=all",
                    f"--input-files={listing}", "-o", merged], check=True)
    executables = [path for folder in ("bin", "tests", "tests/programs")
                   for path in sorted((build / folder).iterdir())
                   if path.is_file() and os.access(path, os.X_OK)]
    command = ["llvm-cov", "export", f"--instr-profile={merged}", str(executables[0])]
    command += [f"--object={path}" for path in executables[1:]]
    command += [str(REPOSITORY / folder) for folder in PRODUCT + PORT]
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout
    return json.loads(output)["data"][0]


def uncovered_lines(file):
    """Numbers of the lines that hold code which never ran, from the segments of llvm-cov: line,
    column, count, has a count, begins a region, is a gap."""
    lines = set()
    segments = file["segments"]
    for segment, following in zip(segments, segments[1:]):
        line, _, count, has_count, _, is_gap = segment[:6]
        if has_count and count == 0 and not is_gap:
            lines.update(range(line, following[0] + (following[1] > 1)))
    return sorted(lines)


def ranges(numbers):
    """"3-5, 9" for [3, 4, 5, 9]."""
    parts = []
    for number in numbers:
        if parts and parts[-1][1] == number - 1:
            parts[-1][1] = number
        else:
            parts.append([number, number])
    return ", ".join(str(a) if a == b else f"{a}-{b}" for a, b in parts)


def extents_of_functions(functions):
    """For each file the extents of its functions: first line, last line, name."""
    extents = collections.defaultdict(list)
    names = plain_names([function["name"] for function in functions])
    for function, name in zip(functions, names):
        # Line, column, line, column, count, file, expanded file, kind; those of the function's own
        # file and of ordinary code.
        regions = [region for region in function["regions"] if region[5] == 0 and region[7] == 0]
        extents[function["filenames"][0]].append(
            (min(region[0] for region in regions), max(region[2] for region in regions), name))
    return extents


def plain_names(symbols):
    """The functions' names as the source has them, without parameters."""
    # What has internal linkage is named "file:symbol".
    symbols = [symbol.split(":")[-1] if re.search(r":_", symbol) else symbol for symbol in symbols]
    told = subprocess.run(["llvm-cxxfilt"], input="\n".join(symbols), check=True, text=True,
                          stdout=subprocess.PIPE).stdout.split("\n")
    return [plain_name(name) for name in told[:len(symbols)]]


def plain_name(name):
    """"A::B" for "(anonymous namespace)::A::B(char const*)", "-[A b:c:]" for "_i_A__b_c_"."""
    method = METHOD.fullmatch(name)
    if method:
        sign = "+" if method[1] == "c" else "-"
        return f"{sign}[{method[2]} {method[3].replace('_', ':')}]"
    name = name.replace("(anonymous namespace)::", "").replace("[abi:cxx11]", "")
    return re.sub(r"[<(].*", "", name)


def function_of(line, extents):
    """The name of the innermost function that has the line."""
    around = [(last - first, name) for first, last, name in extents if first <= line <= last]
    return min(around)[1] if around else "no function"


def explained(page):
    """How many lines the table of reasons names for each file and function."""
    table = page.split("What was not reached:")[1].split("\n## ")[0]
    rows = collections.Counter()
    for line in table.splitlines():
        row = re.match(r"\| `([^`]+)` \| `([^`]+)` \| (\d+) \| \S", line)
        if row:
            rows[row[1], row[2]] += int(row[3])
    return rows


def complaints(unreached, known):
    """What is wrong with the table: `unreached` was measured, `known` is named."""
    for file, function in sorted(unreached.keys() | known.keys()):
        measured, named = unreached[file, function], known[file, function]
        if measured != named:
            yield (f"{REASONS.name} names {named} lines of {function} in {file} that are never "
                   f"reached; there are {measured}")


class Report:
    """Prints files as they come, and adds up what they have."""

    def __init__(self, extents, uncovered):
        self._extents = extents
        self._uncovered = uncovered

    def print(self, title, files):
        """The lines and branches of `files`, in all as "title". Gives the totals, covered and
        count by kind, and the number of lines never reached by file and function."""
        totals = {"lines": [0, 0], "branches": [0, 0]}
        unreached = collections.Counter()
        for file in files:
            name = os.path.relpath(file["filename"], REPOSITORY)
            cells = []
            for kind, total in totals.items():
                summary = file["summary"][kind]
                total[0] += summary["covered"]
                total[1] += summary["count"]
                cells.append(f"{summary['covered']:5}/{summary['count']:<5}")
            print(f"{name:72} {cells[0]:>14} {cells[1]:>14}")
            by_function = collections.defaultdict(list)
            for line in uncovered_lines(file):
                function = function_of(line, self._extents[file["filename"]])
                by_function[function].append(line)
            for function, lines in by_function.items():
                unreached[os.path.basename(name), function] += len(lines)
                if self._uncovered:
                    print(f"    never reached: {function}: {ranges(lines)}")
        for kind, (covered, count) in totals.items():
            print(f"{title}, {kind}: {covered} of {count}, {100 * covered / max(count, 1):.1f} %")
        return totals, unreached


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("profiles", type=pathlib.Path)
    parser.add_argument("--minimum", type=float, default=95.0)
    parser.add_argument("--uncovered", action="store_true", help="list the lines never reached")
    arguments = parser.parse_args()

    data = export(arguments.build, arguments.profiles)
    report = Report(extents_of_functions(data["functions"]), arguments.uncovered)
    print(f"{'file':72} {'lines':>14} {'branches':>14}")
    port = [file for file in data["files"]
            if os.path.relpath(file["filename"], REPOSITORY).startswith(PORT)]
    report.print("host port", port)
    product = [file for file in data["files"] if file not in port]
    totals, unreached = report.print("product", product)

    covered, count = totals["lines"]
    if count == 0 or 100 * covered / count < arguments.minimum:
        print(f"coverage: fewer than {arguments.minimum:.0f} % of the lines", file=sys.stderr)
        return 1
    wrong = list(complaints(unreached, explained(REASONS.read_text(encoding="utf-8"))))
    for complaint in wrong:
        print(f"coverage: {complaint}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
