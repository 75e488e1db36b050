#!/usr/bin/env python3
"""Sums up what scripts/test.sh left in its results folder.

runs.tsv names what ran, one line each: kind, name, exit status. A "check" is one test. A "suite"
has its tests in NAME.xml, as GoogleTest and pytest write it. Prints each failure and the reason
of each skip, then one line with the counts. Exits with 1 when a test failed or none ran.
"""

import pathlib
import sys
import textwrap
import xml.etree.ElementTree as ElementTree

LONGEST_REASON = 300


class Summary:
    """Counts, and the failures and skips in words."""

    def __init__(self):
        self.passed = 0
        self.failures = []
        self.skips = []

    def add_check(self, name, status):
        """One test that is its own command."""
        if status == 0:
            self.passed += 1
        else:
            self.failures.append(f"{name}: exit status {status}")

    def add_suite(self, name, status, report):
        """The tests in `report`, and one more failure when they do not explain `status`."""
        failures_before = len(self.failures)
        count = 0
        try:
            for case in ElementTree.parse(report).iter("testcase"):
                count += 1
                self._add_case(name, case)
        except (OSError, ElementTree.ParseError) as error:
            self.failures.append(f"{name}: no results ({error}), exit status {status}")
            return
        if count == 0:
            self.failures.append(f"{name}: no test ran, exit status {status}")
        elif status != 0 and len(self.failures) == failures_before:
            self.failures.append(f"{name}: every test passed, but the exit status is {status}")

    def _add_case(self, suite, case):
        name = f"{suite}: {case.get('classname')}.{case.get('name')}"
        failure = case.find("failure")
        if failure is None:
            failure = case.find("error")
        skip = case.find("skipped")
        if failure is not None:
            self.failures.append(f"{name}: {_reason(failure)}")
        elif skip is not None:
            self.skips.append(f"{name}: {_reason(skip)}")
        elif case.get("status") == "notrun":
            self.skips.append(f"{name}: disabled in the source")
        else:
            self.passed += 1


def _reason(element):
    lines = (element.get("message") or element.text or "no message").strip().splitlines()
    return textwrap.shorten(" ".join(lines[:2]), LONGEST_REASON)


def main():
    folder = pathlib.Path(sys.argv[1])
    summary = Summary()
    for line in (folder / "runs.tsv").read_text(encoding="utf-8").splitlines():
        kind, name, status = line.split("\t")
        if kind == "check":
            summary.add_check(name, int(status))
        else:
            summary.add_suite(name, int(status), folder / f"{name}.xml")
    for failure in summary.failures:
        print(f"FAILED  {failure}")
    for skip in summary.skips:
        print(f"SKIPPED {skip}")
    if summary.passed + len(summary.failures) == 0:
        summary.failures.append("nothing was tested")
        print("FAILED  nothing was tested")
    print(f"{summary.passed} passed, {len(summary.failures)} failed, {len(summary.skips)} skipped")
    return 1 if summary.failures else 0


if __name__ == "__main__":
    sys.exit(main())
