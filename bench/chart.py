"""The chart of docs/performance.md, drawn from the numbers: `python bench/chart.py numbers.json chart.svg`.

Top: everyone's time for each operation as a multiple of ours. Below: an insert against the bare writing of the
file, and our own cost as the table grows. All axes are logarithmic; each grid line is ten times the one before.
Colours change with the viewer's colour scheme, so they are classes; shapes tell the contenders apart without them.
"""

import json
import math
import sys
from xml.sax.saxutils import escape

import report

WIDTH = 960
MARGIN = 28
ROW = 25
GROUPS = (
    ("Changes", ("insert", "update", "delete", "insert_memory")),
    ("Look-ups", ("by_unique", "get_row")),
    ("Scans", ("no_match", "one_percent", "select_all", "display")),
    ("Starting", ("load", "open")),
)
NAMES = {
    "literal": "plain Python",
    "by hand": "by hand: list, json.dumps",
    "TinyDB": "TinyDB",
    "sqlite3": "sqlite3",
    "floor": "write and flush only",
}
GROWING = ("load", "no_match", "insert", "by_unique", "get_row")

#        light      dark
COLOURS = {
    "page": ("#ffffff", "#14181f"),
    "edge": ("#d9dee5", "#2c3440"),
    "grid": ("#e9edf2", "#232a35"),
    "band": ("#f5f7fa", "#1a2029"),
    "ink": ("#1b2430", "#e8edf4"),
    "soft": ("#5d6b7c", "#97a5b7"),
    "ours": ("#0f766e", "#2dd4bf"),
    "literal": ("#d9480f", "#ff9158"),
    "by-hand": ("#8b5cf6", "#b79bff"),
    "TinyDB": ("#b58105", "#f2c94c"),
    "sqlite3": ("#1d6fd1", "#6db3ff"),
    "floor": ("#5d6b7c", "#97a5b7"),
}


def style():
    def rules(turn):
        parts = []
        for name, shades in COLOURS.items():
            parts.append(f".f-{name}{{fill:{shades[turn]}}}.s-{name}{{stroke:{shades[turn]}}}")
        return "".join(parts)

    return ("<style>text{font-family:system-ui,-apple-system,'Segoe UI',Helvetica,Arial,'DejaVu Sans',sans-serif}"
            f"polyline{{fill:none}}{rules(0)}@media (prefers-color-scheme:dark){{{rules(1)}}}</style>")


def css(name):
    return name.replace(" ", "-")


def number(value):
    return f"{value:.1f}".rstrip("0").rstrip(".")


def words(x, y, content, colour="ink", size=12, anchor="start", weight=400):
    return (f'<text x="{number(x)}" y="{number(y)}" class="f-{colour}" font-size="{size}" text-anchor="{anchor}"'
            f' font-weight="{weight}">{escape(content)}</text>')


def line(x1, y1, x2, y2, colour, width=1.0, dashes=""):
    dashes = dashes and f' stroke-dasharray="{dashes}"'
    return (f'<line x1="{number(x1)}" y1="{number(y1)}" x2="{number(x2)}" y2="{number(y2)}" class="s-{colour}"'
            f' stroke-width="{width}"{dashes}/>')


def box(x, y, width, height, colour, round_by=0, edge=None):
    edge = f' class="f-{colour} s-{edge}"' if edge else f' class="f-{colour}"'
    return (f'<rect x="{number(x)}" y="{number(y)}" width="{number(width)}" height="{number(height)}"'
            f' rx="{round_by}"{edge}/>')


def mark(name, x, y, size=5.2):
    """The contender's shape, with a rim in the page's colour where marks overlap."""
    shapes = {
        "literal": lambda r: [(r * math.cos(a), r * math.sin(a)) for a in (i * math.pi / 12 for i in range(24))],
        "by hand": lambda r: [(-r * .88, -r * .88), (r * .88, -r * .88), (r * .88, r * .88), (-r * .88, r * .88)],
        "TinyDB": lambda r: [(0, -r * 1.15), (r * 1.1, r * .85), (-r * 1.1, r * .85)],
        "sqlite3": lambda r: [(0, -r * 1.25), (r * 1.25, 0), (0, r * 1.25), (-r * 1.25, 0)],
        "floor": lambda r: [(-r * .3, -r * 1.4), (r * .3, -r * 1.4), (r * .3, r * 1.4), (-r * .3, r * 1.4)],
        "ours": lambda r: [(r * math.cos(a), r * math.sin(a)) for a in (i * math.pi / 12 for i in range(24))],
    }
    points = " ".join(f"{number(x + dx)},{number(y + dy)}" for dx, dy in shapes[name](size))
    return f'<polygon points="{points}" class="f-{css(name)} s-page" stroke-width="1"/>'


def stem(x1, x2, y, colour):
    return (f'<line x1="{number(x1)}" y1="{number(y)}" x2="{number(x2)}" y2="{number(y)}" class="s-{colour}"'
            ' stroke-width="4" stroke-opacity="0.22"/>')


def arrow(name, x, y, direction, label):
    """A value beyond the axis: an arrow at the edge, with the value beside it."""
    tip = x + 7 * direction
    return (f'<path d="M{number(x)} {number(y - 4)}L{number(tip)} {number(y)}L{number(x)} {number(y + 4)}Z"'
            f' class="f-{css(name)}"/>'
            + words(x - 5 * direction, y + 4, label, css(name), 10.5, "end" if direction > 0 else "start", 600))


def times(value):
    if value >= 1_000_000:
        return f"{value / 1e6:.1f}M×"
    if value >= 10_000:
        return f"{value / 1e3:,.0f}k×"
    return f"{value:,.0f}×" if value >= 10 else f"{value:.1f}×" if value >= 1 else f"{value:.1g}×"


class Log:
    """Places values between two ends of a logarithmic axis."""

    def __init__(self, low, high, start, end):
        self.low, self.high, self.start, self.end = low, high, start, end

    def __call__(self, value):
        share = math.log10(value / self.low) / math.log10(self.high / self.low)
        return self.start + (self.end - self.start) * share

    def decades(self):
        return [10.0 ** power for power in range(math.ceil(math.log10(self.low)), math.floor(math.log10(self.high)) + 1)]


def side_by_side(numbers, count, top):
    """The plot of marks; returns its parts and where it ends."""
    parts = []
    left, right = 232, WIDTH - 92
    axis = Log(0.009, 1100, left, right)
    names = [name for name in NAMES if any(report.ratio(numbers, count, operation, name, "ours")
                                           for _, operations in GROUPS for operation in operations)]
    for slot, name in enumerate(names):
        x = MARGIN + 10 + slot * (WIDTH - 2 * MARGIN) / len(names)
        parts += [mark(name, x, top - 4), words(x + 12, top, NAMES[name], "ink", 12)]
    y = start = top + 58
    rows = []
    for title, operations in GROUPS:
        shown = [operation for operation in operations if report.seconds(numbers, count, operation, "ours")]
        if shown:
            rows.append((y, title, None))
            y += 21
            rows += [(y + i * ROW, report.TITLES[operation], operation) for i, operation in enumerate(shown)]
            y += ROW * len(shown) + 10
    end = y - 14
    parts.append(box(left, start - 16, axis(1) - left, end - start + 16, "band"))
    for decade in axis.decades():
        parts += [line(axis(decade), start - 16, axis(decade), end, "grid"),
                  words(axis(decade), end + 16, f"{decade:,g}×", "soft", 11, "middle")]
    parts.append(line(axis(1), start - 22, axis(1), end, "ours", 2.5))
    parts.append(words(axis(1), start - 28, "json_database = 1", "ours", 12, "middle", 700))
    parts += [words(axis(1) - 74, start - 28, "← faster than we are", "soft", 11, "end"),
              words(axis(1) + 74, start - 28, "slower than we are →", "soft", 11),
              words(WIDTH - MARGIN, start - 28, "plain Python", "literal", 11, "end", 600)]
    for y, title, operation in rows:
        if operation is None:
            parts.append(words(MARGIN, y, title, "soft", 11, weight=600))
            continue
        parts += [words(MARGIN + 10, y + 4, title, "ink", 12.5), line(left, y, right, y, "grid")]
        value = report.ratio(numbers, count, operation, "literal", "ours")
        if value:
            parts += [stem(axis(1), axis(min(value, axis.high)), y, "literal"),
                      words(WIDTH - MARGIN, y + 4, times(value), "literal", 12.5, "end", 700)]
        ends = {-1: left + 7, 1: right - 7}
        for name in reversed(names):
            value = report.ratio(numbers, count, operation, name, "ours")
            if value and axis.low <= value <= axis.high:
                parts.append(mark(name, axis(value), y))
            elif value:
                side = 1 if value > axis.high else -1
                parts.append(arrow(name, ends[side], y, side, times(value)))
                ends[side] -= side * 58
    return parts, end + 26


def frame(parts, x_axis, y_axis, x_labels, y_label):
    for decade in y_axis.decades():
        parts += [line(x_axis[0], y_axis(decade), x_axis[1], y_axis(decade), "grid"),
                  words(x_axis[0] - 8, y_axis(decade) + 4, y_label(decade), "soft", 11, "end")]
    for x, label in x_labels:
        parts.append(words(x, y_axis.start + 18, label, "soft", 11, "middle"))


def apart(places, distance=14):
    """Labels' heights, moved so that none covers another."""
    order = sorted(places)
    heights = {}
    above = -math.inf
    for y, name in order:
        above = max(y, above + distance)
        heights[name] = above
    excess = max(0, (above - order[-1][0]) / 2) if order else 0
    return {name: height - excess for name, height in heights.items()}


def curves(parts, series, labels, marks=False):
    """Polylines with their names at the right end."""
    ends = apart([(points[-1][1], name) for name, points in series.items()])
    for name, points in series.items():
        colour = css(name) if css(name) in COLOURS else "ours"
        width = 2.6 if name == "ours" else 1.8
        path = " ".join(f"{number(x)},{number(y)}" for x, y in points)
        parts.append(f'<polyline points="{path}" class="s-{colour}" stroke-width="{width}" stroke-linejoin="round"/>')
        for x, y in points:
            parts.append(mark(name if marks else "ours", x, y, 4))
        x, y = points[-1]
        parts.append(words(x + 11, ends[name] + 4, labels[name], colour, 12, weight=700 if name == "ours" else 400))


def insert_panel(numbers, top, left, right, height):
    counts = [count for count in (0, 1_000, 10_000, 100_000) if str(count) in numbers["times"]]
    parts = [words(left, top, "One insert, as a multiple of the bare writing", "ink", 15, weight=700),
             words(left, top + 18, "of the file: below 1 = not flushed, or only a part written", "soft", 12)]
    start, end = left + 56, right - 104
    series = {}
    for name in ("ours", "literal", "by hand", "TinyDB", "sqlite3"):
        values = [report.ratio(numbers, count, "insert", name, "floor") for count in counts]
        if all(values):
            series[name] = values
    every = [value for values in series.values() for value in values]
    low, high = 10 ** math.floor(math.log10(min(every))), 10 ** math.ceil(math.log10(max(every)))
    axis = Log(low, high, top + 40 + height, top + 40)
    places = [start + (end - start) * i / max(1, len(counts) - 1) for i in range(len(counts))]
    frame(parts, (start - 10, end + 4), axis, [(x, "empty" if not count else f"{count:,}") for x, count in zip(places, counts)],
          lambda decade: f"{decade:,g}×")
    parts.append(line(start - 10, axis(1), end + 4, axis(1), "floor", 1.5, "5 4"))
    curves(parts, {name: [(x, axis(value)) for x, value in zip(places, values)] for name, values in series.items()},
           {**{name: name for name in series}, "ours": "json_database", "literal": "plain Python"}, marks=True)
    return parts


def growth_panel(numbers, top, left, right, height):
    counts = [count for count in (1_000, 10_000, 100_000, 1_000_000) if str(count) in numbers["times"]]
    parts = [words(left, top, "Our own cost as the table grows", "ink", 15, weight=700),
             words(left, top + 18, "1 = the same call at 1,000 rows; dashed: in proportion", "soft", 12)]
    start, end = left + 56, right - 118
    x_axis = Log(counts[0], counts[-1], start, end)
    highest = counts[-1] / counts[0]
    measured = {operation: [report.seconds(numbers, count, operation, "ours") for count in counts] for operation in GROWING}
    measured = {operation: values for operation, values in measured.items() if all(values)}
    every = [value / values[0] for values in measured.values() for value in values]
    axis = Log(min(0.5, *every), max(highest * 2, *every), top + 40 + height, top + 40)
    frame(parts, (start - 10, end + 4), axis, [(x_axis(count), f"{count:,}") for count in counts], lambda decade: f"{decade:,g}×")
    parts.append(line(x_axis(counts[0]), axis(1), x_axis(counts[-1]), axis(highest), "floor", 1.5, "5 4"))
    series = {operation: [(x_axis(count), axis(value / values[0])) for count, value in zip(counts, values)]
              for operation, values in measured.items()}
    labels = {operation: report.TITLES[operation] for operation in series}
    labels["no_match"] = "select, scanning"
    labels["by_unique"] = "select, unique"
    curves(parts, series, labels)
    return parts


def chart(numbers):
    sizes = [int(size) for size in numbers["times"] if 0 < int(size) < 1_000_000]
    count = max(sizes)
    parts, y = side_by_side(numbers, count, 100)
    parts = [words(MARGIN, 42, f"Time per operation with {count:,} rows", "ink", 22, weight=700),
             words(MARGIN, 64, "everyone's time divided by ours, in one run on one machine; each grid line is ten times"
                               " the one before", "soft", 13)] + parts
    if len(sizes) > 1 and "0" in numbers["times"]:
        parts.append(line(MARGIN, y + 12, WIDTH - MARGIN, y + 12, "edge"))
        y += 46
        middle = WIDTH / 2
        parts += insert_panel(numbers, y, MARGIN, middle - 6, 190)
        parts += growth_panel(numbers, y, middle + 24, WIDTH - MARGIN, 190)
        y += 270
    page = box(0.5, 0.5, WIDTH - 1, y - 1, "page", 10, "edge")
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {y:.0f}" width="{WIDTH}" height="{y:.0f}" role="img"'
            f' aria-label="Time per operation of json_database and others">\n{style()}\n{page}\n' + "\n".join(parts)
            + "\n</svg>\n")


def draw(target, numbers):
    with open(target, "w", encoding="utf-8") as file:
        file.write(chart(numbers))


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        draw(sys.argv[2], json.load(source))
