"""Interrupts, and the exit with other threads at work."""

import contextlib
import io
import os
import signal
import subprocess
import sys
import tempfile

from fault_support import (
    LONG, OPERATIONS, PATH, FaultTest, disagreement, fresh, listing, outcome, read, reset, saved)
from support import ENVIRONMENT, JSONDatatable, run_python


def grown(size):
    db = fresh()
    db.tables["t"].rows = [[row, str(row), None, row / 2] for row in range(size)]
    db._build_indexes("t")
    return db


WALKS = {
    **{name: (grown, OPERATIONS[name])
       for name in ("insert", "update", "clear_table", "save", "load", "_build_indexes")},
    "display_table": (grown, lambda db: db.display_table("t", 0)),
    "rebuild": (lambda size: JSONDatatable(PATH), lambda db: db._dict_to_row_id(db.tables["t"], {"k": 0})),
}


def interrupts(cases, size):
    """A signal's handler runs amid each long walk, time and again, and the walk ends when it raises."""
    def tick(*_):
        ticks.append(len(ticks))
        if len(ticks) == 4:  # a walk that asks for no signals has one handled, after it
            raise KeyboardInterrupt

    signal.signal(signal.SIGALRM, tick)
    reset(b"")
    content = saved(grown(size))
    for name, (make, operation) in WALKS.items():
        reset(content)
        db, ticks = make(size), []
        with cases(name), contextlib.redirect_stdout(io.StringIO()) as output:
            signal.setitimer(signal.ITIMER_REAL, 0.0005, 0.0005)
            got, _ = outcome(operation, db, show=type)
            signal.setitimer(signal.ITIMER_REAL, 0)
            cases.assertEqual(got, (KeyboardInterrupt, ()))
            cases.assertEqual(output.getvalue(), "")
            cases.assertEqual(read(), content)
            cases.assertEqual(listing(), [f"./{PATH}"])
            if name != "_build_indexes":  # what was built so far stays
                cases.assertIsNone(disagreement(db))
                cases.assertEqual(list(db.tables["t"].indexes), ["k", "s", "u"])


BEGIN = """
import atexit, contextlib, gc, random, sys, threading, time
joined = []
atexit.register(lambda: [thread.join() for thread in joined])  # older than the import, so it runs last
from talvern_client.utils.json_database import Column, JSONDatatable
db = JSONDatatable("database.json")
db.create_table("t", [Column(name, "date" if name == "d" else "text", False) for name in "ksod"])
"""
INSERTING = (
    "atexit.register(db.insert, 't', {'k': 1})",
    "del sys.modules[JSONDatatable.__module__], JSONDatatable; gc.collect(); db.insert('t', {'k': 1})",
    "joined += [threading.Thread(target=db.insert, args=('t', {'k': 1}), daemon=True)]\n"
    "atexit.register(joined[0].start)")
COLLECTED = """
Saving = type("Saving", (), {"__del__": lambda self, db=db: db.save()})
keep, db.keep = Saving(), Saving()
"""
# Any other thread is ended while it waits for the interpreter: in Python code that a method calls, on the way
# into it or out of it, while it handles an error, or while the disk works.
DAEMONS = """
db.tables["t"].rows += [[None, "x" * 100, {}, None] for _ in range(300)]
sys.setswitchinterval(1e-5)
def work():
    while True:
        CALL
for _ in range(3):
    threading.Thread(target=work, daemon=True).start()
time.sleep(random.random() / 50)
"""
SAVING = """
from talvern_client.utils.json_database import JSONDatatable
for _ in range(100): JSONDatatable("database.json").save()
"""
CALLS = (
    "db.save()", "db.tables['t'].rows[0][2] = {1}; db.save()", "JSONDatatable('database.json')",
    "db._row_to_dict = lambda *_: dict.fromkeys(range(20)); db.select('t')",
    "db.insert('t', {'d': '2020-02-02'})",
    "with contextlib.suppress(ValueError): db.insert('t', {'d': '2020-02-30'})")


class Company(FaultTest):
    def test_interrupts(self):
        self.in_child(interrupts, 400000 if LONG else 60000, least=len(WALKS))

    def test_several_processes_save(self):
        """None takes the new file of another for one that a killed process has left."""
        with tempfile.TemporaryDirectory() as folder:
            saving = [subprocess.Popen([sys.executable, "-c", SAVING], cwd=folder, env=ENVIRONMENT)
                      for _ in range(4)]
            self.assertEqual([process.wait() for process in saving], [0] * 4)
            self.assertEqual(os.listdir(folder), [PATH])

    def test_exit(self):
        daemons = [DAEMONS.replace("CALL", call) for call in CALLS]
        for program in (*INSERTING, COLLECTED, *daemons * (20 if LONG else 3)):
            with self.subTest(program), tempfile.TemporaryDirectory() as folder:
                run_python(BEGIN + program, folder)
                rows = JSONDatatable(os.path.join(folder, PATH)).tables["t"].rows
                if program in INSERTING:
                    self.assertEqual(rows, [[1, None, None, None]])
