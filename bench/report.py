"""From the numbers to tables: everyone beside us, growth, an import, memory, and the bounds that changes have to keep.

`python bench/report.py numbers.json docs/performance.md` puts the tables and the machine between the two
markers of the document, so that no number is copied by hand.
"""

import json
import statistics
import sys

TITLES = {
    "insert": "insert",
    "insert_memory": "insert, file on a memory disk",
    "update": "update",
    "delete": "delete",
    "by_unique": "select by unique value",
    "get_row": "get_row",
    "get_row_anywhere": "get_row, all over the table",
    "no_match": "select, no match, unindexed",
    "one_percent": "select, 1% match, unindexed",
    "select_all": "select all",
    "display": "display_table, ten rows",
    "load": "load",
    "open": "load and find one row",
}
# operation, rows, dividend, divisor, bound: the ratio is at least that, or at most where the floor divides
BOUNDS = (
    ("insert", 100_000, "literal", "ours", 25),
    ("update", 100_000, "literal", "ours", 25),
    ("delete", 100_000, "literal", "ours", 25),
    ("insert", 100_000, "ours", "floor", 2.5),
    ("by_unique", 100_000, "literal", "ours", 5),
    ("get_row", 100_000, "literal", "ours", 5),
    ("no_match", 100_000, "literal", "ours", 100),
    ("one_percent", 100_000, "literal", "ours", 60),
    ("select_all", 100_000, "literal", "ours", 8),
    ("load", 100_000, "literal", "ours", 3),
    ("display", 100_000, "literal", "ours", 40),
)
MARKERS = "<!-- measured: begin -->", "<!-- measured: end -->"


def figure(value):
    if value >= 100:
        return f"{value:,.0f}"
    if value >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}" if value >= 0.095 else f"{value:.1g}"


def seconds(numbers, count, operation, name):
    """The median, or None where that was not measured."""
    samples = numbers["times"].get(str(count), {}).get(operation, {}).get(name)
    return statistics.median(samples) if samples else None


def ratio(numbers, count, operation, dividend, divisor):
    above = seconds(numbers, count, operation, dividend)
    below = seconds(numbers, count, operation, divisor)
    return above / below if above and below else None


def table(head, lines):
    """A Markdown table that also reads well as it is; all columns but the first are set to the right."""
    widths = [max(len(line[i]) for line in [head, *lines]) for i in range(len(head))]

    def join(line):
        return "| " + " | ".join(cell.ljust(width) if not i else cell.rjust(width)
                                 for i, (cell, width) in enumerate(zip(line, widths))) + " |"

    rule = "|" + "|".join("-" * (width + 1) + ("-" if not i else ":") for i, width in enumerate(widths)) + "|"
    return "\n".join([join(head), rule, *map(join, lines)])


def bounds_table(numbers):
    """What no change may fall short of; for those who change the module, so not in the document."""
    measured = [(TITLES[operation], count, dividend, divisor, bound, ratio(numbers, count, operation, dividend, divisor))
                for operation, count, dividend, divisor, bound in BOUNDS]
    memory = numbers["memory"].get("100000", {})
    ours, literal = (memory.get(name, {}).get("kept") for name in ("ours", "literal"))
    measured.append(("memory kept by a load", 100_000, "ours", "literal", 0.85, ours and literal and ours / literal))
    lines = []
    for title, count, dividend, divisor, bound, value in measured:
        at_most = dividend == "ours"
        verdict = "not measured" if not value else "kept" if (value <= bound if at_most else value >= bound) else "MISSED"
        lines.append((title, f"{count:,}", f"{dividend} / {divisor}", f"{'≤' if at_most else '≥'} {bound:g}",
                      figure(value) if value else "–", verdict))
    return table(("bound", "rows", "ratio", "", "measured", ""), lines)


def side_by_side(numbers, count):
    """Each one's time as a multiple of ours."""
    times = numbers["times"][str(count)]
    names = [name for name in max(times.values(), key=len) if name != "ours"]
    lines = []
    for operation in TITLES:
        if "ours" in times.get(operation, {}):
            ratios = [ratio(numbers, count, operation, name, "ours") for name in names]
            if any(ratios):
                lines.append((TITLES[operation], *("–" if value is None else figure(value) for value in ratios)))
    return table((f"{count:,} rows", *names), lines)


def growth(numbers):
    """Our own cost against that at 1,000 rows, and that of thirty columns against six."""
    counts = [count for count in (1_000, 10_000, 100_000, 1_000_000) if str(count) in numbers["times"]]
    if counts[:1] != [1_000] or len(counts) < 2:
        return ""
    lines = []
    for operation, title in TITLES.items():
        base = seconds(numbers, 1_000, operation, "ours")
        if base:
            costs = [seconds(numbers, count, operation, "ours") for count in counts[1:]]
            width = numbers.get("width", {}).get(operation)
            wide = statistics.median(width["wide"]) / statistics.median(width["narrow"]) if width else None
            lines.append((title, *("–" if cost is None else figure(cost / base) for cost in costs),
                          "–" if wide is None else figure(wide)))
    return table(("our time", *(f"{count:,} rows / 1,000" for count in counts[1:]), "30 columns / 6"), lines)


def memory_table(numbers):
    """Bytes a row: what a load keeps, and what one insert needs at its peak."""
    lines = []
    for count, weights in numbers["memory"].items():
        for what, title in ("kept", "kept by a load"), ("peak", "more at the peak of one insert"):
            cells = [weights.get(name, {}).get(what) for name in ("ours", "literal", "by hand")]
            lines.append((f"{title}, {int(count):,} rows",
                          *("–" if cell is None else f"{cell / int(count):,.1f}" for cell in cells)))
    return table(("bytes a row", "ours", "literal", "by hand"), lines) if lines else ""


def import_table(numbers):
    """Each way of importing a CSV file: its seconds, and as a multiple of sqlite3's, which comes first."""
    for count, samples in numbers.get("import", {}).items():
        times = {way: statistics.median(seconds) for way, seconds in samples.items()}
        base = next(iter(times.values()))
        lines = [(way, figure(seconds), figure(seconds / base)) for way, seconds in times.items()]
        return table((f"{int(count):,} rows from a CSV file", "seconds", "sqlite3 = 1"), lines)
    return ""


def circumstances(numbers):
    machine, watch = numbers["machine"], numbers["watch"]
    parts = [f"{machine['processor']}, {machine['processors']} processors, {machine['system']}",
             f"CPython {machine['python']}", f"SQLite {machine['sqlite3']}",
             f"TinyDB {machine['TinyDB']}" if machine["TinyDB"] else "no TinyDB"]
    others = "" if watch["others"] is None else f"; other programs used {100 * watch['others']:.1f}% of the processors"
    return (f"{'; '.join(parts)}.\nLoad average {watch['load_before']:.2f} at the start, {watch['load_after']:.2f} at the"
            f" end{others}: {'the machine was quiet.' if watch['quiet'] else 'THE MACHINE WAS NOT QUIET, measure again.'}")


def text(numbers):
    parts = [circumstances(numbers),
             "Time of each, ours = 1: above 1 is slower than we are, below 1 is faster."]
    parts += [side_by_side(numbers, count) for count in sorted(map(int, numbers["times"])) if count < 1_000_000]
    parts += [growth(numbers), import_table(numbers), memory_table(numbers)]
    return "\n\n".join(part for part in parts if part)


def put_into(document, numbers):
    with open(document, encoding="utf-8") as file:
        before, rest = file.read().split(MARKERS[0])
        _, after = rest.split(MARKERS[1])
    with open(document, "w", encoding="utf-8") as file:
        file.write(f"{before}{MARKERS[0]}\n\n{text(numbers)}\n\n{MARKERS[1]}{after}")


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        put_into(sys.argv[2], json.load(source))
