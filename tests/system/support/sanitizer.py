"""The options and the reports of the sanitizers, for programs of the sanitizer build.

To look for leaks, the whole stack of each allocation is taken, since suppressions match whole stacks
(tests/lsan.supp): that takes most of the time of a short run, and ptrace, which strace may have taken. So a
run looks for leaks only where a test asks for it; other runs keep eight callers of each allocation.
"""

import pathlib

SUPPRESSIONS = pathlib.Path(__file__).resolve().parents[2] / "lsan.supp"


class SanitizerReport(AssertionError):
    """A program of the sanitizer build reported a fault."""


def is_in(build):
    """Whether `build`, a build folder, is the sanitizer build."""
    return pathlib.Path(build).name == "asan"


def options(check_leaks=False, suppressions=SUPPRESSIONS, reports=None):
    """The variables of a run. `suppressions` is the file's path, and `reports` the folder in which reports
    are left, both as the program sees them. Without `reports` they go to standard error."""
    log = f":log_path={reports}/report" if reports else ""
    stacks = "fast_unwind_on_malloc=0" if check_leaks else "malloc_context_size=8"
    return {
        "ASAN_OPTIONS": f"detect_leaks={check_leaks:d}:{stacks}{log}",
        "LSAN_OPTIONS": f"suppressions={suppressions}:print_suppressions=0",
        "UBSAN_OPTIONS": f"print_stacktrace=1:halt_on_error=1{log}",
    }


def raise_reports(folder):
    """Raises SanitizerReport with the reports in `folder`, and removes them."""
    reports = sorted(folder.glob("report*"))
    if reports:
        text = "\n".join(report.read_text(errors="replace") for report in reports)
        for report in reports:
            report.unlink()
        raise SanitizerReport(text)
