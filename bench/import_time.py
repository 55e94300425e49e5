"""Measures how long `import` takes beside a file that only has the same imports of the standard library.

    cmake --build --preset release --target bench_import

or, with the package folder on PYTHONPATH, `python bench/import_time.py [rounds]`. Each import runs in a new interpreter,
the two in turn, both from files in the page cache and with compiled bytecode where there is any.
"""

import pathlib
import statistics
import subprocess
import sys
import tempfile

from talvern_client.utils import json_database

PACKAGES = str(pathlib.Path(json_database.__file__).parents[2])
ONLY_IMPORTS = """\
import json
import os
from typing import Dict, List, Optional, Any, Union
from dataclasses import dataclass, field
import re
from datetime import datetime
"""
TIMED = """\
import sys
sys.path.insert(0, sys.argv[1])
from time import perf_counter
start = perf_counter()
import {}
print(perf_counter() - start)
"""


def milliseconds(folder, name):
    command = [sys.executable, "-I", "-c", TIMED.format(name), folder]
    return 1000 * float(subprocess.run(command, capture_output=True, text=True, check=True).stdout)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "only_imports.py").write_text(ONLY_IMPORTS)
        contenders = {"standard library alone": (folder, "only_imports"), "json_database": (PACKAGES, json_database.__name__)}
        for place, name in contenders.values():
            milliseconds(place, name)
        times = {label: [] for label in contenders}
        for _ in range(rounds):
            for label, (place, name) in contenders.items():
                times[label].append(milliseconds(place, name))
    for label, taken in times.items():
        print(f"{label:24}{statistics.median(taken):8.2f} ms  (fastest {min(taken):.2f})")
    alone, ours = map(statistics.median, times.values())
    print(f"{'difference':24}{ours - alone:8.2f} ms, ratio {ours / alone:.2f}, medians of {rounds}")


if __name__ == "__main__":
    main()
