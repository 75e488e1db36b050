"""Growth as a plot: an SVG document with logarithmic axes, light or dark as the page."""

import math
from html import escape

# In the units of the SVG's view box.
PANEL_WIDTH, PANEL_HEIGHT = 300, 220
LEFT, TOP, BOTTOM, GAP = 56, 34, 44, 76
COLOURS = ["#2f7ed8", "#d9772b", "#4b9a4b", "#a561b8"]


class Panel:
    """Curves on logarithmic axes: `curves` are (name, [(x, least, middle, greatest)])."""

    def __init__(self, left, title, x_title, curves):
        self._left = left
        self._title = title
        self._x_title = x_title
        self._curves = curves
        points = [point for _, points in curves for point in points]
        self._x_range = _decades([x for x, *_ in points])
        self._y_range = _decades([y for _, *ys in points for y in ys])

    def svg(self):
        """The panel's elements."""
        return "\n".join([*self._frame(), *self._grid(), *self._lines()])

    def _place(self, x, y):
        def part(value, bounds):
            low, high = map(math.log10, bounds)
            return (math.log10(value) - low) / (high - low)
        return (self._left + PANEL_WIDTH * part(x, self._x_range),
                TOP + PANEL_HEIGHT * (1 - part(y, self._y_range)))

    def _frame(self):
        middle = self._left + PANEL_WIDTH / 2
        yield (f'<rect x="{self._left}" y="{TOP}" width="{PANEL_WIDTH}" height="{PANEL_HEIGHT}" '
               'class="axis"/>')
        yield f'<text x="{middle}" y="{TOP - 14}" class="title">{escape(self._title)}</text>'
        yield (f'<text x="{middle}" y="{TOP + PANEL_HEIGHT + 36}" class="label">'
               f'{escape(self._x_title)}</text>')
        yield (f'<text transform="translate({self._left - 44},{TOP + PANEL_HEIGHT / 2}) '
               'rotate(-90)" class="label">seconds</text>')

    def _grid(self):
        for x in _powers(self._x_range):
            place, _ = self._place(x, self._y_range[0])
            yield f'<path d="M{place:.1f} {TOP}v{PANEL_HEIGHT}" class="grid"/>'
            yield (f'<text x="{place:.1f}" y="{TOP + PANEL_HEIGHT + 16}" class="label">'
                   f'{_number(x)}</text>')
        for y in _powers(self._y_range):
            _, place = self._place(self._x_range[0], y)
            yield f'<path d="M{self._left} {place:.1f}h{PANEL_WIDTH}" class="grid"/>'
            yield (f'<text x="{self._left - 6}" y="{place + 4:.1f}" class="number">'
                   f'{_number(y)}</text>')

    def _lines(self):
        # The first curve is ours: drawn last, it lies above the others.
        for index, (name, points) in reversed(list(enumerate(self._curves))):
            colour = COLOURS[index % len(COLOURS)]
            places = [self._place(x, y) for x, _, y, _ in points]
            yield (f'<polyline points="{" ".join(f"{x:.1f},{y:.1f}" for x, y in places)}" '
                   f'fill="none" stroke="{colour}" stroke-width="2"/>')
            for (x, least, _, greatest), (place, height) in zip(points, places):
                low, high = self._place(x, least)[1], self._place(x, greatest)[1]
                yield f'<path d="M{place:.1f} {low:.1f}V{high:.1f}" stroke="{colour}"/>'
                yield f'<circle cx="{place:.1f}" cy="{height:.1f}" r="3.5" fill="{colour}"/>'
            line = TOP + 16 + 16 * index
            yield (f'<path d="M{self._left + 10} {line}h18" stroke="{colour}" stroke-width="2"/>'
                   f'<text x="{self._left + 34}" y="{line + 4}" class="name">{escape(name)}</text>')


def plot(panels):
    """An SVG document with the panels (title, x_title, curves) side by side."""
    width = LEFT + len(panels) * (PANEL_WIDTH + GAP)
    drawn = [Panel(LEFT + index * (PANEL_WIDTH + GAP), *panel).svg()
             for index, panel in enumerate(panels)]
    height = TOP + PANEL_HEIGHT + BOTTOM
    return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}"
     font-family="sans-serif" font-size="12">
<style>
text {{ fill: #333 }} .axis {{ fill: none; stroke: #888 }} .grid {{ stroke: #8886; stroke-width: .5 }}
.title {{ text-anchor: middle; font-weight: bold }} .label {{ text-anchor: middle }}
.number {{ text-anchor: end }}
@media (prefers-color-scheme: dark) {{ text {{ fill: #ccc }} }}
</style>
""" + "\n".join(drawn) + "\n</svg>\n"


def _decades(values):
    """The powers of ten around the values."""
    low = math.floor(math.log10(min(values)))
    high = math.ceil(math.log10(max(values)))
    return 10.0 ** low, 10.0 ** max(high, low + 1)


def _powers(bounds):
    low, high = (round(math.log10(bound)) for bound in bounds)
    return [10.0 ** power for power in range(low, high + 1)]


def _number(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"
