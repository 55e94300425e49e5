"""The database file: its bytes, what is refused, what survives a restart, and the places it can be written to."""

import builtins
import collections
import contextlib
import copy
import datetime
import decimal
import enum
import gc
import io
import json
import os
import pathlib
import pickle
import stat
import textwrap
import types
import unittest
from unittest import mock

from support import Column, DatabaseTest, JSONDatatable, module, optional, run_python, unique

FIELDS = ("name", "data_type", "required", "unique", "default", "validation_pattern")
DAY = datetime.date(2024, 3, 5)
NOON = datetime.datetime(2024, 3, 5, 12, tzinfo=datetime.timezone.utc)
KEYS = "keys must be str, int, float, bool or None, not "


def nested(depth):
    value = []
    for _ in range(depth):
        value = [value]
    return value


def subclass(base, value, **body):
    return type("Heir", (base,), body)(value)


class Named:
    def __init__(self, text):
        self.text = text

    def __str__(self):
        return self.text if isinstance(self.text, str) else self.text()


VALUES = [
    None, True, False, 0, -7, 10 ** 30, 0.1, -0.0, 1e15, 1e16, 123456789012345678.0, 0.0001, 1e-05, 5e-324, float("nan"),
    -float("inf"), "", "".join(map(chr, range(34))), "\\/\x7f\x80\u2028é日本😀", b"bytes", [1, [2, (3,)]], (), {}, nested(200),
    {"k": [], 2: {}, 10 ** 30: 0, 1.5: 0, True: 0, None: 0, float("nan"): 0, 1e-05: 0}, collections.OrderedDict(b=1, a=2),
    DAY, NOON, datetime.datetime(1, 1, 1, 1, 1, 1, 1), datetime.time(1), decimal.Decimal("1.50"), {1}, Named('"é"'),
    collections.namedtuple("Pair", "a b")(1, 2), enum.IntEnum("Kind", "A").A, subclass(str, "é\n", __str__=None),
    subclass(float, 1.5, __repr__=None), subclass(int, 7, __repr__=None), subclass(list, [1]), subclass(dict, {"a": 1})]
INDEX = {key: [place] for place, key in enumerate((
    DAY, NOON, (1, "é"), decimal.Decimal("1.50"), b"k", frozenset(), 5, 1.5, True, None, "t", float("inf"), Named("x\ny")))}


def document(db):
    return {"tables": {key: {
        "name": table.name,
        "columns": [{field: getattr(column, field) for field in FIELDS} for column in table.columns],
        "rows": [row for row in table.rows if any(value is not None for value in row)],
        "indexes": {name: {key if isinstance(key, (str, int, float, type(None))) else str(key): ids
                           for key, ids in index.items()} for name, index in table.indexes.items()},
    } for key, table in db.tables.items()}}


class Content(DatabaseTest):
    def test_exact_bytes(self):
        for values in [[value] for value in VALUES] + [VALUES]:
            with self.subTest(values=[type(value).__name__ for value in values]):
                self.db.tables = {"é": module.Table("name", [optional("v", default=value) for value in values], [
                    [value, 0] for value in values] + [[None] * 2, []], {"v": INDEX, "empty": {}})}
                for key in (5, 1.5, True, None):
                    self.db.tables[key] = module.Table(key, [Column(values, values, 1, "", None, b"p")])
                self.assertIsNone(self.db.save())
                self.assertEqual(self.read(), json.dumps(document(self.db), ensure_ascii=False, default=str).encode())

    def test_refused_documents_leave_the_file(self):
        self.table(unique("a"), rows=["é"])
        before, circular = self.on_disk(), []
        circular.append(circular)
        for number, (spoil, *error) in enumerate((
                (lambda table: table.rows.append([{DAY: 1}]), TypeError, KEYS + "date"),
                (lambda table: table.rows.append([circular]), ValueError, "Circular reference detected"),
                (lambda table: table.rows.append([nested(100_000)]), RecursionError),
                (lambda table: table.rows.append(["\ud800"]), UnicodeEncodeError),
                (lambda table: table.rows.append([Named({}.popitem)]), KeyError),
                (lambda table: table.indexes["a"].update({"\ud800": []}), UnicodeEncodeError),
                (lambda table: table.indexes["a"].update({1: {DAY: 1}}), TypeError, KEYS + "date"),
                (lambda table: table.indexes.update({(1,): {}}), TypeError, KEYS + "tuple"),
                (lambda table: self.db.tables.update({(1,): table}), TypeError, KEYS + "tuple"),
                (lambda table: table.columns.append(5), AttributeError))):
            for company in ("plain", {1}):
                self.db = JSONDatatable(self.path)
                self.db.tables["t"].rows.append([company])
                spoil(self.db.tables["t"])
                with self.subTest(number, error=error, company=company), self.raises(*error):
                    self.db.save()
                self.assertEqual(self.on_disk(), before)

    def test_rebound_writer(self):
        def dump(*args, **keywords):
            calls.append((args[0], keywords))
            args[1].write("é" * len(args))
            if len(calls) == 2:
                raise OSError(5, "torn")

        self.table(unique("a"), rows=["é"])
        for where, name, stand_in in ((module, "json", types.SimpleNamespace(dump=dump)), (json, "dump", dump)):
            calls = []
            with mock.patch.object(where, name, stand_in):
                self.db.save()
                self.assertEqual(calls, [(document(self.db), dict(indent=None, ensure_ascii=False, default=str))])
                with self.unchanged(OSError, 5, "torn"):
                    self.db.save()
            self.assertEqual(self.read(), "éé".encode())

    def test_rebound_open(self):
        original = open

        def spy(*args, **keywords):
            opened.append((args, keywords, original(*args, **keywords)))
            return opened[-1][2]

        for where in (module, builtins):
            opened = []
            with mock.patch.object(where, "open", spy, create=True):
                self.table(name=where.__name__)
                self.assertEqual(list(JSONDatatable(self.path).tables), list(self.db.tables))
            self.assertEqual([call[:2] for call in opened], [((self.path, mode), {"encoding": "utf-8"}) for mode in "wr"])
            self.assertTrue(all(file.closed for *_, file in opened))


class Loading(DatabaseTest):
    def reported(self, load, kind, text):
        with contextlib.redirect_stdout(io.StringIO()) as output, self.raises(kind) as caught:
            load()
        self.assertEqual((str(caught.exception), output.getvalue()), (text, f"Error loading database: {text}\n"))
        return caught.exception

    def test_failures(self):
        whole = {"name": "n", "columns": [], "rows": []}
        for content, kind, text, tables in (
                (b"", json.JSONDecodeError, "Expecting value: line 1 column 1 (char 0)", None),
                (b"[\r\n\r\n}", json.JSONDecodeError, "Expecting value: line 3 column 1 (char 3)", None),
                (b'"\xff"', UnicodeDecodeError, "'utf-8' codec can't decode byte 0xff in position 1: invalid start byte", None),
                (b"[]", AttributeError, "'list' object has no attribute 'get'", []),
                ({"tables": None}, AttributeError, "'NoneType' object has no attribute 'items'", []),
                ({"tables": {"a": whole, "b": {}}}, KeyError, "'columns'", ["a"]),
                ({"tables": {"a": whole, "b": {"columns": []}}}, KeyError, "'name'", ["a"]),
                ({"tables": {"a": {**whole, "columns": [5]}}}, TypeError, "'int' object is not subscriptable", [])):
            with self.subTest(text, content=content):
                self.write(content if isinstance(content, bytes) else json.dumps(content).encode())
                before = self.db.tables
                self.reported(self.db.load, kind, text)
                self.assertEqual(self.db.tables is before, tables is None)
                self.assertEqual(list(self.db.tables), list(before) if tables is None else tables)
                self.reported(lambda: JSONDatatable(self.path), kind, text)

    def test_error_is_passed_on_itself(self):
        self.db.save()
        with mock.patch.object(json, "load", side_effect=ValueError("own")) as load:
            self.assertIs(self.reported(self.db.load, ValueError, "own"), load.side_effect)
            load.side_effect = KeyboardInterrupt
            with contextlib.redirect_stdout(io.StringIO()) as output, self.raises(KeyboardInterrupt):
                self.db.load()
        self.assertEqual(output.getvalue(), "")
        self.db.filename = self.folder
        self.reported(self.db.load, IsADirectoryError, f"[Errno 21] Is a directory: {self.folder!r}")

    def test_collector_is_left_as_it_was(self):
        self.addCleanup(gc.enable)
        for content in (b"{}", b"[]", b"{"):
            self.write(content)
            for switch in (gc.disable, gc.enable):
                switch()
                with contextlib.suppress(Exception), contextlib.redirect_stdout(None):
                    self.db.load()
                self.assertEqual(gc.isenabled(), switch is gc.enable)


class Reloaded(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.table(unique("n", "number"), unique("b", "boolean"), unique("s"), rows=[
            (9, None, "gone"), (1, True, "x"), (2.5, False, "y")])
        self.db.delete("t", 0)

    def test_first_use(self):
        content = self.read()
        for way in (lambda db: db, copy.deepcopy, lambda db: pickle.loads(pickle.dumps(db))):
            for name, value, found in (("n", 1, 1), ("n", 2.5, 2.5), ("b", False, 2.5), ("s", "y", 2.5)):
                with self.subTest(value, way=way):
                    fresh, other = way(JSONDatatable(self.path)), way(JSONDatatable(self.path))
                    self.assertEqual(fresh.tables["t"].indexes, json.loads(content)["tables"]["t"]["indexes"])
                    self.assertEqual([row["n"] for row in fresh.select("t", {name: value})], [found])
                    with self.raises(ValueError, f"Duplicate value for unique column '{name}'"):
                        other.insert("t", {name: value})


class Targets(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.table(unique("a"), rows=["é"])
        self.content = self.read()

    def saved_to(self, filename):
        self.db.filename = filename
        self.db.save()
        self.assertEqual(self.read(filename), self.content)

    def test_links_stay_links(self):
        os.mkdir(self.at("sub"))
        os.symlink("sub/second", self.at("first"))
        os.symlink("real.json", self.at("sub", "second"))
        for state in ("dangling", "existing"):
            with self.subTest(state):
                self.saved_to(self.at("first"))
                self.assertEqual([os.readlink(self.at("first")), os.readlink(self.at("sub/second"))], ["sub/second", "real.json"])
                self.assertEqual(sorted(os.listdir(self.folder) + os.listdir(self.at("sub"))),
                                 ["database.json", "first", "real.json", "second", "sub"])
                self.write(b"old", self.at("sub/real.json"))

    def test_names(self):
        for name in ("n" * 255, os.fsencode("é" * 127), pathlib.Path("p"), "new\nline", os.fsdecode(b"\xff")):
            with self.subTest(name):
                path = os.path.join(os.fsencode(self.folder) if isinstance(name, bytes) else self.folder, name)
                self.saved_to(pathlib.Path(path) if isinstance(name, pathlib.Path) else os.path.relpath(path))
                os.remove(path)
                self.assertEqual(os.listdir(self.folder), ["database.json"])

    def test_impossible_targets_fail_as_opening_does(self):
        for target, link in (("loop", "loop"), ("missing/target", "far"), (".", "here")):
            os.symlink(target, self.at(link))
        for target in (self.folder, self.at("here"), self.at("missing", "x"), self.at("far"), "", self.at("loop"), self.path + "/x",
                       self.at("new") + "/", self.path + "/", self.at("x" * 256), self.at("nul\0"), self.at("\ud800"), None, 1.5, -1,
                       9999, os.fsencode(self.at("missing", "x")), pathlib.Path(self.at("missing", "x"))):
            with self.subTest(target):
                with self.assertRaises(Exception) as opening:
                    open(target, "w", encoding="utf-8")
                self.db.filename = target
                with self.unchanged(type(opening.exception), *opening.exception.args) as caught:
                    self.db.save()
                self.assertEqual(getattr(caught.exception, "filename", 0), getattr(opening.exception, "filename", 0))

    def test_mode_and_owner(self):
        self.addCleanup(os.umask, os.umask(0o027))
        self.saved_to(self.at("new"))
        self.assertEqual(stat.S_IMODE(os.stat(self.at("new")).st_mode), 0o640)
        if os.getuid() == 0:
            os.chown(self.at("new"), 1, 2)
        os.chmod(self.at("new"), 0o604)
        seen = [os.stat(self.at("new")), self.saved_to(self.at("new")), os.stat(self.at("new"))]
        self.assertEqual(*[(one.st_mode, one.st_uid, one.st_gid) for one in seen if one])

    def test_descriptors(self):
        reader, self.db.filename = os.pipe()
        self.db.save()
        self.assertRaises(OSError, os.fstat, self.db.filename)
        self.assertEqual(JSONDatatable(reader).tables, self.db.tables)

    def script(self, code):
        """What the code prints where the database lies, without the rights of a superuser."""
        os.chmod(self.folder, 0o777)
        os.chmod(self.path, 0o666)
        return run_python("import errno, os, resource, stat, sys, threading\n"
                          f"from {module.__name__} import JSONDatatable\n"
                          "if os.getuid() == 0: os.setgid(65534); os.setuid(65534)\n"
                          "def content():\n"
                          "    with open('database.json', 'rb') as file: return file.read()\n"
                          "db, kept = JSONDatatable('database.json'), content()\n" + textwrap.dedent(code), self.folder)

    def test_protected_file(self):
        os.chown(self.path, 65534, 65534) if os.getuid() == 0 else None
        self.assertEqual(self.script("""
            os.chmod("database.json", 0o444)
            try:
                db.insert("t", {})
            except PermissionError as error:
                print(error.errno, error.filename, content() == kept, os.listdir())
        """), ["13 database.json True ['database.json']"])

    def test_devices_and_pipes(self):
        self.assertEqual(self.script("""
            os.mkfifo("pipe")
            got = []
            def read():
                with open("pipe", "rb") as file:
                    got.append(file.read())
            reader = threading.Thread(target=read)
            reader.start()
            for db.filename in ("pipe", "/dev/null"):
                db.save()
            reader.join()
            print(got == [kept], stat.S_ISFIFO(os.stat("pipe").st_mode), stat.S_ISCHR(os.stat("/dev/null").st_mode))
        """), ["True True True"])
        self.assertEqual(run_python(f"from {module.__name__} import JSONDatatable\n"
                                    "db = JSONDatatable('none')\ndb.filename = '/dev/stdout'\ndb.save()"), ['{"tables": {}}'])

    def test_no_room(self):
        self.assertEqual(self.script("""
            os.symlink("database.json", "link")
            limits = resource.getrlimit(resource.RLIMIT_FSIZE)
            resource.setrlimit(resource.RLIMIT_FSIZE, (len(kept) + 100, limits[1]))
            for db.filename in ("link", "database.json"):
                try:
                    db.insert("t", {"a": db.filename * 100000})
                except OSError as error:
                    print(errno.errorcode[error.errno], error.filename, content() == kept, len(os.listdir()))
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
            db.save()
            print(len(JSONDatatable("database.json").tables["t"].rows))
        """), ["EFBIG link True 2", "EFBIG database.json True 2", "3"])

    def test_audit(self):
        self.assertEqual(self.script("""
            seen, refuse = [], False
            def hook(event, args):
                if event == "open" and args[0] == "database.json":
                    seen.append(args)
                    if refuse and args[1] == "w":
                        raise RuntimeError("refused")
            sys.addaudithook(hook)
            for mode in "rw":
                open("database.json", mode, encoding="utf-8").close()
            db.save()
            db.load()
            print(seen[2:] == [seen[1], seen[0]])
            refuse = True
            try:
                db.insert("t", {})
            except RuntimeError as error:
                print(error, content() == kept)
        """), ["True", "refused True"])


if __name__ == "__main__":
    unittest.main()
