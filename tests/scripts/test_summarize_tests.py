"""The counts that scripts/test.sh ends with."""

import pathlib
import subprocess
import sys

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

SCRIPT = REPOSITORY / "scripts/summarize_tests.py"

PASSED = '<testcase name="a" classname="S" status="run" result="completed"/>'
FAILED = '<testcase name="b" classname="S" status="run"><failure message="file:1&#x0A;1 is 2"/></testcase>'
ERROR = '<testcase name="c" classname="S"><error message="no fixture">trace</error></testcase>'
SKIPPED = '<testcase name="d" classname="S"><skipped message="needs root"/></testcase>'
DISABLED = '<testcase name="e" classname="S" status="notrun" result="suppressed"/>'


@pytest.fixture
def summarize(tmp_path):
    def run(*runs, **reports):
        (tmp_path / "runs.tsv").write_text("".join("\t".join(run) + "\n" for run in runs))
        for name, cases in reports.items():
            (tmp_path / f"{name}.xml").write_text(
                "<testsuites><testsuite>" + "".join(cases) + "</testsuite></testsuites>")
        result = subprocess.run([sys.executable, SCRIPT, tmp_path], stdout=subprocess.PIPE,
                                text=True, check=False)
        return result.returncode, result.stdout.splitlines()

    return run


def test_counts_checks_and_suites(summarize):
    status, lines = summarize(("check", "format", "0"), ("suite", "unit", "0"),
                              unit=[PASSED, PASSED, SKIPPED, DISABLED])
    assert status == 0
    assert lines == ["SKIPPED unit: S.d: needs root", "SKIPPED unit: S.e: disabled in the source",
                     "3 passed, 0 failed, 2 skipped"]


def test_failures_are_named(summarize):
    status, lines = summarize(("check", "lint", "2"), ("suite", "unit", "1"),
                              unit=[PASSED, FAILED, ERROR])
    assert status == 1
    assert lines == ["FAILED  lint: exit status 2", "FAILED  unit: S.b: file:1 1 is 2",
                     "FAILED  unit: S.c: no fixture", "1 passed, 3 failed, 0 skipped"]


@pytest.mark.parametrize("reports, reason", [
    ({}, "no results"),
    ({"unit": []}, "no test ran"),
    ({"unit": [PASSED]}, "every test passed, but the exit status is 23"),
])
def test_a_suite_that_ends_badly_fails(summarize, reports, reason):
    status, lines = summarize(("suite", "unit", "23"), **reports)
    assert status == 1
    assert reason in lines[0]
    assert " 1 failed, " in lines[-1]


def test_no_test_at_all_is_a_failure(summarize):
    status, lines = summarize()
    assert status == 1
    assert lines == ["FAILED  nothing was tested", "0 passed, 1 failed, 0 skipped"]


def test_only_skipped_tests_are_a_failure(summarize):
    status, lines = summarize(("suite", "unit", "0"), unit=[SKIPPED])
    assert status == 1
    assert lines[-1] == "0 passed, 1 failed, 1 skipped"
