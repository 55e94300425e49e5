"""Measures the module beside what one would use instead, prints ratios, and writes the numbers as JSON.

    cmake --workflow --preset bench

or, with the package folder on PYTHONPATH, `python bench/run.py --help`.
"""

import argparse
import filecmp
import json
import multiprocessing
import os
import platform
import shutil
import sqlite3
import sys
import tempfile

import chart
import contenders
import csv_import
import measure
import report

OPERATIONS = ("insert", "insert_memory", "update", "delete", "by_unique", "get_row", "get_row_anywhere", "no_match", "one_percent",
              "select_all", "display")
ROUNDS = {0: 25, 1_000: 25, 10_000: 15, 100_000: 11, 1_000_000: 5}
BUDGET = 1.2  # seconds for one contender's samples of one operation, unless three samples take longer
WIDE = 30


class Place:
    """A folder per contender on the disk, and one on a disk in memory where the machine has that."""

    def __init__(self, disk, memory):
        self.disk = tempfile.mkdtemp(prefix="files-", dir=disk)
        self.memory = memory and tempfile.mkdtemp(prefix="bench-", dir=memory)

    def at(self, name, count, base=None):
        path = os.path.join(base or self.disk, f"{name} {count}")
        os.makedirs(path, exist_ok=True)
        return path

    def in_memory(self, name, count):
        return self.memory and self.at(name, count, self.memory)

    def remove(self):
        shutil.rmtree(self.disk)
        if self.memory:
            shutil.rmtree(self.memory)


def measure_size(place, count, names):
    """{operation: {name: samples}} for tables of that many rows."""
    operations = [operation for operation in (OPERATIONS if count else ("insert",))
                  if operation != "insert_memory" or place.memory]
    rounds = ROUNDS[count]
    results = {}
    options = {name: {"memory": place.in_memory(name, count)} for name in ("ours", "literal", "by hand", "floor")}
    databases = [name for name in names if name != "floor"]

    def start(prepare):
        return [measure.Worker(name, place.at(name, count), count, prepare=prepare, **options.get(name, {}))
                for name in databases]

    def measure_all(workers, operations):
        for operation in operations:
            results[operation] = measure.interleaved(workers, operation, rounds, BUDGET)
        for worker in workers:
            worker.stop()

    fillers = start("fill")
    for worker in fillers:
        worker.stop()
    files = {worker.name: worker.path for worker in fillers}
    if "literal" in files and not filecmp.cmp(files["ours"], files["literal"], shallow=False):
        raise AssertionError("the module and the literal program write different files")
    if count:
        # A load is measured where nothing is loaded yet: as at the start of a program.
        measure_all(start(None), ("load", "open"))
    workers = start("use")
    workers.append(measure.Worker("floor", place.at("floor", count), count, like=files["ours"], **options["floor"]))
    measure_all(workers, operations)
    return results


def measure_width(place, count):
    """{operation: {label: samples}} of our module with six columns and with thirty."""
    results = {}
    stages = (("fill", ()), (None, ("load",)), ("use", ("insert", "no_match", "select_all", "by_unique", "get_row")))
    for prepare, operations in stages:
        workers = [measure.Worker("ours", place.at(label, count), count, prepare=prepare, label=label, width=width)
                   for label, width in (("narrow", 6), ("wide", WIDE))]
        for operation in operations:
            results[operation] = measure.interleaved(workers, operation, ROUNDS[count], BUDGET)
        for worker in workers:
            worker.stop()
    return results


def machine():
    processor = platform.processor() or platform.machine()
    try:
        with open("/proc/cpuinfo") as file:
            processor = next(line.split(":", 1)[1].strip() for line in file if line.startswith("model name"))
    except (OSError, StopIteration):
        pass
    tinydb = contenders.find_tinydb()
    return {"processor": processor, "processors": os.cpu_count(), "system": f"{platform.system()} {platform.machine()}",
            "python": platform.python_version(), "sqlite3": sqlite3.sqlite_version,
            "TinyDB": getattr(tinydb, "__version__", None)}


def arguments():
    memory = os.environ.get("BENCH_MEMORY_DISK", "/dev/shm")
    parser = argparse.ArgumentParser(description="Measure json_database beside what one would use instead.")
    parser.add_argument("--output", default="numbers.json", help="the file for the numbers (%(default)s)")
    parser.add_argument("--folder", default=".", help="where the databases are while it runs (the current folder)")
    parser.add_argument("--memory-disk", default=memory if os.path.isdir(memory) else None, metavar="FOLDER",
                        help="a folder on a disk in memory (%(default)s)")
    parser.add_argument("--sizes", type=int, nargs="+", default=[0, 1_000, 10_000, 100_000], choices=sorted(ROUNDS))
    parser.add_argument("--docs", metavar="FOLDER", help="bring performance.md and its chart there up to date")
    parser.add_argument("--million", action="store_true", help="our module with 1,000,000 rows, too")
    return parser.parse_args()


def main():
    options = arguments()
    try:
        from talvern_client.utils import json_database  # noqa: F401
    except ImportError as error:
        sys.exit(f"bench/run.py: {error}\nRun `cmake --workflow --preset bench`, or put the package folder on PYTHONPATH.")
    multiprocessing.set_start_method("spawn")
    watch = measure.Watch()
    place = Place(options.folder, options.memory_disk)
    names = [name for name in contenders.CONTENDERS if name != "TinyDB" or contenders.find_tinydb()]
    numbers = {"machine": machine(), "times": {}, "memory": {}}
    try:
        for count in options.sizes:
            print(f"{count:,} rows ...", flush=True)
            numbers["times"][count] = measure_size(place, count, names)
        if options.million:
            print("1,000,000 rows, our module only ...", flush=True)
            numbers["times"][1_000_000] = measure_size(place, 1_000_000, ["ours", "floor"])
        if 10_000 in options.sizes:
            print(f"{WIDE} columns ...", flush=True)
            numbers["width"] = measure_width(place, 10_000)
            print(f"CSV file of {csv_import.COUNT:,} rows ...", flush=True)
            numbers["import"] = {csv_import.COUNT: csv_import.measure_all(place.disk)}
        print("memory ...", flush=True)
        for count in [count for count in numbers["times"] if count >= 100_000]:
            numbers["memory"][count] = {
                name: measure.memory(name, place.at(name, count), count)
                for name in ("ours", "literal", "by hand") if name == "ours" or count < 1_000_000}
    finally:
        place.remove()
    numbers["watch"] = watch.report()
    with open(options.output, "w", encoding="utf-8") as file:
        json.dump(numbers, file, indent=1)
    with open(options.output, encoding="utf-8") as file:
        numbers = json.load(file)
    print("\n" + report.text(numbers))
    print("\n" + report.bounds_table(numbers))
    if options.docs:
        report.put_into(os.path.join(options.docs, "performance.md"), numbers)
        chart.draw(os.path.join(options.docs, "performance.svg"), numbers)
    print(f"\nThe numbers are in {os.path.abspath(options.output)}")


if __name__ == "__main__":
    main()
