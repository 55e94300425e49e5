"""From the numbers to tables: what was to be reached, everyone beside us, and growth.

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
# operation, rows, dividend, divisor, what must be reached, what is reached for; a floor is not to be exceeded
TARGETS = (
    ("insert", 100_000, "literal", "ours", 25, 40),
    ("update", 100_000, "literal", "ours", 25, 40),
    ("delete", 100_000, "literal", "ours", 25, 40),
    ("insert", 100_000, "ours", "floor", 2.5, 1.7),
    ("insert_memory", 100_000, "literal", "ours", 35, 60),
    ("insert", 1_000, "literal", "ours", 12, 20),
    ("insert", 1_000, "ours", "floor", 1.6, 1.3),
    ("insert", 0, "ours", "floor", 1.5, 1.2),
    ("by_unique", 100_000, "literal", "ours", 5, 12),
    ("get_row", 100_000, "literal", "ours", 5, 12),
    ("no_match", 100_000, "literal", "ours", 100, 180),
    ("one_percent", 100_000, "literal", "ours", 60, 120),
    ("select_all", 100_000, "literal", "ours", 8, 18),
    ("load", 100_000, "literal", "ours", 4, 7),
    ("display", 100_000, "literal", "ours", 40, 80),
    ("insert", 1_000, "sqlite3", "ours", 1.0, 1.5),
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


def targets(numbers):
    """(operation, rows, ratio's name, must, reach for, measured, whether it's a limit) of each target."""
    found = []
    for operation, count, dividend, divisor, must, reach in TARGETS:
        measured = ratio(numbers, count, operation, dividend, divisor)
        found.append((TITLES[operation], count, f"{dividend} / {divisor}", must, reach, measured, divisor == "floor"))
    memory = numbers["memory"].get("100000", {})
    ours, literal = memory.get("ours", {}), memory.get("literal", {})
    kept = ours["kept"] / literal["kept"] if ours.get("kept") and literal.get("kept") else None
    peak = ours["peak"] / 100_000 if ours.get("peak") is not None else None
    found.append(("memory kept by a load", 100_000, "ours / literal", 0.85, 0.7, kept, True))
    found.append(("memory for a while, one insert", 100_000, "bytes a row", 15, None, peak, True))
    return found


def table(head, lines):
    """A Markdown table that also reads well as it is; all columns but the first are set to the right."""
    widths = [max(len(line[i]) for line in [head, *lines]) for i in range(len(head))]

    def join(line):
        return "| " + " | ".join(cell.ljust(width) if not i else cell.rjust(width)
                                 for i, (cell, width) in enumerate(zip(line, widths))) + " |"

    rule = "|" + "|".join("-" * (width + 1) + ("-" if not i else ":") for i, width in enumerate(widths)) + "|"
    return "\n".join([join(head), rule, *map(join, lines)])


def target_table(numbers):
    lines = []
    for title, count, name, must, reach, measured, limit in targets(numbers):
        verdict = "not measured"
        if measured is not None:
            good, better = (measured <= bound if limit else measured >= bound for bound in (must, reach or must))
            verdict = ("as hoped" if better else "met") if good else "MISSED"
        sign = "≤" if limit else "≥"
        lines.append((title, f"{count:,}", name, f"{sign} {must:g}", f"{sign} {reach:g}" if reach else "a fixed buffer",
                      "–" if measured is None else figure(measured), verdict))
    return table(("operation", "rows", "ratio", "must", "reach for", "measured", ""), lines)


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
    """Bytes a row: what a load keeps, and what an insert needs for a while."""
    lines = []
    for count, weights in numbers["memory"].items():
        for what, title in ("kept", "kept by a load"), ("peak", "for a while, one insert"):
            cells = [weights.get(name, {}).get(what) for name in ("ours", "literal", "by hand")]
            lines.append((f"{title}, {int(count):,} rows",
                          *("–" if cell is None else f"{cell / int(count):,.1f}" for cell in cells)))
    return table(("bytes a row", "ours", "literal", "by hand"), lines) if lines else ""


def circumstances(numbers):
    machine, watch = numbers["machine"], numbers["watch"]
    parts = [f"{machine['processor']}, {machine['processors']} processors, {machine['system']}",
             f"CPython {machine['python']}", f"SQLite {machine['sqlite3']}",
             f"TinyDB {machine['TinyDB']}" if machine["TinyDB"] else "no TinyDB"]
    others = "" if watch["others"] is None else f"; other programs used {100 * watch['others']:.1f}% of the processors"
    return (f"{'; '.join(parts)}.\nLoad average {watch['load_before']:.2f} at the start, {watch['load_after']:.2f} at the"
            f" end{others}: {'the machine was quiet.' if watch['quiet'] else 'THE MACHINE WAS NOT QUIET, measure again.'}")


def text(numbers):
    parts = [circumstances(numbers), target_table(numbers),
             "Time of each, ours = 1: above 1 is slower than we are, below 1 is faster."]
    parts += [side_by_side(numbers, count) for count in sorted(map(int, numbers["times"])) if count < 1_000_000]
    parts += [growth(numbers), memory_table(numbers)]
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
