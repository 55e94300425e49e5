"""Interrupts, threads, other processes and the exit."""

import contextlib
import io
import json
import multiprocessing
import os
import random
import signal
import sys
import tempfile
import threading
import time
import unittest

from fault_support import (
    LONG, OPERATIONS, PATH, FaultTest, disagreement, fresh, listing, outcome, read, reset, saved)
from support import JSONDatatable, run_python
from test_hostile_objects import table


def grown(size):
    db = fresh()
    db.tables["t"].rows = [[row, str(row), None, row / 2] for row in range(size)]
    db._build_indexes("t")
    return db


LONG_TEXT = "x" * 10 ** 5


def alike(size):
    """Many rows that are slow to tell from what is looked for."""
    db = fresh()
    table(db).rows = [[0, LONG_TEXT + "a", None, None]] * (size // 2)
    return db


WALKS = {
    **{name: (grown, OPERATIONS[name])
       for name in ("insert", "update", "clear_table", "save", "load", "_build_indexes")},
    "display_table": (grown, lambda db: db.display_table("t", 0)),
    "rebuild": (lambda size: JSONDatatable(PATH), lambda db: db._dict_to_row_id(table(db), {"k": 0})),
    "select": (alike, lambda db: db.select("t", {"s": LONG_TEXT + "b", "k": 0})),
    "look-up": (alike, lambda db: db._dict_to_row_id(table(db), {"s": LONG_TEXT + "b"})),
    "uniqueness": (alike, lambda db: db._validate_row(table(db), {"s": LONG_TEXT + "b"})),
}


def interrupts(cases, size):
    """A signal's handler runs amid each long walk, time and again, and the walk ends when it raises."""
    def tick(*_):
        ticks.append(len(ticks))
        if len(ticks) >= 4 and not raised:  # a walk that asks for no signals has one handled, after it
            raised.append(True)
            raise KeyboardInterrupt

    signal.signal(signal.SIGALRM, tick)
    reset(b"")
    content = saved(grown(size))
    for name, (make, operation) in WALKS.items():
        reset(content)
        db, ticks, raised, output = make(size), [], [], io.StringIO()
        tables = db.tables
        with cases(name), contextlib.redirect_stdout(output):
            signal.setitimer(signal.ITIMER_REAL, 0.0005, 0.0005)
            got, _ = outcome(operation, db, show=type)
            signal.setitimer(signal.ITIMER_REAL, 0)
            assert got == (KeyboardInterrupt, ()), (got, ticks)
            assert (read(), listing(), output.getvalue()) == (content, [f"./{PATH}"], "")
            assert db.tables is tables
            if name == "rebuild":
                operation(db)
            if make is not alike and name != "_build_indexes":  # what was built so far stays
                assert list(table(db).indexes) == ["k", "s", "u"]
                assert not disagreement(db), disagreement(db)


def crowd(cases, seconds):
    """Several threads on one object: errors, but no crash."""
    sys.setswitchinterval(1e-6)
    reset(b"")
    saved(fresh())
    for start in range(3):
        db, until, errors = grown(30 * start), time.monotonic() + seconds / 3, set()

        def work(seed):
            chosen = random.Random(seed)
            while time.monotonic() < until:
                name = chosen.choice(list(OPERATIONS))
                errors.add((name, outcome(OPERATIONS[name], db, show=type)[0][0]))

        threads = [threading.Thread(target=work, args=(seed,)) for seed in range(4)]
        with cases(start), contextlib.redirect_stdout(io.StringIO()):
            for act in (threading.Thread.start, threading.Thread.join):
                for thread in threads:
                    act(thread)
            assert SystemError not in {error for _, error in errors}, errors
            json.loads(read())
            assert listing() == [f"./{PATH}"]


def many_processes(cases, seconds):
    """Writers and readers on one file: each reader always finds one writer's complete document."""
    reset(b"")
    saved(fresh())
    until = time.monotonic() + seconds

    def work(number):
        db = grown(number * 50)
        while time.monotonic() < until:
            if number % 2:
                db.save()
            rows = JSONDatatable(PATH).tables["t"].rows
            assert len(rows) == 5 or rows == grown(len(rows)).tables["t"].rows, rows

    processes = multiprocessing.get_context("fork")
    children = [processes.Process(target=work, args=(number,)) for number in range(6)]
    for child in children:
        child.start()
    for number, child in enumerate(children):
        with cases(number):
            child.join()
            assert child.exitcode == 0, child.exitcode
    assert listing() == [f"./{PATH}"], listing()


BEGIN = """
import atexit, gc, io, queue, random, sys, threading, time
{before_the_import}
from talvern_client.utils.json_database import Column, JSONDatatable
db = JSONDatatable("database.json")
db.create_table("t", [Column(name, "date" if name == "d" else "text", False) for name in "ksod"])
"""
INSERTING = [
    "atexit.register(db.insert, 't', {'k': 1})",
    "del sys.modules[JSONDatatable.__module__], JSONDatatable; gc.collect(); db.insert('t', {'k': 1})",
    """
atexit._run_exitfuncs()
inserting = threading.Thread(target=db.insert, args=('t', {'k': 1}), daemon=True)
inserting.start()
inserting.join(60)
""",
]
COLLECTED = """
class Saving:
    def __del__(self, db=db):
        db.save()
        db.select("t")
keep, db.keep = Saving(), Saving()
"""
# Any other thread is ended while it waits for the interpreter: in Python code that a method calls, on the way
# into it or out of it, while it handles an error, or while the disk works.
DAEMONS = """
class Converting(JSONDatatable):
    def _row_to_dict(self, *_):
        return dict.fromkeys(range(20))
def refused(method, *arguments):
    try:
        method(*arguments)
    except ValueError:
        pass
class Output(io.StringIO):
    def write(self, text):
        return sum(range(20))
sys.stdout, broken = Output(), JSONDatatable("none")
open("broken.json", "w").close()
broken.filename = "broken.json"
db.tables["t"].rows += [[None, "x" * 100, {}, None] for _ in range(300)]
sys.setswitchinterval(1e-5)
def work():
    while True:
        CALL
for _ in range(3):
    threading.Thread(target=work, daemon=True).start()
time.sleep(random.random() / 50)
"""
CALLS = (
    "db.save()", "db.tables['t'].rows[0][2] = {1}; db.save()", "JSONDatatable('database.json')",
    "db.get_row('t', 0)", "db.__class__ = Converting; db.select('t')", "db.insert('t', {'d': '2020-02-02'})",
    "refused(db.insert, 't', {'d': '2020-02-30'})", "refused(broken.load)")
# The end waits for a thread that has not written everything yet, in a handler older than the module's import.
WAITING = """
def work():
    while True:
        db.insert("t", {"k": jobs.get()})
        jobs.task_done()
threading.Thread(target=work, daemon=True).start()
for number in range(60):
    jobs.put(number)
"""


class Company(FaultTest):
    def test_interrupts(self):
        self.in_child(interrupts, 400000 if LONG else 60000, least=len(WALKS))

    def test_threads(self):
        self.in_child(crowd, 9 if LONG else 0.6, least=3)

    def test_many_processes(self):
        self.in_child(many_processes, 8 if LONG else 0.5, least=6)

    def kept(self, program, before_the_import=""):
        """The first values of the rows that a program leaves in its file."""
        with self.subTest(program), tempfile.TemporaryDirectory() as folder:
            run_python(BEGIN.format(before_the_import=before_the_import) + program, folder)
            return [row[0] for row in JSONDatatable(os.path.join(folder, PATH)).tables["t"].rows]

    def test_exit(self):
        for program in INSERTING:
            self.assertEqual(self.kept(program), [1], program)
        self.kept(COLLECTED)
        for call in CALLS * (20 if LONG else 2):
            self.kept(DAEMONS.replace("CALL", call))
        for _ in range(20 if LONG else 1):
            kept = self.kept(WAITING, "jobs = queue.Queue(); atexit.register(jobs.join)")
            self.assertEqual(kept, list(range(60)))
