#!/usr/bin/python3
"""Sums up a run of scripts/test.sh.

    scripts/summarize_tests.py RESULTS [REPORTS...]

RESULTS/steps.tsv names the steps, one line each: name, tab, exit status. A step is one test; but the
step "ctest" is all of those in RESULTS/ctest.xml, as ctest --output-junit writes it. The single tests
of its test NAME are in NAME.xml below one of the folders REPORTS, as GoogleTest and pytest write them.
Tests of the areas in WITHOUT_REPORT are one test each.

Prints each failure and the reason of each skip, then one line with the counts. Exits with 1 when a test
failed or none passed.
"""

import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree

LONGEST_REASON = 300
ERROR = re.compile(r"\berror:", re.IGNORECASE)
WITHOUT_REPORT = ("data/", "fuzz/", "style/")


class Summary:
    """Counts, and the failures and skips in words."""

    def __init__(self):
        self.passed = 0
        self.failures = []
        self.skips = []

    def add_step(self, name, status):
        """One test that is its own command."""
        if status == 0:
            self.passed += 1
        else:
            self.failures.append(f"{name}: exit status {status}")

    def add_ctest(self, status, results, reports):
        """The tests of a run of ctest, and one more failure when they do not explain `status`."""
        failures_before = len(self.failures)
        try:
            entries = list(ElementTree.parse(results).iter("testcase"))
        except (OSError, ElementTree.ParseError) as error:
            self.failures.append(f"ctest: no results ({error}), exit status {status}")
            return
        for entry in entries:
            self._add_entry(entry, reports)
        if not entries or status != 0 and len(self.failures) == failures_before:
            self.failures.append(f"ctest: {len(entries)} tests, exit status {status}")

    def _add_entry(self, entry, reports):
        name = entry.get("name")
        status = entry.get("status")
        if status not in ("run", "fail"):
            self.failures.append(f"{name}: not run")
        elif name.removeprefix("asan/").startswith(WITHOUT_REPORT):
            if status == "run":
                self.passed += 1
            else:
                self.failures.append(f"{name}: {_end_of(entry)}")
        else:
            self._add_report(name, status, [folder / f"{name}.xml" for folder in reports], entry)

    def _add_report(self, name, status, places, entry):
        failures_before = len(self.failures)
        cases = []
        for place in filter(pathlib.Path.exists, places):
            try:
                cases = list(ElementTree.parse(place).iter("testcase"))
            except ElementTree.ParseError as error:
                self.failures.append(f"{name}: damaged results ({error})")
        for case in cases:
            self._add_case(name, case)
        if len(self.failures) > failures_before:
            return
        if not cases:
            self.failures.append(f"{name}: no test ran: {_end_of(entry)}")
        elif status != "run":
            self.failures.append(f"{name}: every test passed, and then: {_end_of(entry)}")

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


def _end_of(entry):
    """How a test of ctest ended, with the first error that it printed, or else its last line."""
    failure = entry.find("failure")
    end = failure.get("message") if failure is not None else ""
    lines = (entry.findtext("system-out") or "").strip().splitlines()
    message = next((line for line in lines if ERROR.search(line)), lines[-1] if lines else "")
    said = [text for text in (end, message) if text]
    return textwrap.shorten(" ".join(said) or "no message", LONGEST_REASON)


def main():
    results = pathlib.Path(sys.argv[1])
    reports = [pathlib.Path(folder) for folder in sys.argv[2:]]
    summary = Summary()
    for line in (results / "steps.tsv").read_text(encoding="utf-8").splitlines():
        name, status = line.split("\t")
        if name == "ctest":
            summary.add_ctest(int(status), results / "ctest.xml", reports)
        else:
            summary.add_step(name, int(status))
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
