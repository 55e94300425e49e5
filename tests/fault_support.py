"""Faults made to happen one after the other, and what each may leave behind.

A test hands a function to `in_child`, which runs it in a process of its own, in an empty folder. It counts its
cases there and may crash. A fault is armed before one call and disarmed after it.
"""

import contextlib
import ctypes
import errno
import itertools
import os
import shutil
import stat
import struct
import subprocess
import sys
import tempfile
import traceback
import unittest

import model
from support import BASE, JSONDatatable, module, optional, unique

try:
    import _testcapi
except ImportError:
    _testcapi = None

LONG = "JSON_DATABASE_LONG" in os.environ
LIBRARY = os.environ.get("JSON_DATABASE_FAULT_LIBRARY")
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "") or "rt.asan" in os.environ.get("LD_PRELOAD", "")
PATH = "database.json"


class FaultTest(unittest.TestCase):
    def in_child(self, function, *arguments, least=1, through=()):
        """Fails unless the function tries at least so many cases, and each of them ends as it must."""
        call = f"{function.__name__}, *{arguments}"
        with tempfile.TemporaryDirectory(dir=BASE) as folder:
            data, output, errors = (os.path.join(folder, name) for name in ("data", "output", "errors"))
            os.mkdir(data)
            code = f"import fault_support as s, {function.__module__} as t; s.run_cases({least}, t.{call})"
            with open(output, "wb") as output_file, open(errors, "wb") as errors_file:
                child = subprocess.Popen(
                    [*through, sys.executable, "-X", "dev", "-c", code], cwd=data,
                    env=child_environment(folder), stdin=subprocess.DEVNULL,
                    stdout=output_file, stderr=errors_file)
                status = self.wait(child, call, errors)
            printed, told = read(output).decode(errors="replace"), read(errors).decode(errors="replace")
        if status or not printed:
            self.fail(f"{call}: exit status {status}\n{printed[:8000]}{told[-6000:]}")
        print(f"{call}: {printed.strip()}", file=sys.stderr)

    def wait(self, child, call, errors):
        """The child's exit status. Now and then prints the case that it has come to."""
        for _ in range(40):
            try:
                return child.wait(10)
            except subprocess.TimeoutExpired:
                case = b"".join(read(errors).splitlines()[-1:])[:80].decode(errors="replace")
                print(f"{call}: at {case}", file=sys.stderr, flush=True)
        child.kill()
        return child.wait()


def child_environment(folder):
    """This process's environment, plus the fault library, preloaded."""
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(map(os.path.abspath, sys.path))}
    if LIBRARY:
        # By way of a link, since the list is split at spaces and colons.
        link = os.path.join(folder, "faults.so")
        os.symlink(LIBRARY, link)
        environment["LD_PRELOAD"] = ":".join(filter(None, (os.environ.get("LD_PRELOAD"), link)))
    return environment


class Cases:
    """Counts the cases, names each where it can be read after a crash, collects what failed."""

    def __init__(self):
        self.count, self.faults = 0, []

    @contextlib.contextmanager
    def __call__(self, *label):
        self.count += 1
        text = " ".join(map(str, label))
        os.write(sys.__stderr__.fileno(), f"{text}\n".encode(errors="replace"))
        try:
            yield
        except BaseException as error:
            where = "".join(traceback.format_tb(error.__traceback__)[-1:])
            self.faults.append(f"{text}: {error!r:.2000}\n{where}")


def run_cases(least, function, *arguments):
    if LIBRARY and not library:
        sys.exit(f"the fault library is not loaded: LD_PRELOAD={os.environ['LD_PRELOAD']}")
    cases = Cases()
    with contextlib.redirect_stdout(sys.stderr):
        function(cases, *arguments)
    print(f"{cases.count} cases of at least {least}, {len(cases.faults)} faults", *cases.faults, sep="\n")
    sys.exit(cases.count < least or bool(cases.faults))


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
# A failure half way leaves part of the change in memory: what is there must agree, or is the next build's matter.
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
    settle(db)
    for table in db.tables.values():
        live = {row_id: row for row_id, row in enumerate(table.rows) if set(map(id, row)) - {id(None)}}
        for position, column in enumerate(table.columns):
            if column.name not in table.indexes:
                continue
            index = table.indexes[column.name]
            # An empty list, which no index may hold, counts as that of no row.
            listed = [(row_id, value) for value, ids in index.items() for row_id in ids or [-1]]
            if sorted(row_id for row_id, _ in listed) != list(live):
                return f"{column.name}: lists {listed}, live are {list(live)}"
            for row_id, value in listed:
                held = live[row_id][position]
                comparable = type(held) is type(value) in (str, int)
                if held is not value and not (comparable and held == value):
                    return f"{column.name}: row {row_id} under another value"
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
    with tempfile.NamedTemporaryFile(dir=BASE) as file:
        try:
            os.setxattr(file.fileno(), ACCESS, LISTED)
        except OSError:
            return False
    return True


CAN_LIST = can_list()
# What lies there before, or which call the system lacks.
SHAPES = ("plain", "missing", "link", "private", "unnamed", "linkat", *["listed"] * CAN_LIST,
          *["owned"] * (os.getuid() == 0))


def lack(calls="", error=errno.EOPNOTSUPP):
    """From now on the system answers these calls with the error; without calls it has them all."""
    library.fault_lack(calls.encode(), error)


def reset(content, shape="plain"):
    """Empties the folder and puts a file of the given shape there."""
    if library:
        lack(shape if shape in ("unnamed", "linkat") else "")
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
    if shape == "listed":
        os.setxattr(PATH, ACCESS, LISTED)


def dumped(db):
    """What a save has to write."""
    plain = model.JSONDatatable("missing.json")
    plain.filename, plain.tables = "../dumped", db.tables
    return saved(plain)


# ---- Faults --------------------------------------------------------------------------------------

class Fault:
    """`arm` and `disarm` run around a call. Then an error may be explained, or the fault have been overcome."""

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
    error = None
    try:
        fault.arm()
        result = function(*arguments)
        fault.disarm()
    except BaseException as caught:
        fault.disarm()
        error = caught
    if error is not None:
        error.__traceback__ = error.__context__ = None
        return (type(error), error.args), error
    return ("returned", show(vars(result) if isinstance(result, JSONDatatable) else result)), None


class NoMemory(Fault):
    """The n-th allocation through the interpreter fails, and those that follow where `stop` is 0."""

    def __init__(self, number, stop):
        self.plan, self.disarm = (number, stop), _testcapi.remove_mem_hooks

    def arm(self):
        _testcapi.set_nomemory(*self.plan)


# Among the names of the process itself: there only where the library has been preloaded.
library = ctypes.CDLL(None) if hasattr(ctypes.CDLL(None), "fault_arm") else None
if library:
    library.fault_names.restype = ctypes.c_char_p
FAIL, SHORTEN, INTERRUPT, KILL_BEFORE, KILL_AFTER, NO_MALLOC, PREDICT = range(1, 8)


class SystemFault(Fault):
    """The calls of the preloaded library from `first` to `last` go the planned way."""

    def __init__(self, action, first=0, last=None, error=0):
        self.plan = action, first, first if last is None else last, error

    def arm(self):
        library.fault_arm(*self.plan)

    def disarm(self):
        seen = library.fault_disarm()
        self.names = library.fault_names().decode().split()
        self.hit = seen >= self.plan[1]

    def explains(self, error):
        action, _, _, number = self.plan
        if action == NO_MALLOC:
            return super().explains(error)
        failed = isinstance(error, OSError) and (error.errno, error.filename) == (number, PATH)
        return failed and not self.overcome()

    def overcome(self):
        action, first, _, number = self.plan
        if action != FAIL or not self.hit:
            return True
        call, later = self.names[first - 1], self.names[first:]
        # Nothing was written through a descriptor that is merely released; a save may begin anew, or try another name.
        return (call in DISPENSABLE or number == errno.EPERM and call in DISPENSABLE_RIGHTS or "fstatat" in later
                or number == errno.EEXIST and call in ("openat", "linkat") and "getrandom" in later)


# What a save does without, and what it does without where that is not granted: rights are narrowed then.
DISPENSABLE = {"release", "unnamed", "faccessat", "getrandom", "getxattr", "fgetxattr", "sync_file_range"}
DISPENSABLE_RIGHTS = {"fchown", "fchmod", "fsetxattr", "fremovexattr", "linkat"}


def judge(db, name, fault, got, error, before, after):
    """A call under a fault must end as it may: with memory and file wholly the old or the new ones."""
    (old_memory, old_file, old_listing, old_mode), (expected, new_memory, new_file, new_listing) = before, after
    if got == expected:
        assert fault.overcome(), "a failure was passed over"
    else:
        assert fault.explains(error), f"ended as {got!s:.500}"
    assert "shared" not in fault.names, "the new file is not created exclusively"
    assert "locked" not in fault.names, "other threads wait for the disk"
    content = read()
    assert content in (old_file, new_file), f"file holds {content[:300]}"
    assert not old_mode or stat.S_IMODE(os.stat(PATH).st_mode) & ~old_mode == 0, oct(os.stat(PATH).st_mode)
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
    before = memory(fresh()), read(), listing(), os.path.exists(PATH) and stat.S_IMODE(os.stat(PATH).st_mode)
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
                got, error = outcome(OPERATIONS[name], db, fault=fault)
                assert os.listdir("/proc/self/fd") == descriptors, "a descriptor is left open"
                judge(db, name, fault, got, error, before, after)
            if position == 0 and not getattr(fault, "hit", got != after[0]):
                return
