"""Statistics, verdicts and tables of the benchmarks."""

import math
import re
import statistics
from typing import NamedTuple, Optional

MARKER = "<!-- {edge} measured by scripts/bench.sh -->"


def median(samples, key):
    """The median of one measure of some runs."""
    return statistics.median(sample[key] for sample in samples)


def ratio(ours, theirs, key):
    """The median of the ratios of paired runs."""
    return statistics.median(mine[key] / other[key] for mine, other in zip(ours, theirs))


def ratio_spread(ours, theirs, key):
    """The least and the greatest ratio of paired runs."""
    return spread([{key: mine[key] / other[key]} for mine, other in zip(ours, theirs)], key)


def difference(ours, theirs, key):
    """The median of the differences of paired runs."""
    return statistics.median(mine[key] - other[key] for mine, other in zip(ours, theirs))


def greatest(samples, key):
    """The greatest of one measure of some runs."""
    return max(sample[key] for sample in samples)


def spread(samples, key, digits=2):
    """The least and the greatest of one measure of some runs."""
    values = [sample[key] for sample in samples]
    return f"{min(values):.{digits}f}..{max(values):.{digits}f}"


def exponent(points):
    """The slope of the least squares line through the logarithms of (x, y): 1 when y grows as x."""
    logs = [(math.log(x), math.log(y)) for x, y in points]
    mean_x = statistics.mean(x for x, _ in logs)
    mean_y = statistics.mean(y for _, y in logs)
    return (sum((x - mean_x) * (y - mean_y) for x, y in logs) /
            sum((x - mean_x) ** 2 for x, _ in logs))


def exponent_beyond(points, fixed):
    """The exponent of what y is beyond a fixed cost. Points no greater than the cost say nothing and
    are left out; None when that leaves fewer than two."""
    beyond = [(x, y - fixed) for x, y in points if y > fixed]
    return exponent(beyond) if len(beyond) > 1 else None


def table(title, rows):
    """The rows as text, under the title, the first row being the header."""
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = [title]
    for row in rows:
        lines.append("  " + "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    return "\n".join(lines)


class Verdict(NamedTuple):
    """One goal: whether the value, which is None when it could not be measured, is within the limit.
    `spread` is the range of the runs' values."""

    what: str
    value: Optional[float]
    limit: float
    unit: str = ""
    spread: str = ""

    def __str__(self):
        if self.value is None:
            return f"not measured: {self.what}"
        word = "met" if self.value <= self.limit else "missed"
        # Ratios and exponents lie near their limits.
        digits = 2 if self.unit else 3
        between = f" ({self.spread})" if self.spread else ""
        return (f"{word}: {self.what}: {self.value:.{digits}f}{self.unit}{between} "
                f"of at most {self.limit:.{digits}f}{self.unit}")


def tables_of(report):
    """The tables of a report: (title, rows), each row a dictionary by the names of the columns."""
    found = []
    for part in report.split("\n\n"):
        title, *lines = part.splitlines()
        cells = [re.split(r" {2,}", line.strip()) for line in lines if line.startswith("  ")]
        if cells:
            found.append((title, [dict(zip(cells[0], row)) for row in cells[1:]]))
    return found


def ratios_of(report):
    """The ratios of a report as a Markdown table: what ours takes, divided by what each peer takes."""
    lines = ["| kpim or finalizer, divided by | 7zz | xz | bsdtar |", "|---|---|---|---|"]
    for title, rows in tables_of(report):
        # Growth has tables of its own, with other columns.
        if rows and "our wall / its" in rows[0]:
            lines += _ratio_lines(title.split(":")[0], *rows)
    return "\n".join(lines)


def _ratio_lines(tree, ours, *peers):
    """The ratios in one table, whose first row is ours."""
    kind, name = next(iter(ours.items()))
    memory = [str(float(ours["peak MiB"]) / float(peer["peak MiB"])) for peer in peers]
    if "threads" in name:
        yield _ratio_line(f"pack `{tree}` with two threads, wall time", _column(peers, "our wall / its"))
        yield _ratio_line(f"pack `{tree}` with two threads, CPU time", _column(peers, "our CPU / its"))
    elif kind == "packing":
        yield _ratio_line(f"pack `{tree}`, CPU time", _column(peers, "our CPU / its"))
        yield _ratio_line(f"pack `{tree}`, size of the blob", _column(peers, "our bytes / its"))
    elif kind == "extraction":
        yield _ratio_line(f"extract `{tree}`, wall time", _column(peers, "our wall / its"))
        yield _ratio_line(f"extract `{tree}`, CPU time", _column(peers, "our CPU / its"))
        yield _ratio_line(f"extract `{tree}`, peak memory", memory)
    else:
        yield _ratio_line("extract one tiny file, wall time", _column(peers, "our wall / its"))


def _column(rows, name):
    return [row[name] for row in rows]


def _ratio_line(what, ratios):
    """A row of three peers at most; bsdtar does not pack."""
    cells = [f"{float(each):.2f}" for each in ratios[:3]]
    return f"| {what} | {' | '.join([*cells, '', ''][:3])} |"


def between_markers(document, text):
    """The document with what is between its markers replaced by `text`."""
    begin, end = MARKER.format(edge="begin"), MARKER.format(edge="end")
    if document.count(begin) != 1 or document.count(end) != 1:
        raise ValueError("the document does not have each marker once")
    head, rest = document.split(begin)
    tail = rest.split(end)[1]
    return f"{head}{begin}\n\n{text.strip()}\n\n{end}{tail}"
