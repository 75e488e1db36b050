#!/usr/bin/env python3
"""Reports which lines and branches of the product a run of the instrumented build has reached.

    scripts/coverage.py BUILD PROFILES [--minimum PERCENT] [--uncovered]

BUILD is the build folder of the coverage preset, PROFILES the folder with the profiles that its
programs wrote (LLVM_PROFILE_FILE). Fails when fewer lines than the minimum are covered, and when a
file with lines that were never reached is not in the table of reasons of docs/testing.md.
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
REASONS = REPOSITORY / "docs/testing.md"
PRODUCT = ("player/", "shared/platform/mac/", "tools/")


def export(build, profiles):
    """What llvm-cov knows of the product's files."""
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
    command += [str(REPOSITORY / folder) for folder in PRODUCT]
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout
    return json.loads(output)["data"][0]["files"]


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


def explained(page):
    """Names of the files in the first column of the table that tells reasons."""
    table = page.split("What was not reached:")[1].split("\n## ")[0]
    return {name for line in table.splitlines() if line.startswith("| `")
            for name in re.findall(r"`([^`]+)`", line.split("|")[1])}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("profiles", type=pathlib.Path)
    parser.add_argument("--minimum", type=float, default=95.0)
    parser.add_argument("--uncovered", action="store_true", help="list the lines never reached")
    arguments = parser.parse_args()

    known = explained(REASONS.read_text(encoding="utf-8"))
    unreached = set()
    totals = {"lines": [0, 0], "branches": [0, 0]}
    print(f"{'file':72} {'lines':>14} {'branches':>14}")
    for file in export(arguments.build, arguments.profiles):
        name = os.path.relpath(file["filename"], REPOSITORY)
        cells = []
        for kind, total in totals.items():
            summary = file["summary"][kind]
            total[0] += summary["covered"]
            total[1] += summary["count"]
            cells.append(f"{summary['covered']:5}/{summary['count']:<5}")
        print(f"{name:72} {cells[0]:>14} {cells[1]:>14}")
        never_reached = uncovered_lines(file)
        if never_reached and arguments.uncovered:
            print(f"    never reached: {ranges(never_reached)}")
        if never_reached:
            unreached.add(os.path.basename(name))
    for kind, (covered, count) in totals.items():
        print(f"{kind}: {covered} of {count}, {100 * covered / max(count, 1):.1f} %")
    covered, count = totals["lines"]
    if count == 0 or 100 * covered / count < arguments.minimum:
        print(f"coverage: fewer than {arguments.minimum:.0f} % of the lines", file=sys.stderr)
        return 1
    for name in sorted(unreached - known):
        print(f"coverage: {REASONS.name} does not say why lines of {name} are never reached",
              file=sys.stderr)
    for name in sorted(known - unreached):
        print(f"coverage: {REASONS.name} says why lines of {name} are never reached, but all are",
              file=sys.stderr)
    return 1 if unreached != known else 0


if __name__ == "__main__":
    sys.exit(main())
