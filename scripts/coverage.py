#!/usr/bin/python3
"""Reports which lines and branches of the product a run of the instrumented build has reached.

    scripts/coverage.py BUILD PROFILES [--minimum PERCENT] [--uncovered]

BUILD is the build folder of the coverage preset, PROFILES the folder with the profiles that its
programs wrote (LLVM_PROFILE_FILE). Fails when fewer lines than the minimum are covered, and when
product lines that were never reached have no reason beside them: a comment "// Untested: REASON."
among them or just before them. The host port is counted apart, without a requirement.
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
REASON = re.compile(r"// Untested: \S")
PRODUCT = ("player/", "shared/platform/mac/", "shared/platform/posix/", "tools/")
PORT = ("shared/platform/linux/",)


def export(build, profiles):
    """llvm-cov's report; its "files" are those of the product and of the port."""
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
    """[(3, 5), (9, 9)] for [3, 4, 5, 9]."""
    parts = []
    for number in numbers:
        if parts and parts[-1][1] == number - 1:
            parts[-1] = (parts[-1][0], number)
        else:
            parts.append((number, number))
    return parts


def has_reason(lines, first, last):
    """Whether a comment among or just before the lines `first` to `last` says why they were never
    reached. `lines` are those of the file."""
    return any(REASON.search(line) for line in lines[max(first - 2, 0):last])


def report(title, files, uncovered):
    """Prints the lines and branches of `files`, in all as "title", with `uncovered` the lines never
    reached too. Returns the totals, covered and count by kind, and the places without a reason."""
    totals = {"lines": [0, 0], "branches": [0, 0]}
    unexplained = []
    for file in files:
        name = os.path.relpath(file["filename"], REPOSITORY)
        cells = []
        for kind, total in totals.items():
            summary = file["summary"][kind]
            total[0] += summary["covered"]
            total[1] += summary["count"]
            cells.append(f"{summary['covered']:5}/{summary['count']:<5}")
        print(f"{name:72} {cells[0]:>14} {cells[1]:>14}")
        lines = pathlib.Path(file["filename"]).read_text(encoding="utf-8").splitlines()
        for first, last in ranges(uncovered_lines(file)):
            if uncovered:
                print(f"    never reached: {first}-{last}")
            if not has_reason(lines, first, last):
                unexplained.append(f"{name}:{first}-{last}")
    for kind, (covered, count) in totals.items():
        print(f"{title}, {kind}: {covered} of {count}, {100 * covered / max(count, 1):.1f} %")
    return totals, unexplained


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("profiles", type=pathlib.Path)
    parser.add_argument("--minimum", type=float, default=95.0)
    parser.add_argument("--uncovered", action="store_true", help="list the lines never reached")
    arguments = parser.parse_args()

    files = export(arguments.build, arguments.profiles)["files"]
    print(f"{'file':72} {'lines':>14} {'branches':>14}")
    port = [file for file in files
            if os.path.relpath(file["filename"], REPOSITORY).startswith(PORT)]
    report("host port", port, arguments.uncovered)
    product = [file for file in files if file not in port]
    totals, unexplained = report("product", product, arguments.uncovered)

    covered, count = totals["lines"]
    if count == 0 or 100 * covered / count < arguments.minimum:
        print(f"coverage: fewer than {arguments.minimum:.0f} % of the lines", file=sys.stderr)
        return 1
    for place in unexplained:
        print(f"coverage: {place}: never reached, without a reason", file=sys.stderr)
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main())
