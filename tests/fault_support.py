"""Faults made to happen one after the other, and what each may leave behind."""

import collections
import contextlib
import ctypes
import errno
import faulthandler
import itertools
import os
import shutil
import stat
import struct
import subprocess
import sys
import tempfile
import unittest

import model
from support import BASE, ENVIRONMENT, JSONDatatable, module, optional, unique

LONG = "JSON_DATABASE_LONG" in os.environ
LIBRARY = os.environ.get("JSON_DATABASE_FAULT_LIBRARY")
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "") or "rt.asan" in os.environ.get("LD_PRELOAD", "")
PATH = "database.json"


class FaultTest(unittest.TestCase):
    def in_child(self, function, *arguments, least=1, through=()):
        """Runs the test in a process and an empty folder of its own, where it has to try so many cases."""
        if "JSON_DATABASE_CHILD" in os.environ:
            self.assertEqual(bool(library), bool(LIBRARY), f"not loaded: {os.environ.get('LD_PRELOAD')}")
            faulthandler.dump_traceback_later(800 if LONG else 250, exit=True)
            cases = Cases(self)
            function(cases, *arguments)
            self.assertGreaterEqual(cases.count, least)
            return
        environment = {**ENVIRONMENT, "JSON_DATABASE_CHILD": "1"}
        with tempfile.TemporaryDirectory(dir=BASE) as folder:
            os.mkdir(f"{folder}/data")
            if LIBRARY:
                # By way of a link, since the list is split at spaces and colons.
                os.symlink(LIBRARY, f"{folder}/faults.so")
                environment["LD_PRELOAD"] = f"{os.environ.get('LD_PRELOAD', '')}:{folder}/faults.so"
            child = subprocess.Popen(
                [*through, sys.executable, "-X", "dev", "-m", "unittest", self.id()], cwd=f"{folder}/data",
                env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            said = None
            while said is None:
                try:
                    said = child.communicate(timeout=10)[1].decode(errors="replace")
                except subprocess.TimeoutExpired as waiting:
                    print(self.id(), "at", waiting.stderr.splitlines()[-1][:80], file=sys.stderr, flush=True)
        self.assertEqual((said.splitlines()[-1], child.returncode), ("OK", 0), said[-9000:])


class Cases:
    """The child's test. A call of it begins a case, whose name can be read after a crash."""

    def __init__(self, test):
        self.test, self.count = test, 0

    def __getattr__(self, name):
        return getattr(self.test, name)

    @contextlib.contextmanager
    def __call__(self, *label):
        self.count += 1
        print(*label, file=sys.stderr, flush=True)
        try:
            yield
        except Exception:  # a subtest that passes would be remembered
            with self.test.subTest(" ".join(map(str, label))):
                raise


# ---- One database, one call of every kind on it --------------------------------------------------

ROWS = [[1, "a", None, "p"], [2, "b", 1.5, "q"], [None] * 4, [3, "é", [1], "r"],
        [4, "d", True, "s"], [5, "e", "x", "t"]]


def fresh():
    """A database in memory, with full index dictionaries: listing one more value makes them grow."""
    db = JSONDatatable("missing.json")
    db.filename = PATH
    columns = [unique("k", "number"), unique("s"), optional("o"), unique("u")]
    db.tables["t"] = module.Table("t", columns, [list(row) for row in ROWS])
    db.tables["empty"] = module.Table("empty", [])
    db._build_indexes("t")
    return db


def given(db, *arguments):
    """Kept within reach of those who spoil a call's arguments while it is under way."""
    db.given = arguments
    return arguments


# Each takes a database and, where there is a place for it, a value of the caller's choice.
OPERATIONS = {
    "__init__": lambda db, x=PATH: JSONDatatable(x),
    "create_table": lambda db, x="k": db.create_table("new", [unique(x), optional("o", default=x)]),
    "insert": lambda db, x="new": db.insert("t", {"k": "7", "s": x, "o": x, "u": x}),
    "insert much": lambda db: db.insert("t", {"k": 7, "s": "new", "o": ["x" * 100000] * 6}),
    "insert refused": lambda db, x="a": db.insert("t", {"k": 1, "s": x}),
    "update": lambda db, x="new": db.update("t", 1, {"k": 9, "s": x, "o": x, "u": x}),
    "clear_table": lambda db: db.clear_table("t"),
    "delete": lambda db, x=1: db.delete("t", x),
    "select listed": lambda db, x="b": db.select("t", *given(db, {"s": x}, [x, "k"])),
    "select scanned": lambda db, x="b": db.select("t", *given(db, {"s": x, "k": 2}, ["k", x]), 3),
    "get_row": lambda db, x=1: db.get_row("t", x),
    "_build_indexes": lambda db: db._build_indexes("t"),
    "_row_to_dict": lambda db, x="s": db._row_to_dict(
        db.tables["t"], *given(db, db.tables["t"].rows[1], [x, "k"])),
    "_project_row": lambda db, x="s": db._project_row(*given(db, {"k": 1, x: 2}, ["u", x, "k"])),
    "_validate_row": lambda db, x="2": db._validate_row(db.tables["t"], {"k": x, x: 1}, x),
    "_dict_to_row_id": lambda db, x="x": db._dict_to_row_id(db.tables["t"], {"o": x}),
    "save": lambda db: db.save(),
    "load": lambda db: db.load(),
    "display_table": lambda db, x=3: db.display_table("t", x),
}
WRITING = ("create_table", "insert", "update", "clear_table", "delete", "save")
# A failure half way leaves part of the change in memory: what is there must agree, or be built anew.
PARTIAL = ("clear_table", "load", "create_table", "_build_indexes")


def settle(db):
    """Indexes that an undo has left marked are rebuilt by the next operation that needs them."""
    for table in db.tables.values():
        JSONDatatable._dict_to_row_id(db, table, {})


def memory(db, show=lambda value: value):
    """The contents, each value as `show` gives it; the order of an index's keys is nobody's promise."""
    settle(db)
    return {name: ([list(map(show, row)) for row in table.rows],
                   {column: {show(value): list(ids) for value, ids in index.items()}
                    for column, index in table.indexes.items()}) for name, table in db.tables.items()}


def disagreement(db):
    """What rows and indexes say differently."""
    def same(value):
        return value if type(value) in (str, int) else id(value)

    settle(db)
    for table in db.tables.values():
        live = [(row_id, row) for row_id, row in enumerate(table.rows) if set(map(id, row)) - {id(None)}]
        for position, column in enumerate(table.columns):
            index = table.indexes.get(column.name)
            if index is None:
                continue
            # An empty list, which no index may hold, counts as that of no row.
            listed = sorted((row_id, same(value)) for value, ids in index.items() for row_id in ids or [-1])
            held = [(row_id, same(row[position])) for row_id, row in live]
            if listed != held:
                return f"{column.name}: lists {listed}, live are {held}"
    return None


def read(path=PATH):
    with contextlib.suppress(FileNotFoundError), open(path, "rb") as file:
        return file.read()


def listing():
    return sorted(os.path.join(folder, name) for folder, _, names in os.walk(".") for name in names)


def saved(db):
    db.save()
    return read(db.filename)


ACCESS, DEFAULT = "system.posix_acl_access", "system.posix_acl_default"


def access_list(*entries):
    """Of (tag, rights) or (tag, rights, id), in the order of the tags."""
    tags = {"owner": 1, "user": 2, "owning group": 4, "group": 8, "mask": 16, "others": 32}
    return struct.pack("<I", 2) + b"".join(
        struct.pack("<HHI", tags[tag], rights, *number or (2 ** 32 - 1,)) for tag, rights, *number in entries)


LISTED = access_list(("owner", 6), ("user", 4, 1), ("owning group", 0), ("mask", 4), ("others", 0))


def can_list():
    with contextlib.suppress(OSError), tempfile.NamedTemporaryFile(dir=BASE) as file:
        os.setxattr(file.fileno(), ACCESS, LISTED)
        return True
    return False


CAN_LIST = can_list()
# What the system may have no call for, and how it says so.
LACKING = {"flock": errno.ENOLCK, "fsync-folder": errno.EINVAL}
# What lies there before, or which call the system lacks.
SHAPES = ["plain", "missing", "link", *LACKING, *["listed"] * CAN_LIST, *["owned"] * (os.getuid() == 0)]


def reset(content, shape="plain"):
    """Empties the folder and puts a file of the given shape there."""
    if library:
        library.fault_lack(shape.encode(), LACKING.get(shape, 0))
    for entry in os.scandir():
        shutil.rmtree(entry) if entry.is_dir(follow_symlinks=False) else os.unlink(entry)
    os.mkdir("sub")
    if shape == "link":
        os.symlink("sub/real.json", PATH)
    if shape != "missing":
        with open(PATH, "wb") as file:
            file.write(content)
        os.chmod(PATH, 0o640)
    if shape == "owned":
        os.chown(PATH, 1, 2)
    if shape == "listed":
        os.setxattr(PATH, ACCESS, LISTED)


def dumped(db):
    """What a save has to write."""
    plain = model.JSONDatatable("missing.json")
    plain.filename, plain.tables = "../dumped", db.tables
    return saved(plain)


State = collections.namedtuple("State", "memory file listing mode")


def state(db):
    mode = stat.S_IMODE(os.stat(PATH).st_mode) if os.path.exists(PATH) else 0
    return State(memory(db), read(), listing(), mode)


def old_and_new(name, shape="plain"):
    """A good file's text, the states before and after an undisturbed operation, and what that gives."""
    reset(b"")
    content = saved(fresh())
    reset(content, shape)
    db = fresh()
    old = state(db)
    result, error = outcome(OPERATIONS[name], db)
    if isinstance(error, OSError):
        raise error
    return content, old, state(db), result


# ---- Faults --------------------------------------------------------------------------------------

class Fault:
    """`arm` and `disarm` run around a call. Then it may explain an error, or may have been overcome."""

    names = ()

    def arm(self):
        pass

    disarm = arm

    def explains(self, error):
        # The second is what the interpreter's own `open` makes of it.
        return type(error) is MemoryError or repr(error) == """RuntimeError("can't allocate read lock")"""

    def overcome(self):
        return True


def outcome(function, *arguments, fault=Fault(), show=repr):
    """What a call gives, comparable; plus the error itself. An armed fault may leave no memory for more."""
    try:
        fault.arm()
        result = function(*arguments)
        fault.disarm()
    except BaseException as error:
        fault.disarm()
        error.__traceback__ = error.__context__ = None
        return (type(error), error.args), error
    return ("returned", show(vars(result) if isinstance(result, JSONDatatable) else result)), None


class NoMemory(Fault):
    """The n-th allocation through the interpreter fails, and those that follow where `stop` is 0."""

    def __init__(self, number, stop):
        import _testcapi  # not every interpreter has it
        self.arm, self.disarm = lambda: _testcapi.set_nomemory(number, stop), _testcapi.remove_mem_hooks


# Among the names of the process itself: there only where the library has been preloaded.
library = ctypes.CDLL(None) if hasattr(ctypes.CDLL(None), "fault_arm") else None
if library:
    library.fault_names.restype = ctypes.c_char_p
FAIL, SHORTEN, KILL, NO_MALLOC = range(1, 5)


# What a save does without: nothing was written through a descriptor that is merely released. And to which
# refusals it knows an answer: it narrows rights, or tries another name.
DISPENSABLE = {"release", "faccessat", "flock", "getxattr", "fgetxattr", "sync_file_range"}
ANSWERED = {errno.EPERM: {"fchown", "fchmod", "fsetxattr", "fremovexattr"}, errno.EEXIST: {"new"}}


class SystemFault(Fault):
    """The calls of the preloaded library from `first` to `last` go the planned way."""

    def __init__(self, action, first=0, last=None, error=0):
        self.action, self.first, self.last, self.error = action, first, last or first, error

    def arm(self):
        library.fault_arm(self.action, self.first, self.last, self.error)

    def disarm(self):
        self.hit = library.fault_disarm() >= self.first
        self.names = library.fault_names().decode().split()

    def explains(self, error):
        if self.action == NO_MALLOC:
            return super().explains(error)
        failed = isinstance(error, OSError) and (error.errno, error.filename) == (self.error, PATH)
        return failed and not self.overcome()

    def overcome(self):
        if self.action != FAIL or self.error == errno.EINTR or not self.hit:
            return True
        call = self.names[self.first - 1]
        if call in ANSWERED.get(self.error, ()):
            return True
        # One that finds another file behind a link than a moment before begins anew.
        return call in DISPENSABLE or self.names.count("stat") > 1


def judge(cases, name, db, fault, got, error, old, new, undisturbed):
    """The operation must end as it may under the fault, memory and file wholly the old or the new ones."""
    now, possible = state(db), [new] if got == undisturbed else [old, new]
    if got == undisturbed:
        cases.assertTrue(fault.overcome(), "a failure was passed over")
    else:
        cases.assertTrue(fault.explains(error), f"ended as {got!s:.500}")
    if got == undisturbed or name not in PARTIAL:
        cases.assertIn(now.memory, [one.memory for one in possible])
    cases.assertIn((now.listing, now.file), [(one.listing, one.file) for one in possible])
    allowed = old.mode or new.mode
    cases.assertEqual(oct(now.mode | allowed), oct(allowed))
    cases.assertNotIn("shared", fault.names, "the new file is not created exclusively")
    cases.assertNotIn("locked", fault.names, "other threads wait for the disk")
    if name not in PARTIAL or name == "clear_table":
        cases.assertIsNone(disagreement(db))
    cases.assertEqual(saved(db), dumped(db))


def sweep(cases, name, faults, stride=1, shape="plain"):
    """Makes one operation meet `faults(n)` for n = 0, 1, 2 ... until the first of them no longer matters."""
    content, *expected = old_and_new(name, shape)
    for number in itertools.count(0, stride):
        for position, fault in enumerate(faults(number)):
            reset(content, shape)
            db, descriptors = fresh(), os.listdir("/proc/self/fd")
            with cases(name, shape, number, position):
                got, error = outcome(OPERATIONS[name], db, fault=fault)
                cases.assertEqual(os.listdir("/proc/self/fd"), descriptors)
                judge(cases, name, db, fault, got, error, *expected)
            if position == 0 and not getattr(fault, "hit", got != expected[-1]):
                return
