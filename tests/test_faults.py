"""The database under faults: memory, disk, interrupts, files and host objects that misbehave."""

import contextlib
import ctypes
import errno
import gc
import io
import itertools
import json
import operator
import os
import random
import re
import signal
import stat
import sys
import tempfile
import threading
import time
import traceback
import unittest

import model
from fault_support import (
    FAIL, INTERRUPT, KILL_AFTER, KILL_BEFORE, LIBRARY, LONG, NO_MALLOC, OPERATIONS, PARTIAL, PATH, SANITIZED, SHAPES,
    SHORTEN, WRITING, FaultTest, NoMemory, SystemFault, _testcapi, disagreement, fresh, listing, memory, old_and_new,
    outcome, read, reset, saved, sweep)
from support import JSONDatatable, module, run_python

LEFT_OVER = r"\./(sub/)?\.json_database-[0-9a-f]+\.tmp"


# ---- Memory --------------------------------------------------------------------------------------

def allocations(cases, stride):
    for name in OPERATIONS:
        sweep(cases, name, lambda n: (NoMemory(n, 0), NoMemory(n, n + 1)), stride)


def outer_allocations(cases):
    outcome(fresh().get_row, "t", 2)  # the first error in a thread sets up what the C library can't do without
    for name in OPERATIONS:
        sweep(cases, name, lambda n: (SystemFault(NO_MALLOC, n + 1, 10 ** 6), SystemFault(NO_MALLOC, n + 1)))


ERRORS = {
    "unknown table": lambda db: db.insert("none", {}),
    "unhashable": lambda db: db.insert("t", {"s": [1], "k": 8}),
    "refused document": lambda db: db.insert("t", {"o": {(1,): 2}}),
    "folder": lambda db: setattr(db, "filename", "sub") or db.save(),
    "raising": lambda db: db.select("t", {"o": Hostile()}),
}


class Mallinfo(ctypes.Structure):
    _fields_ = [("counts", ctypes.c_size_t * 10)]


def held():
    """Blocks of the interpreter and bytes outside of it that are in use."""
    gc.collect()
    native = None if SANITIZED else getattr(ctypes.CDLL(None), "mallinfo2", None)
    if native:
        native.restype = Mallinfo
    return sys.getallocatedblocks(), native().counts[7] if native else 0


def leaks(cases, times):
    reset(b"")
    saved(fresh())
    for name, operation in {**OPERATIONS, **ERRORS}.items():
        with cases(name):
            for _ in range(2):  # what is kept for good settles in the first round
                before, descriptors = held(), os.listdir("/proc/self/fd")
                for _ in range(times):
                    outcome(operation, stage.set(fresh()))
            growth = [now - then for now, then in zip(held(), before)]
            assert growth[0] < 60 + times / 4 and growth[1] < 500 + times * 8, f"{growth} blocks and bytes more"
            assert os.listdir("/proc/self/fd") == descriptors


class Memory(FaultTest):
    @unittest.skipUnless(_testcapi, "the interpreter has no _testcapi")
    def test_every_allocation(self):
        self.in_child(allocations, 1 if LONG else 13)

    @unittest.skipIf(SANITIZED or not LIBRARY, "no library to preload, or the sanitizer has a malloc of its own")
    def test_every_outer_allocation(self):
        self.in_child(outer_allocations)

    def test_leaks(self):
        self.in_child(leaks, 2000 if LONG else 300)


# ---- Disk ----------------------------------------------------------------------------------------

def system_calls(cases, names):
    for name, shape in itertools.product(names, SHAPES):
        sweep(cases, name, lambda n: (
            *(SystemFault(FAIL, n + 1, error=error) for error in (errno.ENOSPC, errno.EEXIST)),
            *(SystemFault(action, n + 1, n + more) for action in (SHORTEN, INTERRUPT) for more in (1, 3))), shape=shape)


def kills(cases, names):
    """Also: what is left behind was at no moment more accessible than the file."""
    os.umask(0o022)
    for name, shape in itertools.product(names, SHAPES):
        content, (_, old, before), (_, _, new, _) = old_and_new(name, shape)
        for step in itertools.count(2):
            number, action = step // 2, (KILL_BEFORE, KILL_AFTER)[step % 2]
            reset(content, shape)
            allowed = os.stat(PATH) if old else None
            child = os.fork()
            if child == 0:
                SystemFault(action, number).arm()
                outcome(OPERATIONS[name], fresh())
                os._exit(0)
            killed = os.waitpid(child, 0)[1] == signal.SIGKILL
            with cases(name, shape, number, action):
                assert read() in (old, new), f"file holds {read()}"
                left = sorted(set(listing()) - set(before) - {f"./{PATH}"})
                assert len(left) <= killed and all(re.fullmatch(LEFT_OVER, path) for path in left), left
                for path in left:
                    status = os.stat(path)
                    mode, same = stat.S_IMODE(status.st_mode), allowed and status.st_uid == allowed.st_uid
                    assert mode & ~(stat.S_IMODE(allowed.st_mode) if allowed else 0o644) == 0, oct(mode)
                    assert not allowed or mode & 0o077 == 0 or same and status.st_gid == allowed.st_gid, status
                JSONDatatable(PATH)
                assert saved(fresh()) == content
                assert listing() == sorted({*before, f"./{PATH}", *left}), listing()
            if not killed:
                break


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class Disk(FaultTest):
    some = (*WRITING, "insert much") if LONG else ("insert", "insert much")

    def test_every_system_call(self):
        self.in_child(system_calls, self.some)

    def test_killed_at_every_system_call(self):
        self.in_child(kills, self.some)


# ---- Host objects --------------------------------------------------------------------------------

class Stage:
    """What hostile objects do: nothing wrong for some calls of their methods, then an act at each further one."""

    def set(self, db, act="raise", honest=0):
        self.db, self.act, self.honest, self.calls, self.acting = db, act, honest, 0, False
        return db

    def answer(self, honestly):
        self.calls += 1
        # Not for ever: rows that grow at every step of a walk would make any walk endless.
        if self.honest < self.calls <= self.honest + 50 and not self.acting:
            if self.act in ODD:
                return ODD[self.act]
            self.acting = True
            try:
                ACTS[self.act](self.db)
            finally:
                self.acting = False
        return honestly()


stage = Stage()


def misbehave(kind):
    raise kind("misbehaved")


def table(db):
    return db.tables["t"]


ODD = {repr(odd)[:6]: odd for odd in (None, [], -1, 10 ** 30, "odd", NotImplemented)}
ACTS = {
    "raise": lambda db: misbehave(ZeroDivisionError),
    "interrupt": lambda db: misbehave(KeyboardInterrupt),
    "clear rows": lambda db: table(db).rows.clear(),
    "shorten rows": lambda db: [row.clear() for row in table(db).rows],
    "grow rows": lambda db: table(db).rows.insert(0, ["grown"] * 3),
    "clear columns": lambda db: table(db).columns.clear(),
    "other indexes": lambda db: setattr(table(db), "indexes", {"k": [], "s": {"new": (1,), "b": 5}}),
    "clear tables": lambda db: db.tables.clear(),
    "drop": lambda db: (db.__dict__.clear(), gc.collect()),
    **{name: OPERATIONS[name] for name in ("insert", "update", "clear_table", "_build_indexes", "save", "load")},
}


class HostilePath:
    pass


class Hostile(HostilePath):
    """Not for a file name: a number would be a descriptor."""


for special, honest in {
        "__eq__": lambda self, other: self is other, "__ne__": lambda self, other: self is not other,
        "__hash__": lambda self: hash("new"), "__str__": lambda self: "text", "__repr__": lambda self: "text",
        "__format__": lambda self, _: "text", "__bool__": lambda self: True, "__int__": lambda self: 1,
        "__index__": lambda self: 1, "__float__": lambda self: 1.0, "__len__": lambda self: 1,
        "__del__": lambda self: None, "__iter__": lambda self: iter([1]), "__contains__": lambda self, _: True,
        "__getitem__": lambda self, _: [1], "__fspath__": lambda self: PATH,
        "__getattr__": lambda self, name: getattr(table(stage.db), name),
        "__setitem__": lambda self, *_: None, "__delitem__": lambda self, _: None}.items():
    def method(self, *args, honest=honest):
        return stage.answer(lambda: honest(self, *args))
    setattr(Hostile if special in ("__int__", "__index__", "__float__") else HostilePath, special, method)


PLANTS = {
    "argument": None,
    "value": lambda db: operator.setitem(table(db).rows[1], 2, Hostile()),
    "keys": lambda db: [(operator.setitem(table(db).rows[row], column, Hostile()), db._build_indexes("t"))
                        for row in (0, 1) for column in (1, 3)],
    "ids": lambda db: operator.setitem(table(db).indexes["s"], "b", [Hostile(), 1]),
    "row": lambda db: operator.setitem(table(db).rows, 1, Hostile()),
    "column": lambda db: operator.setitem(table(db).columns, 1, Hostile()),
    "table": lambda db: operator.setitem(db.tables, "t", Hostile()),
    **{field: lambda db, field=field: setattr(table(db).columns[1], field, Hostile()) for field in (
        "name", "data_type", "required", "unique", "default", "validation_pattern")},
    **{f"the table's {field}": lambda db, field=field: setattr(table(db), field, Hostile()) for field in (
        "name", "columns", "rows", "indexes")},
    "filename": lambda db: setattr(db, "filename", HostilePath()),
    "tables": lambda db: setattr(db, "tables", Hostile()),
    **{f"redefined {name}": lambda db, name=name: setattr(db, name, lambda *args, **names: stage.answer(Hostile))
       for name in vars(JSONDatatable) if name[1] != "_"},
    **{f"rebound {name}": lambda db, name=name: setattr(module, name, Hostile()) for name in (
        "json", "open", "os", "re", "datetime", "Column", "Table")},
}


def hostile_objects(cases, share):
    chosen = random.Random(4)
    reset(b"")
    content = saved(fresh())
    originals = dict(vars(module))
    for plant, name, act in itertools.product(PLANTS, OPERATIONS, (*ODD, *ACTS)):
        accepts = plant != "argument" or "x" in OPERATIONS[name].__code__.co_varnames
        if not accepts or chosen.random() > (0.5 if (plant, act) == ("keys", "raise") else share):
            continue
        for honest in range(25):
            reset(content)
            db = stage.set(fresh(), honest=1000)
            given = [db, HostilePath() if name == "__init__" else Hostile()] if plant == "argument" else [db]
            if PLANTS[plant]:
                PLANTS[plant](db)
            before, saving = plant in ("keys", "value", "argument") and memory(db, id), []
            if before:
                db.save = lambda: (saving.append(1), JSONDatatable.save(db))
            with cases(plant, name, act, honest):
                stage.set(db, act, honest)
                got, _ = outcome(OPERATIONS[name], *given, show=type)
                used = stage.calls > honest
                stage.set(db, honest=1000)
                vars(module).clear()
                vars(module).update(originals)
                assert got[0] is not SystemError, got
                json.loads(read())
                assert listing() == [f"./{PATH}"] or plant in ("filename", "argument"), listing()
                if act in ("raise", "interrupt") and before and name not in PARTIAL:
                    assert not disagreement(db), disagreement(db)
                    assert saving or memory(db, id) == before, "not taken back"
            if not used:
                break


class HostObjects(FaultTest):
    def test_every_object_in_every_place(self):
        self.in_child(hostile_objects, 1 if LONG else 0.02)


# ---- Files ---------------------------------------------------------------------------------------

TOKENS = [token.encode() for token in (
    "{ } [ ] : , null true nul NaN -Infinity - -0 01 1e999 1E5 1.5e-7 .5 1. \"a\" \"tables\" \"rows\" \"name\" "
    "\"\\ud800\" \"\\ud83d\\ude00\" \"\\u12\" \"\\x\" \" \\ / \\u0041 \x00 \x7f 5e5_0 \u2028 [[[[ }}}}").split(" ")]
TOKENS += [b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xef\xbb\xbf", b"\n", b"\t", b'"\t"', b"\r\n", b"7" * 4300, b"7" * 4301]


def wrapped(value):
    return b'{"tables": {"t": {"name": "t", "columns": [{"name": "a", "data_type": "x"}], "rows": [[' + value + b"]]}}}"


def bad_files(content, count):
    chosen = random.Random(6)
    for place in range(0, len(content), 1 if LONG else 3):
        yield content[:place]
        for other in (b"", b"\xff", bytes([content[place] ^ 1])):
            yield content[:place] + other + content[place + 1:]
    for value in (b"[" * 10 ** 5, b"[" * 400, b'{"":' * 10 ** 5, b'"' + b"x" * 10 ** 7 + b'"',
                  b"-" + b"9" * 4301, b"1e" + b"9" * 400, b'{"a": 1, "b": 2, "a": 3}', *TOKENS):
        yield from (value, wrapped(value))
    pieces = re.findall(rb'"[^"]*"|[^"\s]|\s+', content)
    for _ in range(count):
        changed = list(pieces)
        for _ in range(chosen.randint(1, 3)):
            place = chosen.randrange(len(changed))
            until = place + chosen.choice((0, 1, 1, 1, 5, 40))
            changed[place:until] = chosen.choice(([chosen.choice(TOKENS)], changed[place:until] * 2, []))
        yield b"".join(changed)


def loaded(database):
    db = database("missing.json")
    db.filename = PATH
    with contextlib.redirect_stdout(io.StringIO()) as output:
        got, error = outcome(db.load)
    tables = {name: (table.name, [vars(column) for column in table.columns], table.rows, table.indexes)
              for name, table in db.tables.items()}
    return got, str(error), output.getvalue(), repr(tables)


def wrong_files(cases, count):
    reset(b"")
    for number, content in enumerate(bad_files(saved(fresh()), count)):
        reset(content)
        with cases(number, content[:1000]):
            ours, expected = loaded(JSONDatatable), loaded(model.JSONDatatable)
            assert ours == expected, f"{ours} instead of {expected}"
            assert read() == content


class Files(FaultTest):
    def test_bad_files(self):
        self.in_child(wrong_files, 30000 if LONG else 300)


# ---- Signals, threads, processes -----------------------------------------------------------------

def grown(size):
    db = fresh()
    db.tables["t"].rows = [[row, str(row), None, row / 2] for row in range(size)]
    db._build_indexes("t")
    return db


def interrupts(cases, size):
    """An interrupt that comes after a third of an operation ends it well before its time."""
    signal.signal(signal.SIGVTALRM, lambda *_: misbehave(KeyboardInterrupt))
    for name in ("insert", "select scanned", "load", "display_table"):
        reset(b"")
        content, taken = saved(grown(size)), []
        for third in (0, 1):
            reset(content)
            db = grown(size)
            with contextlib.redirect_stdout(io.StringIO()) as output:
                start = time.process_time()
                signal.setitimer(signal.ITIMER_VIRTUAL, third and taken[0] / 3)
                got, _ = outcome(OPERATIONS[name], *((db, 0) if name == "display_table" else (db,)), show=type)
                signal.setitimer(signal.ITIMER_VIRTUAL, 0)
                taken.append(time.process_time() - start)
        if taken[0] < 0.03:
            continue  # over too soon to be interrupted
        with cases(name, taken):
            assert got == (KeyboardInterrupt, ("misbehaved",)), got
            # The host reads a whole file in one go.
            assert taken[1] < taken[0] * 0.7 or name == "load", "honoured late"
            assert read() == content and listing() == [f"./{PATH}"] and not disagreement(db), "not whole"
            assert name != "load" or not output.getvalue()


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
    until, children = time.monotonic() + seconds, {}
    for number in range(6):
        child = os.fork()
        if child == 0:
            try:
                db = grown(number * 50)
                while time.monotonic() < until:
                    if number % 2:
                        db.save()
                    rows = JSONDatatable(PATH).tables["t"].rows
                    assert rows == grown(len(rows)).tables["t"].rows or len(rows) == 5
            except BaseException:
                traceback.print_exc()
                os._exit(1)
            os._exit(0)
        children[child] = number
    for child, number in children.items():
        with cases(number):
            assert os.waitpid(child, 0)[1] == 0
    assert listing() == [f"./{PATH}"], listing()


DAEMONS = """
    import random, sys, threading, time
    from talvern_client.utils.json_database import Column, JSONDatatable
    db = JSONDatatable("database.json")
    db.create_table("t", [Column(name, "t", False) for name in "kso"])
    db.tables["t"].rows += [[None, "x" * 100, {}] for _ in range(300)]
    sys.setswitchinterval(1e-5)
    def work():
        while True:
            %s
    for _ in range(3):
        threading.Thread(target=work, daemon=True).start()
    time.sleep(random.random() / 50)
"""


class Company(FaultTest):
    def test_interrupts(self):
        self.in_child(interrupts, 200000 if LONG else 50000)

    def test_threads(self):
        self.in_child(crowd, 9 if LONG else 0.6)

    def test_many_processes(self):
        self.in_child(many_processes, 8 if LONG else 0.5)

    def test_exit_with_daemon_threads(self):
        for call in ("db.save()", "db.tables['t'].rows[0][2] = {1}; db.save()", "JSONDatatable('database.json')"):
            for _ in range(20 if LONG else 2):
                with self.subTest(call), tempfile.TemporaryDirectory() as folder:
                    run_python(DAEMONS % call, folder)


if __name__ == "__main__":
    unittest.main()
