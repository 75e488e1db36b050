#!/usr/bin/python3
"""Makes a picture of a terminal, an SVG document, of what scripts/demo.sh prints: from standard input to
standard output. Lines appear one after another where a viewer shows animations; otherwise all are there."""

import re
import sys
import textwrap
from html import escape

COLUMNS = 112
# In the units of the SVG's view box.
CHARACTER, LINE, MARGIN, BAR = 7.2, 17, 16, 28
# Seconds from one line to the next, and before a section.
LINE_PAUSE, SECTION_PAUSE = 0.06, 0.7

COMMAND = "$ scripts/demo.sh"
SECTION = "-- "
# The folder that each run of the demo makes for itself.
WORK_FOLDER = re.compile(r"/\S*/kpinstall-demo-\w+/")

STYLE = """
text { font: 12px ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; fill: #d4d4d4 }
.section { fill: #6fb3ff } .command, .good { fill: #7ec699 } .bad { fill: #ff7b72 }
@keyframes appear { from { opacity: 0 } }
text { animation: appear .05s backwards }
@media (prefers-reduced-motion: reduce) { text { animation: none } }
"""


def class_of(line):
    """How a line is coloured; empty for most."""
    if line.startswith(SECTION):
        return "section"
    if line == COMMAND:
        return "command"
    if "FAILED" in line or "[E]" in line:
        return "bad"
    return "good" if "succeeded]" in line or "no difference" in line else ""


def wrapped(output):
    """The lines of the terminal, with the class of each."""
    lines = [(COMMAND, class_of(COMMAND))]
    for line in WORK_FOLDER.sub("", output).splitlines():
        parts = textwrap.wrap(line, COLUMNS, drop_whitespace=False, break_on_hyphens=False) or [""]
        lines += [(part, class_of(line)) for part in parts]
    return lines


def picture(output):
    """The SVG document."""
    lines = wrapped(output)
    width = COLUMNS * CHARACTER + 2 * MARGIN
    height = BAR + MARGIN + len(lines) * LINE
    drawn, moment = [], 0.0
    for number, (line, kind) in enumerate(lines, 1):
        moment += SECTION_PAUSE if kind == "section" else LINE_PAUSE
        if line.strip():
            # The length keeps columns in place whatever the font's width is.
            drawn.append(
                f'<text x="{MARGIN}" y="{BAR + number * LINE}" textLength="{len(line) * CHARACTER:.1f}"'
                f' xml:space="preserve" style="animation-delay:{moment:.2f}s"'
                f'{f" class={chr(34)}{kind}{chr(34)}" if kind else ""}>{escape(line)}</text>')
    dots = "".join(f'<circle cx="{MARGIN + 18 * index}" cy="14" r="5" fill="{colour}"/>'
                   for index, colour in enumerate(("#ff5f56", "#ffbd2e", "#27c93f")))
    return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}">
<title>What scripts/demo.sh prints</title>
<style>{STYLE}</style>
<rect width="100%" height="100%" rx="6" fill="#1e1e1e"/>
{dots}
""" + "\n".join(drawn) + "\n</svg>\n"


if __name__ == "__main__":
    sys.stdout.write(picture(sys.stdin.read()))
