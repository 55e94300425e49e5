"""Faults made to happen one after the other, and what each may leave behind.

A test hands a function to `in_child`, which runs it in a process of its own, in an empty folder: it counts its cases
there and may crash. A fault is armed before one call and disarmed after it.
"""

import contextlib
import ctypes
import functools
import importlib
import itertools
import json
import os
import pickle
import shutil
import subprocess
import sys
import tempfile
import traceback
import unittest

import model
from support import Column, JSONDatatable, module, optional, unique

try:
    import _testcapi
except ImportError:
    _testcapi = None

LONG = "JSON_DATABASE_LONG_FAULTS" in os.environ
LIBRARY = os.environ.get("JSON_DATABASE_FAULT_LIBRARY")
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "") or "rt.asan" in os.environ.get("LD_PRELOAD", "")
MEMORY_DISK = "/dev/shm" if os.path.isdir("/dev/shm") else None
PATH = "database.json"


class FaultTest(unittest.TestCase):
    def in_child(self, function, *arguments, through=()):
        with tempfile.TemporaryDirectory(dir=MEMORY_DISK) as folder:
            os.chmod(folder, 0o777)
            data, progress = os.path.join(folder, "data"), os.path.join(folder, "progress")
            os.mkdir(data)
            preload = ":".join(filter(None, (os.environ.get("LD_PRELOAD"), LIBRARY)))
            done = subprocess.run(
                [*through, sys.executable, "-X", "dev", "-c",
                 "import sys, fault_support; fault_support.run_cases(*sys.argv[1:])",
                 progress, function.__module__, function.__qualname__, pickle.dumps(arguments).hex()],
                env={**os.environ, "LD_PRELOAD": preload, "PYTHONPATH": os.pathsep.join(map(os.path.abspath, sys.path))},
                cwd=data, timeout=600, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace")
            name = f"{function.__qualname__}{arguments}"
            if done.returncode or not done.stdout:
                with open(progress, encoding="utf-8") as file:
                    self.fail(f"{name}: exit status {done.returncode} at {file.read()}\n{done.stdout}{done.stderr[-6000:]}")
            report = json.loads(done.stdout.splitlines()[-1])
            print(f"{name[:100]}: {report['cases']} cases", file=sys.stderr)
            self.assertGreater(report["cases"], 0)
            if report["faults"]:
                self.fail(f"{name}: {len(report['faults'])} faults\n" + "\n".join(report["faults"][:8]))


class Cases:
    """Counts the cases, notes the current one where the parent finds it after a crash, collects what failed."""

    def __init__(self, progress):
        self.count, self.faults = 0, []
        self.progress = os.open(progress, os.O_WRONLY | os.O_CREAT)

    @contextlib.contextmanager
    def __call__(self, *label):
        self.count += 1
        text = " ".join(map(str, label))
        os.pwrite(self.progress, text.encode() + b"\n", 0)
        os.ftruncate(self.progress, len(text))
        try:
            yield
        except BaseException as error:
            text = f"{text}: {error!r}" if isinstance(error, AssertionError) else f"{text}:\n{traceback.format_exc()}"
            self.faults.append(text[:2000])


def run_cases(progress, module_name, function, arguments):
    cases = Cases(progress)
    with contextlib.redirect_stdout(sys.stderr):
        getattr(importlib.import_module(module_name), function)(cases, *pickle.loads(bytes.fromhex(arguments)))
    print(json.dumps({"cases": cases.count, "faults": cases.faults}))


# ---- One database, one call of every kind on it --------------------------------------------------

ROWS = [[1, "a", None, "p"], [2, "b", 1.5, "q"], [None] * 4, [3, "é", [1], "r"], [4, "d", True, "s"], [5, "e", "x", "t"]]


def fresh():
    """A database in memory, with full index dictionaries: listing one more value makes them grow."""
    db = JSONDatatable("missing.json")
    db.filename = PATH
    columns = [unique("k", "number"), unique("s"), optional("o"), unique("u")]
    db.tables["t"] = module.Table("t", columns, [list(row) for row in ROWS])
    db.tables["empty"] = module.Table("empty", [])
    db._build_indexes("t")
    return db


# Each takes a database and, where there is a place for it, a value of the caller's choice.
OPERATIONS = {
    "__init__": lambda db, x=PATH: JSONDatatable(x),
    "create_table": lambda db, x="k": db.create_table("new", [unique(x), optional("o", default=x)]),
    "insert": lambda db, x="new": db.insert("t", {"k": "7", "s": x, "o": x, "u": x}),
    "insert much": lambda db: db.insert("t", {"k": 7, "s": "new", "o": ["x" * 100000] * 6}),
    "insert refused": lambda db, x="a": db.insert("t", {"k": 1, "s": x}),
    "update": lambda db, x="new": db.update("t", 1, {"k": 9, "s": x, "o": x, "u": x}),
    "update refused": lambda db, x="a": db.update("t", 1, {"k": "wrong", "s": x}),
    "clear_table": lambda db: db.clear_table("t"),
    "delete": lambda db, x=1: db.delete("t", x),
    "select listed": lambda db, x="b": db.select("t", {"s": x}),
    "select scanned": lambda db, x="b": db.select("t", {"s": x, "k": 2}, ["k"], 3),
    "get_row": lambda db, x=1: db.get_row("t", x),
    "_build_indexes": lambda db: db._build_indexes("t"),
    "_build_index": lambda db, x="s": db._build_index("t", x),
    "_row_to_dict": lambda db, x="s": db._row_to_dict(db.tables["t"], [x] * 4, [x, "k"]),
    "_validate_row": lambda db, x="2": db._validate_row(db.tables["t"], {"k": x, x: 1}, x),
    "_dict_to_row_id": lambda db, x="x": db._dict_to_row_id(db.tables["t"], {"o": x}),
    "_project_row": lambda db, x="s": db._project_row({x: 1}, [x, "k"]),
    "save": lambda db: db.save(),
    "load": lambda db: db.load(),
    "display_table": lambda db, x=3: db.display_table("t", x),
}
WRITING = ("create_table", "insert", "update", "clear_table", "delete", "save")
# A failure half way leaves part of the change in memory: what is there must agree, or is the next build's matter.
PARTIAL = ("clear_table", "load", "create_table", "_build_indexes", "_build_index")


def memory(db, show=lambda value: value):
    """The contents, each value as `show` gives it; the order of an index's keys is nobody's promise."""
    return {name: ([list(map(show, row)) for row in table.rows],
                   {column: {show(value): list(ids) for value, ids in index.items()}
                    for column, index in table.indexes.items()}) for name, table in db.tables.items()}


def disagreement(db):
    """What rows and indexes say differently."""
    for table in db.tables.values():
        for position, column in enumerate(table.columns):
            listed = [(ids, value) for value, ids in table.indexes.get(column.name, {}).items()]
            if column.name in table.indexes and [] in [ids for ids, _ in listed]:
                return f"{column.name}: an empty list"
            places = sorted((row_id, id(value)) for ids, value in listed for row_id in ids)
            rows = {row_id: row for row_id, row in enumerate(table.rows) if any(value is not None for value in row)}
            if column.name in table.indexes and [row_id for row_id, _ in places] != sorted(rows):
                return f"{column.name}: lists {[row_id for row_id, _ in places]}, live are {sorted(rows)}"
            for ids, value in listed:
                for row_id in ids:
                    held = rows[row_id][position]
                    if held is not value and not (type(held) is type(value) in (str, int) and held == value):
                        return f"{column.name}: row {row_id} under another value"
    return None


def read(path=PATH):
    if not os.path.exists(path):
        return None
    with open(path, "rb") as file:
        return file.read()


def listing():
    return sorted(os.path.join(folder, name) for folder, _, names in os.walk(".") for name in names)


def saved(db):
    db.save()
    return read(db.filename)


SHAPES = ("plain", "missing", "link", "private") + (("owned",) if os.getuid() == 0 else ())


def reset(content, shape="plain"):
    """Empties the folder and puts a file of the given shape there."""
    for entry in os.scandir():
        shutil.rmtree(entry) if entry.is_dir(follow_symlinks=False) else os.unlink(entry)
    os.mkdir("sub")
    if shape == "link":
        os.symlink("sub/real.json", PATH)
    if shape != "missing":
        with open(PATH, "wb") as file:
            file.write(content)
        os.chmod(PATH, 0o600 if shape == "private" else 0o640)
    if shape == "owned":
        os.chown(PATH, 1, 2)


def dumped(db):
    """What a save has to write."""
    plain = model.JSONDatatable("missing.json")
    plain.filename, plain.tables = os.path.join("..", "dumped"), db.tables
    return saved(plain)


def nothing():
    pass


def outcome(function, *arguments, arm=nothing, disarm=nothing, show=repr):
    """What a call gives, comparable; plus the error itself. Between `arm` and `disarm` there may be no memory left."""
    error = None
    try:
        arm()
        result = function(*arguments)
        disarm()
    except BaseException as caught:
        disarm()
        error = caught
    if error is not None:
        error.__traceback__ = error.__context__ = None
        return (type(error), error.args), error
    return ("returned", show(vars(result) if isinstance(result, JSONDatatable) else result)), None


# ---- Faults --------------------------------------------------------------------------------------

class Fault:
    """`arm` and `disarm` run around a call; then an error may be explained, or have been overcome without one."""

    def explains(self, error):
        # The second is what the interpreter's own `open` makes of it.
        return type(error) is MemoryError or repr(error) == """RuntimeError("can't allocate read lock")"""

    def overcome(self):
        return True


class NoMemory(Fault):
    """The n-th allocation through the interpreter fails, and those that follow where `stop` is 0."""

    def __init__(self, number, stop):
        self.arm = functools.partial(_testcapi.set_nomemory, number, stop)
        self.disarm = _testcapi.remove_mem_hooks


library = ctypes.CDLL(LIBRARY) if LIBRARY else None
if library:
    library.fault_names.restype = library.fault_created.restype = ctypes.c_char_p
FAIL, SHORTEN, INTERRUPT, KILL_BEFORE, KILL_AFTER, LINGER, PREDICT, NO_MALLOC = range(1, 9)


class SystemFault(Fault):
    """The calls of the preloaded library from `first` to `last` go the planned way."""

    def __init__(self, action, first=0, last=None, error=0):
        self.plan = action, first, first if last is None else last, error

    def arm(self):
        library.fault_arm(*self.plan)

    def disarm(self):
        seen = library.fault_disarm()
        self.names = library.fault_names().decode().split()
        self.created = library.fault_created().decode()
        self.hit = seen >= self.plan[1]

    def explains(self, error):
        action, _, _, number = self.plan
        if action == NO_MALLOC:
            return super().explains(error)
        failed = isinstance(error, OSError) and (error.errno, error.filename) == (number, PATH)
        return failed and not self.overcome()

    def overcome(self):
        action, first, _, _ = self.plan
        # Nothing was written through a descriptor that is merely released; and a save may begin anew.
        return action != FAIL or not self.hit or self.names[first - 1] == "release" or "stat" in self.names[first:]


def judge(db, name, fault, got, error, before, after):
    """Asserts that a call under a fault ended as it may: memory and file are wholly the old or the new ones."""
    (old_memory, old_file, old_listing), (expected, new_memory, new_file, new_listing) = before, after
    if got == expected:
        assert fault.overcome(), "a failure was passed over"
    else:
        assert fault.explains(error), f"ended as {got!s:.500}"
    content = read()
    assert content in (old_file, new_file), f"file holds {content[:300]}"
    if got == expected:
        assert (memory(db), content) == (new_memory, new_file), f"half done: {memory(db)!s:.500}"
    elif name not in PARTIAL:
        assert memory(db) in (old_memory, new_memory), f"memory holds {memory(db)!s:.500}"
    assert listing() == (old_listing if content == old_file else new_listing), f"left behind: {listing()}"
    if name not in PARTIAL or name == "clear_table":
        assert not disagreement(db), disagreement(db)
    assert saved(db) == dumped(db), "what a later save wrote differs"


def old_and_new(name, shape):
    """The good file's text, then what there is before and after an undisturbed operation."""
    reset(b"")
    content = saved(fresh())
    reset(content, shape)
    before = memory(fresh()), read(), listing()
    undisturbed = fresh()
    expected, _ = outcome(OPERATIONS[name], undisturbed)
    return content, before, (expected, memory(undisturbed), read(), listing())


def sweep(cases, name, faults, stride=1, shape="plain"):
    """Makes one operation meet `faults(n)` for n = 0, 1, 2 ... until the first of them no longer matters."""
    content, before, after = old_and_new(name, shape)
    for number in itertools.count(0, stride):
        for position, fault in enumerate(faults(number)):
            reset(content, shape)
            db, descriptors = fresh(), os.listdir("/proc/self/fd")
            with cases(name, shape, number, position):
                got, error = outcome(OPERATIONS[name], db, arm=fault.arm, disarm=fault.disarm)
                assert os.listdir("/proc/self/fd") == descriptors, "a descriptor is left open"
                judge(db, name, fault, got, error, before, after)
            if position == 0 and not getattr(fault, "hit", got != after[0]):
                return
