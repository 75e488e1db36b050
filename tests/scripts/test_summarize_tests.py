"""The counts at the end of scripts/test.sh."""

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


def entry(name, status="run", output="ok", message=""):
    """A test as ctest has it in its results."""
    failure = f'<failure message="{message}"/>' if status == "fail" else ""
    return (f'<testcase name="{name}" status="{status}">{failure}'
            f"<system-out>{output}</system-out></testcase>")


def suite(cases):
    return f"<testsuites><testsuite>{''.join(cases)}</testsuite></testsuites>"


@pytest.fixture
def summarize(tmp_path):
    """Runs the script on the steps, ctest's entries and the cases of its tests."""
    def run(*steps, entries=None, **reports):
        (tmp_path / "steps.tsv").write_text("".join("\t".join(step) + "\n" for step in steps))
        if entries is not None:
            (tmp_path / "ctest.xml").write_text(suite(entries))
        (tmp_path / "reports/unit").mkdir(parents=True)
        for name, cases in reports.items():
            (tmp_path / f"reports/unit/{name}.xml").write_text(suite(cases))
        result = subprocess.run(
            [sys.executable, SCRIPT, tmp_path, tmp_path / "elsewhere", tmp_path / "reports"],
            stdout=subprocess.PIPE, text=True, check=False)
        return result.returncode, result.stdout.splitlines()

    return run


def test_counts_steps_and_single_tests(summarize):
    status, lines = summarize(("build", "0"), ("ctest", "0"),
                              entries=[entry("unit/A"), entry("style/format"), entry("asan/fuzz/b")],
                              A=[PASSED, PASSED, SKIPPED, DISABLED])
    assert status == 0
    assert lines == ["SKIPPED unit/A: S.d: needs root",
                     "SKIPPED unit/A: S.e: disabled in the source",
                     "5 passed, 0 failed, 2 skipped"]


def test_failures_are_named(summarize):
    status, lines = summarize(
        ("build", "2"), ("ctest", "8"),
        entries=[entry("unit/A", "fail"), entry("asan/fuzz/b", "fail", "one\nlast"),
                 entry("style/lint", "fail", "a.cpp:1: error: bad\n{\n", "Timeout")],
        A=[PASSED, FAILED, ERROR])
    assert status == 1
    assert lines == ["FAILED  build: exit status 2", "FAILED  unit/A: S.b: file:1 1 is 2",
                     "FAILED  unit/A: S.c: no fixture", "FAILED  asan/fuzz/b: last",
                     "FAILED  style/lint: Timeout a.cpp:1: error: bad", "1 passed, 5 failed, 0 skipped"]


@pytest.mark.parametrize("status, reports, reason", [
    ("fail", {}, "unit/A: no test ran: Segmentation fault said"),
    ("run", {}, "unit/A: no test ran: said"),
    ("run", {"A": []}, "unit/A: no test ran: said"),
    ("fail", {"A": [PASSED]}, "unit/A: every test passed, and then: Segmentation fault said"),
    ("fail", {"A": ["<"]}, "unit/A: damaged results (not well-formed"),
    ("notrun", {"A": [PASSED]}, "unit/A: not run"),
    ("disabled", {"A": [PASSED]}, "unit/A: not run"),
])
def test_a_test_of_ctest_that_ends_badly_fails(summarize, status, reports, reason):
    exit_status, lines = summarize(
        ("ctest", "0"), entries=[entry("unit/A", status, "said", "Segmentation fault")], **reports)
    assert exit_status == 1
    assert lines[0].startswith(f"FAILED  {reason}")
    assert " 1 failed, " in lines[-1]


@pytest.mark.parametrize("entries, status, reason", [
    (None, "1", "ctest: no results ("),
    (["<"], "0", "ctest: no results ("),
    ([], "0", "ctest: 0 tests, exit status 0"),
    ([entry("style/format")], "8", "ctest: 1 tests, exit status 8"),
])
def test_a_run_of_ctest_that_ends_badly_fails(summarize, entries, status, reason):
    exit_status, lines = summarize(("ctest", status), entries=entries)
    assert exit_status == 1
    assert lines[0].startswith(f"FAILED  {reason}")


def test_no_test_at_all_is_a_failure(summarize):
    status, lines = summarize()
    assert status == 1
    assert lines == ["FAILED  nothing was tested", "0 passed, 1 failed, 0 skipped"]


def test_only_skipped_tests_are_a_failure(summarize):
    status, lines = summarize(("ctest", "0"), entries=[entry("unit/A")], A=[SKIPPED])
    assert status == 1
    assert lines[-1] == "0 passed, 1 failed, 1 skipped"
