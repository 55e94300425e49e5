"""The database under faults: memory, disk, interrupts, files and host objects that misbehave."""

import contextlib
import ctypes
import errno
import gc
import io
import itertools
import json
import os
import random
import re
import signal
import stat
import subprocess
import sys
import tempfile
import textwrap
import threading
import time
import traceback
import unittest
import weakref

import model
from fault_support import (FAIL, INTERRUPT, KILL_AFTER, KILL_BEFORE, LIBRARY, LINGER, LONG, NO_MALLOC, OPERATIONS, PARTIAL, PATH, PREDICT,
                           SANITIZED, SHAPES, SHORTEN, WRITING, FaultTest, NoMemory, SystemFault, _testcapi,
                           disagreement, dumped, fresh, listing, memory, old_and_new, outcome, read, reset, saved, sweep)
from support import JSONDatatable, module, optional, run_python, unique

CAN_MOUNT = subprocess.run(["unshare", "-rm", "true"], capture_output=True).returncode == 0 if sys.platform == "linux" else False
NO_LIBRARY = "no library to preload was built"
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
    "wrong type": lambda db: db.insert("t", [("s", "x")]),
    "too many": lambda db: db.select("t", None, None, None, None),
    "unhashable": lambda db: db.insert("t", {"s": [1], "k": 8}),
    "unhashable update": lambda db: db.update("t", 1, {"s": [1], "k": 8}),
    "refused document": lambda db: db.insert("t", {"o": {(1,): 2}}),
    "lone surrogate": lambda db: db.insert("t", {"o": "\ud800"}),
    "deleted row": lambda db: db.get_row("t", 2),
    "folder": lambda db: setattr(db, "filename", "sub") or db.save(),
    "missing folder": lambda db: setattr(db, "filename", "missing/x") or db.save(),
    "bad file": lambda db: setattr(db, "filename", os.devnull) or db.load(),
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
            for rounds in (20, times):
                before, descriptors = held(), os.listdir("/proc/self/fd")
                for _ in range(rounds):
                    outcome(operation, stage.set(fresh()))
            growth = [now - then for now, then in zip(held(), before)]
            assert growth[0] < 60 + times / 4 and growth[1] < 500 + times * 8, f"{growth} blocks and bytes more"
            assert os.listdir("/proc/self/fd") == descriptors
    values = "t", {"k": object()}, ["s"], 10 ** 20, None
    for method in vars(JSONDatatable):
        with cases("arguments", method):
            counts = [sys.getrefcount(value) for value in values[:-1]]
            for given in itertools.product(values, repeat=3):
                for count in range(4):
                    outcome(getattr(fresh(), method), *given[:count])
            given = None
            gc.collect()
            assert [sys.getrefcount(value) for value in values[:-1]] == counts
    with cases("cycle"):
        db = fresh()
        db.self, db.tables["t"].rows[0][2] = db, db
        gone = weakref.ref(db)
        del db
        gc.collect()
        assert gone() is None


class Memory(FaultTest):
    @unittest.skipUnless(_testcapi, "the interpreter has no _testcapi")
    def test_every_allocation(self):
        self.in_child(allocations, 1 if LONG else 13)

    @unittest.skipUnless(LIBRARY, NO_LIBRARY)
    @unittest.skipIf(SANITIZED, "the sanitizer has a malloc of its own")
    def test_every_outer_allocation(self):
        self.in_child(outer_allocations)

    def test_leaks(self):
        self.in_child(leaks, 2000 if LONG else 150)


# ---- Disk ----------------------------------------------------------------------------------------

def system_calls(cases, names):
    for name in names:
        for shape in SHAPES:
            sweep(cases, name, lambda n: (
                *(SystemFault(FAIL, n + 1, error=error) for error in (errno.ENOSPC, errno.EIO, errno.EFBIG)),
                *(SystemFault(action, n + 1, n + more) for action in (SHORTEN, INTERRUPT) for more in (1, 3))), shape=shape)


def kills(cases, names):
    """Also: what is left behind was at no moment more accessible than the file."""
    os.umask(0o022)
    for name, shape in itertools.product(names, SHAPES):
        content, (_, old, before), (_, _, new, _) = old_and_new(name, shape)
        for number, action in ((number, action) for number in itertools.count(1) for action in (KILL_BEFORE, KILL_AFTER)):
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
    probe = SystemFault(PREDICT, 10 ** 6)
    outcome(fresh().save, arm=probe.arm, disarm=probe.disarm)
    name = probe.created
    assert name, "the new file is not created exclusively"
    for plant in (lambda: os.symlink("sub/victim", name), lambda: os.symlink("sub/none", name), lambda: os.mkfifo(name),
                  lambda: os.link("sub/victim", name), lambda: os.mkdir(name), lambda: open(name, "x").close()):
        for times in (1, 10 ** 6):
            reset(content)
            with open("sub/victim", "w", encoding="utf-8") as file:
                file.write("precious")
            plant()
            there, before = os.lstat(name), listing()
            with cases(stat.filemode(there.st_mode), times):
                fault = SystemFault(PREDICT, times)
                _, error = outcome(OPERATIONS["insert"], fresh(), arm=fault.arm, disarm=fault.disarm)
                assert (type(error), read()) == ((type(None), new) if times == 1 else (FileExistsError, content)), error
                assert (read("sub/victim"), os.lstat(name)[:4], listing()) == (b"precious", there[:4], before)


def ordinary_user(cases):
    reset(b"")
    content = saved(fresh())
    os.chmod(".", 0o777)
    os.chmod("sub", 0o755)
    modes = {"sub/file": 0o666, "narrow": 0o662, "wide": 0o646}
    for path, mode in modes.items():
        with open(path, "wb") as file:
            file.write(content)
        os.chmod(path, mode)
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(65534)
        os.setuid(65534)
    for path, mode in modes.items():
        with cases(path):
            db, before = fresh(), listing()
            db.filename = path
            _, error = outcome(OPERATIONS["insert"], db)
            assert listing() == before
            if error:
                assert (type(error), error.filename, read(path)) == (PermissionError, path, content)
            else:
                now = os.stat(path).st_mode
                assert read(path) == dumped(db) and now & 0o007 == mode & 0o007, oct(now)
                # What was another group's may not be given to this one.
                assert os.stat(path).st_gid == 0 or now & 0o070 & ~((mode & 0o007) << 3) == 0, oct(now)


def shapes(cases):
    content, _, _ = old_and_new("save", "plain")
    with cases("hard link"):
        os.link(PATH, "twin")
        OPERATIONS["insert"](fresh())
        assert (read("twin"), os.stat("twin").st_nlink) == (content, 1)
    with cases("/dev/full"):
        db = fresh()
        db.filename = "/dev/full"
        _, error = outcome(db.save)
        assert isinstance(error, OSError) and error.errno == errno.ENOSPC
    with cases("long path"):
        for _ in range(25):
            os.mkdir("d" * 200)
            os.chdir("d" * 200)
        db = fresh()
        assert saved(db) == dumped(db)
        db.filename = "/".join([os.curdir] * 2100)
        expected, _ = outcome(open, db.filename, "w")
        assert outcome(db.save)[0] == expected
        os.chdir("../" * 25)


def mounted(cases):
    """In a name space of mounts that ends with the process."""
    with cases("mounted by itself"):
        content, *_ = old_and_new("save", "plain")
        subprocess.run(["mount", "--bind", PATH, PATH], check=True)
        _, error = outcome(OPERATIONS["insert"], fresh())
        assert isinstance(error, OSError) and (error.errno, error.filename) == (errno.EBUSY, PATH), error
        assert (read(), listing()) == (content, [f"./{PATH}"])
        subprocess.run(["umount", PATH], check=True)
    with cases("full disk"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", "sub"], check=True)
        os.chdir("sub")
        db, error = fresh(), None
        while error is None:
            content = saved(db)
            _, error = outcome(db.insert, "t", {"o": "x" * 1000})
        assert isinstance(error, OSError) and (error.errno, error.filename) == (errno.ENOSPC, PATH), error
        assert (read(), listing()) == (content, [f"./{PATH}"])
        assert not disagreement(db) and len(db.tables["t"].rows) == len(JSONDatatable(PATH).tables["t"].rows) + 2
        subprocess.run(["mount", "-o", "remount,size=1m", "."], check=True)
        assert saved(db) == dumped(db)
        os.chdir("..")


@unittest.skipUnless(LIBRARY, NO_LIBRARY)
class Disk(FaultTest):
    some = (*WRITING, "insert much") if LONG else ("insert", "insert much")

    def test_every_system_call(self):
        self.in_child(system_calls, self.some)

    def test_killed_at_every_system_call(self):
        self.in_child(kills, self.some)

    def test_planted_names(self):
        self.in_child(planted)

    def test_targets(self):
        self.in_child(ordinary_user)
        self.in_child(shapes)

    @unittest.skipUnless(CAN_MOUNT, "mounting is not permitted here")
    def test_mounts(self):
        self.in_child(mounted, through=("unshare", "-rm"))


# ---- Host objects --------------------------------------------------------------------------------

class Misbehaved(Exception):
    pass


class Stage:
    """What hostile objects do: nothing wrong for some calls of their special methods, then an act at each further one."""

    def set(self, db, act="raise", honest=0):
        self.db, self.act, self.honest, self.calls, self.acting = db, ACTS[act], honest, 0, False
        return db

    def called(self):
        self.calls += 1
        # Not for ever: rows that grow at every step of a walk would make any walk endless.
        if self.calls <= self.honest or self.calls > self.honest + 50 or self.acting:
            return HONEST
        self.acting = True
        try:
            return self.act(self.db)
        finally:
            self.acting = False


HONEST = object()
stage = Stage()


def misbehave(kind):
    raise kind("misbehaved")


def honestly(act):
    return lambda db: (act(db), HONEST)[1]


def table(db):
    return db.tables["t"]


ACTS = {
    "behave": lambda db: HONEST,
    "raise": lambda db: misbehave(Misbehaved),
    "interrupt": lambda db: misbehave(KeyboardInterrupt),
    **{repr(odd)[:6]: lambda db, odd=odd: odd for odd in (None, [], -1, 10 ** 30, "odd", NotImplemented)},
    **{name: honestly(act) for name, act in {
        "clear rows": lambda db: table(db).rows.clear(),
        "shorten rows": lambda db: [row.clear() for row in table(db).rows],
        "other rows": lambda db: setattr(table(db), "rows", ((1,), [2])),
        "grow rows": lambda db: table(db).rows.insert(0, ["grown"] * 3),
        "clear columns": lambda db: table(db).columns.clear(),
        "no columns": lambda db: setattr(table(db), "columns", None),
        "empty lists": lambda db: [ids.clear() for index in table(db).indexes.values() for ids in index.values()],
        "clear indexes": lambda db: [index.clear() for index in table(db).indexes.values()],
        "other indexes": lambda db: setattr(table(db), "indexes", {"k": [], "s": {"new": (1,), "b": 5}}),
        "clear tables": lambda db: db.tables.clear(),
        "no tables": lambda db: setattr(db, "tables", 5),
        "drop": lambda db: (db.__dict__.clear(), gc.collect()),
        **{name: OPERATIONS[name] for name in ("insert", "update", "clear_table", "_build_indexes", "save", "load")},
    }.items()},
}


class HostilePath:
    pass


class Hostile(HostilePath):
    pass


for special, honest in {
        "__eq__": lambda self, other: self is other, "__ne__": lambda self, other: self is not other,
        "__hash__": lambda self: hash("new"), "__str__": lambda self: "text", "__repr__": lambda self: "text",
        "__format__": lambda self, _: "text", "__bool__": lambda self: True, "__int__": lambda self: 1,
        "__index__": lambda self: 1, "__float__": lambda self: 1.0, "__len__": lambda self: 1, "__del__": lambda self: None,
        "__iter__": lambda self: iter([1]), "__contains__": lambda self, _: True, "__getitem__": lambda self, _: [1],
        "__fspath__": lambda self: PATH, "__getattr__": lambda self, name: getattr(table(stage.db), name),
        "__setitem__": lambda self, *_: None, "__delitem__": lambda self, _: None}.items():
    def method(self, *args, honest=honest):
        done = stage.called()
        return honest(self, *args) if done is HONEST else done
    setattr(Hostile if special in ("__int__", "__index__", "__float__") else HostilePath, special, method)


def put(container, key, value):
    container[key] = value


PLANTS = {
    "argument": None,
    "value": lambda db: put(table(db).rows[1], 2, Hostile()),
    "keys": lambda db: [(put(table(db).rows[i], j, Hostile()), db._build_indexes("t")) for i in (0, 1) for j in (1, 3)],
    "ids": lambda db: put(table(db).indexes["s"], "b", [Hostile(), 1]),
    "id list": lambda db: put(table(db).indexes["s"], "b", Hostile()),
    "index": lambda db: put(table(db).indexes, "s", Hostile()),
    "row": lambda db: put(table(db).rows, 1, Hostile()),
    "column": lambda db: put(table(db).columns, 1, Hostile()),
    "table": lambda db: put(db.tables, "t", Hostile()),
    **{field: lambda db, field=field: setattr(table(db).columns[1], field, Hostile()) for field in (
        "name", "data_type", "required", "unique", "default", "validation_pattern")},
    **{f"the table's {field}": lambda db, field=field: setattr(table(db), field, Hostile()) for field in (
        "name", "columns", "rows", "indexes")},
    "filename": lambda db: setattr(db, "filename", HostilePath()),
    "tables": lambda db: setattr(db, "tables", Hostile()),
    **{f"redefined {name}": lambda db, name=name: setattr(db, name, lambda *args, **names: (stage.called(), Hostile())[1])
       for name in vars(JSONDatatable) if name[1] != "_" and name not in ("__module__", "__dict__", "__weakref__", "__doc__")},
    **{f"rebound {name}": lambda db, name=name: setattr(module, name, Hostile()) for name in (
        "json", "open", "os", "re", "datetime", "Column", "Table")},
}


def hostile_objects(cases, share):
    chosen = random.Random(4)
    reset(b"")
    content = saved(fresh())
    originals = dict(vars(module))
    for plant, name, act in itertools.product(PLANTS, OPERATIONS, ACTS):
        if plant == "argument" and "x" not in OPERATIONS[name].__code__.co_varnames or (
                chosen.random() > (0.5 if (plant, act) == ("keys", "raise") else share)):
            continue
        for honest in range(25):
            reset(content)
            db = stage.set(fresh(), "behave")
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
                stage.set(db, "behave")
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
    "{ } [ ] : , null true nul NaN -Infinity - -0 01 1e999 1E5 1.5e-7 .5 1. \"a\" \"tables\" \"rows\" \"name\" \"columns\" "
    "\"indexes\" \"\\ud800\" \"\\ud83d\\ude00\" \"\\u12\" \"\\x\" \" \\ / \\u0041 \x00 \x7f 5e5_0 \u2028 [[[[ }}}} {\"a\":{\"a\":").split(" ")]
TOKENS += [b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xef\xbb\xbf", b"\n", b"\t", b'"\t"', b"\r\n", b"", b"7" * 4300, b"7" * 4301, b"1." + b"3" * 800]


def wrapped(value):
    return b'{"tables": {"t": {"name": "t", "columns": [{"name": "a", "data_type": "x"}], "rows": [[' + value + b"]]}}}"


def bad_files(content, count):
    chosen = random.Random(6)
    for place in range(len(content)):
        yield content[:place]
        yield content[:place] + content[place + 1:]
        for flipped in (1, 0x20, 0x80):
            yield content[:place] + bytes([content[place] ^ flipped]) + content[place + 1:]
    for value in (b"[" * 10 ** 5, b"[" * 400 + b"]" * 400, b'{"":' * 10 ** 5, b"9" * 4300, b"-" + b"9" * 4301, b'"' + b"x" * 10 ** 7 + b'"',
                  b'"' + "é😀".encode() * 10 ** 5, b"1e" + b"9" * 400, b'{"a": 1, "b": 2, "a": 3}', *TOKENS):
        yield from (value, wrapped(value))
    yield from (content.decode().encode(encoding) for encoding in ("utf-8-sig", "utf-16", "utf-32-be", "latin-1"))
    pieces = re.findall(rb'"[^"]*"|[^"\s]|\s+', content)
    for _ in range(count):
        changed = list(pieces)
        for _ in range(chosen.randint(1, 3)):
            place = chosen.randrange(len(changed))
            until = place + chosen.choice((0, 1, 1, 1, 5, 40))
            changed[place:until] = chosen.choice(([chosen.choice(TOKENS)], changed[place:until] * 2, []))
        yield b"".join(changed)


def loaded(database, *arguments):
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


def cpu_time(operation, *arguments):
    start = time.process_time()
    got, _ = outcome(operation, *arguments, show=type)
    return time.process_time() - start, got


def interrupts(cases, least, most):
    """An interrupt that comes after a third of an operation ends it well before its time."""
    signal.signal(signal.SIGVTALRM, lambda *_: misbehave(KeyboardInterrupt))
    reset(b"")
    for name in ("insert", "update", "clear_table", "select scanned", "_dict_to_row_id", "save", "load", "display_table"):
        operation = (lambda db: OPERATIONS[name](db, 0)) if name == "display_table" else OPERATIONS[name]
        size, duration = 10000, 0
        while duration < least and size < most:
            size *= 4
            db = grown(size)
            content = saved(db) if name == "load" else read()
            with contextlib.redirect_stdout(io.StringIO()):
                duration, _ = cpu_time(operation, db)
        if duration < least:
            continue  # over too soon to be interrupted
        with open(PATH, "wb") as file:
            file.write(content)
        db = grown(size)
        signal.setitimer(signal.ITIMER_VIRTUAL, duration / 3)
        with cases(name, size), contextlib.redirect_stdout(io.StringIO()) as output:
            taken, got = cpu_time(operation, db)
            signal.setitimer(signal.ITIMER_VIRTUAL, 0)
            assert got == (KeyboardInterrupt, ("misbehaved",)), f"{got} in {taken:.2f} of {duration:.2f} s"
            # The host reads a whole file in one go.
            assert taken < duration * 0.7 or name == "load", f"honoured after {taken:.2f} of {duration:.2f} s"
            assert read() == content and listing() == [f"./{PATH}"] and not disagreement(db), "not whole"
            assert name != "load" or not output.getvalue()


def others_run(cases):
    """While a system call takes its time, another thread goes on."""
    ticks = 0

    def tick():
        nonlocal ticks
        while not done:
            ticks += 1
            time.sleep(0.001)

    done = []
    thread = threading.Thread(target=tick)
    thread.start()
    reset(b"")
    content = saved(fresh())
    for number in itertools.count(1):
        reset(content, "link")
        fault, before, db = SystemFault(LINGER, number), ticks, fresh()
        outcome(db.save, arm=fault.arm, disarm=fault.disarm)
        if not fault.hit:
            break
        with cases(number, fault.names):
            assert ticks - before > 10, f"{fault.names[number - 1]} stops other threads"
    done.append(True)
    thread.join()


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
                name = chosen.choice(sorted(OPERATIONS))
                got, _ = outcome(OPERATIONS[name], db, show=type)
                errors.add((name, got[0]))

        with cases(start), contextlib.redirect_stdout(io.StringIO()):
            threads = [threading.Thread(target=work, args=(seed,)) for seed in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            assert not [error for error in errors if error[1] is SystemError], errors
            json.loads(read())
            assert listing() == [f"./{PATH}"]


def many_processes(cases, seconds):
    """Writers and readers on one file: each reader always finds one writer's complete document."""
    reset(b"")
    saved(fresh())
    until, children = time.monotonic() + seconds, []
    for number in range(6):
        child = os.fork()
        if child == 0:
            status, rounds = 1, 0
            try:
                db = grown(number * 50)
                while time.monotonic() < until or rounds < 3:
                    if number % 2:
                        db.save()
                    rows = JSONDatatable(PATH).tables["t"].rows
                    assert rows == grown(len(rows)).tables["t"].rows or len(rows) == 5
                    rounds += 1
                status = 0
            except BaseException:
                traceback.print_exc()
            finally:
                os._exit(status)
        children.append(child)
    for child in children:
        with cases(child):
            assert os.waitpid(child, 0)[1] == 0
    assert listing() == [f"./{PATH}"], listing()


EXITS = {
    "globals": "db.self = keep = db",
    "saved by a finaliser": """
        class Saving:
            def __del__(self, db=db):
                db.save()
                db.insert("t", {})
        keep = db.keep = Saving()
    """,
    "saved at exit": "import atexit; atexit.register(db.save); atexit.register(db.select, 't')",
    "module dropped": "import sys, gc; del sys.modules['talvern_client.utils.json_database'], JSONDatatable; gc.collect(); db.save()",
    **{f"daemon threads, {name}": f"""
        import random, sys, threading, time
        class Slow:
            def __ne__(self, other):
                return sum(range(20)) < 0
            __eq__ = __ne__
        db.tables["t"].rows += [[None, "x" * 100, Slow()] for _ in range(300)]
        sys.setswitchinterval(1e-5)
        def work():
            while True:
                {call}
        for _ in range(3):
            threading.Thread(target=work, daemon=True).start()
        time.sleep(random.random() / 50)
    """ for name, call in {"saving": "db.save()", "saving odd values": "db.tables['t'].rows[0][2] = {1}; db.save()",
                           "selecting": "db.select('t', {'o': 1, 's': 2})", "loading": "JSONDatatable('database.json')"}.items()},
}


class Company(FaultTest):
    def test_interrupts(self):
        self.in_child(interrupts, *((0.15, 10 ** 6) if LONG else (0.05, 10 ** 5)))

    @unittest.skipUnless(LIBRARY, NO_LIBRARY)
    def test_others_run(self):
        self.in_child(others_run)

    def test_threads(self):
        self.in_child(crowd, 9 if LONG else 0.6)

    def test_many_processes(self):
        self.in_child(many_processes, 8 if LONG else 0.5)

    def test_exit(self):
        for name, code in EXITS.items():
            for _ in range((20 if LONG else 2) if "daemon" in name else 1):
                with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                    run_python("from talvern_client.utils.json_database import Column, JSONDatatable\n"
                               "db = JSONDatatable('database.json')\n"
                               "db.create_table('t', [Column(n, 't', False) for n in 'kso'])\n" + textwrap.dedent(code), folder=folder)


if __name__ == "__main__":
    unittest.main()
