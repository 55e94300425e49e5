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
import resource
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import unittest
import weakref

import model
import test_roads
from fault_support import (
    FAIL, INTERRUPT, KILL_AFTER, KILL_BEFORE, LIBRARY, LONG, NO_MALLOC, OPERATIONS, PARTIAL, PATH, PREDICT, SANITIZED,
    SHAPES, SHORTEN, WRITING, FaultTest, NoMemory, SystemFault, _testcapi, disagreement, fresh, listing, memory,
    old_and_new, outcome, read, reset, saved, sweep)
from support import JSONDatatable, module, run_python

LEFT_OVER = r"\./(sub/)?\.json_database-[0-9a-f]+\.tmp"


# ---- Memory --------------------------------------------------------------------------------------

def allocations(cases, stride):
    for name in OPERATIONS:
        sweep(cases, name, lambda n: (NoMemory(n, 0), NoMemory(n, n + 1)), stride)


def outer_allocations(cases):
    with cases("a thread's first call and error"):
        db, got = fresh(), []
        thread = threading.Thread(target=lambda: got.append(
            outcome(db.get_row, "t", 2, fault=SystemFault(NO_MALLOC, 1, 10 ** 6))[0][0]))
        thread.start()
        thread.join()
        assert got in ([ValueError], [MemoryError]), got
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
            growths = []
            for _ in range(3):  # what is kept for good settles in one round or another, a leak in none
                before, descriptors = held(), os.listdir("/proc/self/fd")
                for _ in range(times):
                    outcome(operation, stage.set(fresh()))
                growths.append([now - then for now, then in zip(held(), before)])
            blocks, size = map(min, zip(*growths))
            assert blocks < times / 4 and size < 500 + times * 8, f"{growths} blocks and bytes more"
            assert os.listdir("/proc/self/fd") == descriptors
    values = "t", {"k": object()}, ["s"], 10 ** 20
    for method in vars(JSONDatatable):
        with cases("arguments", method):
            counts = list(map(sys.getrefcount, values))
            for arguments in (arguments[:n] for arguments in itertools.product((*values, None), repeat=3) for n in range(4)):
                outcome(getattr(fresh(), method), *arguments)
            del arguments
            gc.collect()
            assert list(map(sys.getrefcount, values)) == counts
    with cases("cycle"):
        db = fresh()
        db.self, db.tables["t"].rows[0][2], gone = db, db, weakref.ref(db)
        del db
        gc.collect()
        assert gone() is None


class Memory(FaultTest):
    @unittest.skipUnless(_testcapi, "the interpreter has no _testcapi")
    def test_every_allocation(self):
        self.in_child(allocations, 1 if LONG else 13)

    @unittest.skipIf(SANITIZED or not LIBRARY, "no library to preload, or the sanitizer has a malloc of its own")
    def test_every_outer_allocation(self):
        self.in_child(outer_allocations)

    def test_leaks(self):
        self.in_child(leaks, 2000 if LONG else 200)


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


def planted(cases):
    """Something lies where the new file would be made: it stays as it is and leads nowhere."""
    content, _, (_, _, new, _) = old_and_new("insert", "plain")
    name = f".json_database-{'0' * 16}.tmp"
    for plant in (lambda: os.symlink("sub/victim", name), lambda: os.symlink("sub/none", name), lambda: os.mkfifo(name),
                  lambda: os.link("sub/victim", name), lambda: os.mkdir(name), lambda: open(name, "x").close()):
        for until, expected in ((1, (type(None), new)), (10 ** 6, (FileExistsError, content))):
            reset(content)
            with open("sub/victim", "w", encoding="utf-8") as file:
                file.write("precious")
            plant()
            there, before = os.lstat(name), listing()
            with cases(stat.filemode(there.st_mode), until):
                _, error = outcome(OPERATIONS["insert"], fresh(), fault=SystemFault(PREDICT, 1, until))
                assert (type(error), read()) == expected, error
                assert (read("sub/victim"), os.lstat(name)[:4], listing()) == (b"precious", there[:4], before)


def lose_rights():
    os.chmod(".", 0o777)
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(65534)
        os.setuid(65534)
        ctypes.CDLL(None).prctl(4, 1)  # else the process may not look at its own descriptors any more


def targets(cases):
    """What is written as it is, what another name leads to as well, what the system limits, what is told to others."""
    lose_rights()  # a fault may not harm the machine's own devices
    content, before, _ = old_and_new("save", "plain")
    gone, pipe, seen, limits = open("gone", "w+b", 0), os.pipe(), [], resource.getrlimit(resource.RLIMIT_FSIZE)
    os.unlink("gone")
    os.mkfifo("fifo")
    fifo = os.open("fifo", os.O_RDONLY | os.O_NONBLOCK)
    for target, error_number, contents in (
            ("fifo", None, lambda: os.read(fifo, 10 ** 5)), ("/dev/null", None, None), ("/dev/full", errno.ENOSPC, None),
            (f"/proc/self/fd/{pipe[1]}", None, lambda: os.read(pipe[0], 10 ** 5)),
            (f"/proc/self/fd/{gone.fileno()}", None, gone.read), (pipe[1], None, lambda: os.read(pipe[0], 10 ** 5))):
        with cases(target):
            db, kind = fresh(), None if isinstance(target, int) else os.stat(target).st_mode
            db.filename = target
            _, error = outcome(db.save)
            assert error_number == getattr(error, "errno", None), error
            assert contents is None or contents() == content
            assert kind is None and outcome(os.fstat, target)[1] or os.stat(target).st_mode == kind
    with cases("hard link"):
        os.link(PATH, "twin")
        OPERATIONS["insert"](fresh())
        assert (read("twin"), os.stat("twin").st_nlink) == (content, 1)
    os.symlink(PATH, "link")
    for name in (PATH, "link"):
        with cases("limited size", name):
            resource.setrlimit(resource.RLIMIT_FSIZE, (len(read()) + 100, limits[1]))
            db, old, there = fresh(), read(), listing()
            db.filename = name
            _, error = outcome(db.insert, "t", {"o": "x" * (len(old) + 1000)})
            assert (error.errno, error.filename, read(), listing()) == (errno.EFBIG, name, old, there)
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
            assert saved(db) != old
    with cases("audit"):
        sys.addaudithook(lambda event, values: event == "open" and values[0] == PATH and seen.append(values) or (
            refused and values == refused[0] and misbehave(PermissionError)))
        refused = []
        for mode in "rw":
            open(PATH, mode, encoding="utf-8").close()
        fresh().save()
        fresh().load()
        assert seen[2:] == [seen[1], seen[0]], seen
        old, refused = read(), seen[1:2]
        assert isinstance(outcome(OPERATIONS["insert"], fresh())[1], PermissionError) and read() == old


def ordinary_user(cases):
    """Also: what was another group's may not be given to this one."""
    reset(b"")
    content = saved(fresh())
    modes = {"protected": 0o444, "sub/in a protected folder": 0o666, "narrow": 0o662, "wide": 0o646}
    for path, mode in modes.items():
        with open(path, "wb") as file:
            file.write(content)
        os.chmod(path, mode)
    lose_rights()
    for path, mode in modes.items():
        with cases(path):
            db, before, had = fresh(), listing(), os.stat(path)
            db.filename = path
            _, error = outcome(OPERATIONS["insert"], db)
            assert listing() == before
            if "protected" in path:
                assert (type(error), error.filename, read(path)) == (PermissionError, path, content), error
                continue
            now = os.stat(path)
            assert error is None and read(path) != content and now.st_mode & 0o007 == mode & 0o007, error
            assert now.st_gid == had.st_gid or now.st_mode & 0o070 & ~((mode & 0o007) << 3) == 0, oct(now.st_mode)


def mounted(cases):
    """In a name space of mounts that ends with the process."""
    content, *_ = old_and_new("save", "plain")
    with cases("mounted by itself"):
        subprocess.run(["mount", "--bind", PATH, PATH], check=True)
        _, error = outcome(OPERATIONS["insert"], fresh())
        assert (error.errno, error.filename) == (errno.EBUSY, PATH), error
        assert (read(), listing()) == (content, [f"./{PATH}"])
    with cases("full disk"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", "sub"], check=True)
        os.chdir("sub")
        db, error = fresh(), None
        while error is None:
            content = saved(db)
            _, error = outcome(db.insert, "t", {"o": "x" * 1000})
        assert (error.errno, error.filename) == (errno.ENOSPC, PATH), error
        assert (read(), listing()) == (content, [f"./{PATH}"]) and not disagreement(db)
        subprocess.run(["mount", "-o", "remount,size=1m", "."], check=True)
        assert len(saved(db)) > len(content) + 1000
        os.chdir("..")


CAN_MOUNT = bool(shutil.which("unshare")) and not subprocess.run(["unshare", "-rm", "true"], capture_output=True).returncode


class Targets(FaultTest):
    def test_targets(self):
        self.in_child(targets)

    @unittest.skipUnless(os.getuid() == 0, "only root can become another user")
    def test_ordinary_user(self):
        self.in_child(ordinary_user)

    @unittest.skipUnless(CAN_MOUNT, "mounting is not permitted here")
    def test_mounts(self):
        self.in_child(mounted, through=("unshare", "-rm"))


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class Disk(FaultTest):
    some = (*WRITING, "insert much") if LONG else ("insert", "insert much")

    def test_every_system_call(self):
        self.in_child(system_calls, self.some)

    def test_killed_at_every_system_call(self):
        self.in_child(kills, self.some)

    def test_planted_names(self):
        self.in_child(planted)


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
    "clear indexes": lambda db: [cleared.clear() for index in (*table(db).indexes.values(), table(db).indexes)
                                 for cleared in (*index.values(), index)],
    "clear arguments": lambda db: [argument.clear() for argument in vars(db).get("given", ())],
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


class Spelt(str):
    """An attribute's name that has a say in its look-up."""

    __hash__ = str.__hash__

    def __eq__(self, other):
        return stage.answer(lambda: str.__eq__(self, other))


def respell(record, name):
    vars(record)[Spelt(name)] = vars(record).pop(name)


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
    **{f"respelt {name}": lambda db, name=name: respell(table(db).columns[1], name) for name in ("name", "unique")},
    **{f"respelt {name}": lambda db, name=name: respell(table(db), name) for name in ("columns", "rows", "indexes")},
    "respelt tables": lambda db: respell(db, "tables"),
    "filename": lambda db: setattr(db, "filename", HostilePath()),
    "tables": lambda db: setattr(db, "tables", Hostile()),
    **{f"redefined {name}": lambda db, name=name: setattr(db, name, lambda *args, **names: stage.answer(Hostile))
       for name in vars(JSONDatatable) if name[1] != "_"},
    **{f"rebound {name}": lambda db, name=name: setattr(module, name, Hostile()) for name in (
        "json", "open", "os", "re", "datetime", "Column", "Table")},
}


NESTED = [("argument", act) for act in ("insert", "update", "save", "clear_table")]
OFTENER = {("keys", "raise"): 0.5, ("keys", "clear indexes"): 0.5, ("argument", "clear arguments"): 1,
           ("respelt name", "clear columns"): 1}


def hostile_objects(cases, share):
    chosen = random.Random(4)
    reset(b"")
    content = saved(fresh())
    originals = dict(vars(module))
    for plant, name, act in itertools.product(PLANTS, OPERATIONS, (*ODD, *ACTS)):
        accepts = plant != "argument" or "x" in OPERATIONS[name].__code__.co_varnames
        if not accepts or chosen.random() > max(share, OFTENER.get((plant, act), 0)):
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
                # A value that refuses ends an index build where it stands; only an accident puts back what was before.
                left_as_it_is = name in PARTIAL or (name, act) == ("_build_indexes", "raise")
                if (act in ("raise", "interrupt") or (plant, act) in NESTED) and before and not left_as_it_is:
                    assert not disagreement(db), disagreement(db)
                    assert saving or act not in ("raise", "interrupt") or memory(db, id) == before, "not taken back"
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

SHAPELESS = (None, 1, True, 2.5, "k", [], {}, [1], {"a": [0]}, [[1, "a"], [None]], {"name": "k", "data_type": "number"})


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
        node = document = json.loads(content)
        while node:
            key = chosen.choice(list(node) if isinstance(node, dict) else range(len(node)))
            if not isinstance(node[key], (dict, list)) or not node[key] or chosen.random() < 0.3:
                node[key] = chosen.choice(SHAPELESS)
                break
            node = node[key]
        yield json.dumps(document).encode()
        values = [make(chosen) for make in (test_roads.text, test_roads.number) for _ in range(9)]
        yield wrapped(json.dumps(values, ensure_ascii=chosen.random() < 0.5).encode("utf-8", "surrogatepass"))


def loaded(database):
    db = database("missing.json")
    db.filename = PATH
    with contextlib.redirect_stdout(io.StringIO()) as output:
        got, error = outcome(db.load)
    tables = {name: (table.name, [vars(column) for column in table.columns], table.rows, table.indexes)
              for name, table in db.tables.items()}
    db.save = lambda: None
    after = [outcome(getattr(db, name), "t", *values)[0] for name, *values in (
        ("select", {"k": 2}), ("select", {"o": 1.5, "s": "b"}), ("update", 0, {"s": "d"}), ("insert", {"k": 8, "u": "p"}))]
    return got, str(error), output.getvalue(), repr(tables), after


def wrong_files(cases, count):
    reset(b"")
    for number, content in enumerate(bad_files(saved(fresh()), count)):
        reset(content)
        with cases(number, content[:1000]):
            ours, expected = loaded(JSONDatatable), loaded(model.Checked)
            assert ours == expected, [pair for pair in zip(ours, expected) if pair[0] != pair[1]]
            assert read() == content


class Files(FaultTest):
    def test_bad_files(self):
        self.in_child(wrong_files, 15000 if LONG else 300)


# ---- Signals, threads, processes -----------------------------------------------------------------

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
    **{name: (grown, OPERATIONS[name]) for name in ("insert", "update", "clear_table", "save", "load", "_build_indexes")},
    "display_table": (grown, lambda db: db.display_table("t", 0)),
    "rebuild": (lambda size: JSONDatatable(PATH), lambda db: db._dict_to_row_id(table(db), {"k": 0})),
    "select": (alike, lambda db: db.select("t", {"s": LONG_TEXT + "b", "k": 0})),
    "look-up": (alike, lambda db: db._dict_to_row_id(table(db), {"s": LONG_TEXT + "b"})),
    "uniqueness": (alike, lambda db: db._validate_row(table(db), {"s": LONG_TEXT + "b"})),
}


def interrupts(cases, size):
    """An interrupt that comes after a third of an operation ends it well before its time."""
    signal.signal(signal.SIGPROF, lambda *_: misbehave(KeyboardInterrupt))
    reset(b"")
    content = saved(grown(size))
    for name, (make, operation) in WALKS.items():
        taken = []
        for third in (0, 1):
            reset(content)
            db = make(size)
            with contextlib.redirect_stdout(io.StringIO()) as output:
                start = time.process_time()
                signal.setitimer(signal.ITIMER_PROF, third and taken[0] / 3)
                got, _ = outcome(operation, db, show=type)
                signal.setitimer(signal.ITIMER_PROF, 0)
                taken.append(time.process_time() - start)
        with cases(name, taken):
            # Clocks are coarse, and the host reads a whole file in one go.
            if taken[0] < 0.05 and got[0] == "returned":
                continue
            assert got == (KeyboardInterrupt, ("misbehaved",)), got
            assert taken[1] < taken[0] * 0.8 or name == "load" or taken[0] < 0.1, "honoured late"
            assert read() == content and listing() == [f"./{PATH}"] and (name != "load" or not output.getvalue())
            if name == "rebuild":
                operation(db)
            assert name == "load" or list(table(db).indexes) == ["k", "s", "u"]
            assert make is alike or not disagreement(db), "not whole"


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


BEGIN = """
    import atexit, gc, random, sys, threading, time
    from talvern_client.utils.json_database import Column, JSONDatatable
    db = JSONDatatable("database.json")
    db.create_table("t", [Column(name, "t", False) for name in "kso"])
"""
DAEMONS = """
    db.tables["t"].rows += [[None, "x" * 100, {{}}] for _ in range(300)]
    sys.setswitchinterval(1e-5)
    def work():
        while True:
            {}
    for _ in range(3):
        threading.Thread(target=work, daemon=True).start()
    time.sleep(random.random() / 50)
"""
ENDINGS = [
    """
    class Saving:
        def __del__(self, db=db):
            db.save()
            db.select("t")
    keep, db.keep = Saving(), Saving()
    """,
    "atexit.register(db.insert, 't', {'k': 1})",
    "del sys.modules['talvern_client.utils.json_database'], JSONDatatable; gc.collect(); db.insert('t', {'k': 1})",
    *map(DAEMONS.format, ("db.save()", "db.tables['t'].rows[0][2] = {1}; db.save()", "JSONDatatable('database.json')")),
]


class Company(FaultTest):
    def test_interrupts(self):
        self.in_child(interrupts, 400000 if LONG else 60000)

    def test_threads(self):
        self.in_child(crowd, 9 if LONG else 0.6)

    def test_many_processes(self):
        self.in_child(many_processes, 8 if LONG else 0.5)

    def test_exit(self):
        for ending in ENDINGS:
            for _ in range((20 if LONG else 2) if "daemon" in ending else 1):
                with self.subTest(ending), tempfile.TemporaryDirectory() as folder:
                    run_python(BEGIN + ending if "\n" in ending else f"{BEGIN}    {ending}", folder)
                    rows = JSONDatatable(os.path.join(folder, PATH)).tables["t"].rows
                    self.assertTrue("insert" not in ending or rows == [[1, None, None]], rows)


if __name__ == "__main__":
    unittest.main()
