"""The methods as functions of the host, and the checks in front of their bodies."""

from __future__ import annotations

import contextlib
import inspect
import io
import json
import pickle
import pydoc
import re
import sys
import types
import unittest
import weakref
from unittest import mock

from support import DatabaseTest, JSONDatatable, module, optional, run_python

try:
    from _testcapi import pyobject_vectorcall
except ImportError:
    pyobject_vectorcall = None

# Each method's documentation: the declaration as its callers read it, then what it does.
DOCUMENTATION = """\
__init__(self, filename='database.json')
create_table(self, str table_name: str, list columns: List[Column])
    Create a new table with specified column definitions
insert(self, str table_name: str, dict data: Dict[str, Any]) -> int
    Insert a new row into the table (accepts dict but stores as list)
update(self, str table_name: str, int row_id: int, dict new_data: Dict[str, Any]) -> bool
    Update an existing row
clear_table(self, str table_name: str) -> bool
delete(self, str table_name: str, int row_id: int) -> bool
    Delete a row from the table (soft delete with None values)
select(self, str table_name: str, dict conditions: Optional[Dict[str, Any]] = None, \
list columns: Optional[List[str]] = None, int limit: Optional[int] = None) -> List[Dict[str, Any]]
    Query rows from the table with optional filtering (returns dicts)
get_row(self, str table_name: str, int row_id: int) -> Dict[str, Any]
    Get a single row as a dictionary
_build_indexes(self, str table_name: str)
    Build indexes for all indexed columns
_build_index(self, str table_name: str, str column_name: str)
    Build an index for a specific column
_row_to_dict(self, table: Table, list row: List[Any], list columns: Optional[List[str]] = None) -> Dict[str, Any]
    Convert list-based row to dictionary
_validate_row(self, table: Table, dict data: Dict[str, Any], bool update: bool = False) -> Dict[str, Any]
    Validate row data against column definitions
_dict_to_row_id(self, table: Table, dict data: Dict[str, Any]) -> Optional[int]
    Try to find the row ID for a dictionary representation
_project_row(self, dict row_dict: Dict[str, Any], list columns: Optional[List[str]]) -> Dict[str, Any]
    Select specific columns from a row dictionary
save(self)
    Save the entire database to JSON file (optimized format)
load(self)
    Load the database from JSON file (optimized format)
display_table(self, str table_name: str, int limit: int = 10)
    Display table contents in a readable format
"""
METHODS = {}
for text in re.split(r"\n(?=\w)", DOCUMENTATION.rstrip()):
    exec(f"def {re.sub(r'(str|list|dict|int|bool) (?=[a-z_]+:)', '', text.splitlines()[0])}: pass", dict(vars(module)), METHODS)
    list(METHODS.values())[-1].__doc__ = "JSONDatatable." + text.replace("\n    ", "\n\n")


class Functions(DatabaseTest):
    def test_class_and_instance(self):
        names = list(vars(JSONDatatable))
        self.assertEqual([name for name in names if name in METHODS], list(METHODS))
        # Copying an instance makes the host leave one more name on its class.
        self.assertEqual({*names} - {*METHODS, "__slotnames__"}, {"__module__", "__dict__", "__weakref__", "__doc__"})
        self.assertEqual((JSONDatatable.__doc__, JSONDatatable.__bases__), (None, (object,)))
        self.assertEqual(list(vars(self.db).items()), [("filename", self.path), ("tables", {})])

    def test_as_declared(self):
        for name, declared in METHODS.items():
            with self.subTest(name):
                method = vars(JSONDatatable)[name]
                self.assertTrue(inspect.isfunction(method))
                self.assertEqual(inspect.signature(method), inspect.signature(declared))
                self.assertEqual(list(method.__annotations__.items()), list(declared.__annotations__.items()))
                self.assertEqual(method.__defaults__, declared.__defaults__)
                self.assertEqual(method.__doc__, declared.__doc__)
                self.assertEqual((method.__name__, method.__qualname__), (name, f"JSONDatatable.{name}"))
                self.assertEqual((method.__module__, method.__globals__), (module.__name__, vars(module)))
                self.assertIn(name + str(inspect.signature(declared)), pydoc.render_doc(method, renderer=pydoc.plaintext))
                self.assertIs(pickle.loads(pickle.dumps(method)), method)
                self.assertIs(weakref.ref(method)(), method)
                self.assertRaises(TypeError, mock.create_autospec(method), *range(6))
                facts = "co_name", "co_varnames", "co_argcount", "co_nlocals", "co_flags", "co_names", "co_freevars"
                self.assertEqual(*([getattr(code, fact) for fact in facts] for code in (method.__code__, declared.__code__)))
                self.assertEqual(method.__code__.co_filename, "<json_database>")
                # A copy of the function has its code, whose body is not the native one.
                given = range(method.__code__.co_argcount)
                self.assertRaises(AssertionError, types.FunctionType(method.__code__, {}), *given)

    def test_receiver_of_another_class(self):
        self.table(optional("n"), rows=["x"])
        stand_in = types.SimpleNamespace(tables=self.db.tables, _row_to_dict=lambda table, row: {"row": row})
        self.assertEqual(JSONDatatable.get_row(stand_in, "t", 0), {"row": ["x"]})

    def test_reassigned_defaults(self):
        with mock.patch.object(JSONDatatable.__init__, "__defaults__", (self.at("other.json"),)):
            self.assertEqual(JSONDatatable().filename, self.at("other.json"))
        with mock.patch.object(JSONDatatable._project_row, "__defaults__", (["a"],)):
            self.assertEqual(self.db._project_row({"a": 1, "b": 2}), {"a": 1})

    def test_calls_nested_too_deep(self):
        self.assertEqual(run_python(f"""
            import functools, sys
            from {module.__name__} import Column, JSONDatatable
            class Projecting(JSONDatatable):
                def _project_row(self, row, columns):
                    return self.select("t")
            class Beginning(JSONDatatable):
                load = JSONDatatable.__init__
            def depth():
                try:
                    return 1 + depth()
                except RecursionError:
                    return 1
            db, plain = Projecting("nowhere.json"), JSONDatatable("nowhere.json")
            db.save = lambda: None
            db.create_table("t", [Column("n", "text")])
            db.insert("t", {{"n": "x"}})
            plain.load = functools.partial(plain.__init__, "x.json")
            before = depth()
            for endless in (lambda: db.select("t"), lambda: Beginning("nowhere.json"), plain.load):
                for _ in range(20):
                    try:
                        endless()
                    except RecursionError:
                        pass
                print(depth() == before)
        """), ["True"] * 3)


class HandledErrors(DatabaseTest):
    def test_in_a_generator(self):
        """An error that a method handles is gone with the call, also where a block around the generator handles another."""
        self.table(optional("n", "number"))
        self.write(b"{")

        def refused(call, kind):
            with contextlib.redirect_stdout(io.StringIO()), self.assertRaises(kind) as caught:
                call()
            return caught.exception

        def steps():
            for call, kind in ((lambda: self.db.insert("t", {"n": "x"}), ValueError), (self.db.load, ValueError)) * 2:
                seen.append(refused(call, kind))
                yield sys.exc_info()[1]
            seen.append(KeyError())
            yield sys.exc_info()[1]

        seen, running = [], steps()
        for outer in (LookupError(), OSError(), LookupError(), OSError()):
            try:
                raise outer
            except Exception:
                self.assertIs(next(running), outer)
            context = seen[-1].__context__
            self.assertIs(context if isinstance(seen[-1], json.JSONDecodeError) else context.__context__, outer)
        self.assertIsNone(next(running))


class Arguments(DatabaseTest):
    def test_binding(self):
        db, count = self.db, "{}() takes {} positional argument{} ({} given)".format
        for name, args, keywords, message in (
                ("save", (), {}, count("save", "exactly 1", "", 0)),
                ("create_table", (db, "t"), {}, count("create_table", "exactly 3", "s", 2)),
                ("__init__", (db, 1, 2), {"x": 1}, count("__init__", "at most 2", "s", 3)),
                # After keywords the count given is the position of the first parameter left out.
                ("select", (db,), {"limit": 1}, count("select", "at least 2", "s", 1)),
                ("insert", (db,), {"naïve": 1}, "insert() got an unexpected keyword argument 'naïve'"),
                ("save", (db,), {"self": db}, "save() got multiple values for keyword argument 'self'")):
            with self.subTest(message), self.unchanged(TypeError, message):
                getattr(JSONDatatable, name)(*args, **keywords)

    def test_keywords(self):
        self.table(optional("n"), rows=["x"])
        names = "row_" + "id", type("Text", (str,), {})("self")
        self.assertEqual(JSONDatatable.get_row(**dict(zip(names, (0, self.db))), table_name="t"), {"n": "x"})
        self.assertRaises(TypeError, lambda: self.db.save(**{1: 2}))
        if pyobject_vectorcall:
            with self.unchanged(TypeError, "save() keywords must be strings"):
                pyobject_vectorcall(JSONDatatable.save, (self.db, 2), (1,))

    def test_order_and_words_of_type_errors(self):
        good = {"str": "t", "dict": {}, "list": [], "int": 0}
        for name, declared in METHODS.items():
            checks = re.findall(r"(str|dict|list|int) (\w+):", declared.__doc__.splitlines()[0])
            given = dict.fromkeys(list(inspect.signature(declared).parameters)[1:], object())
            for kind, parameter in sorted(checks, key=lambda check: check[0] != "int"):
                words = f"Argument '{parameter}' has incorrect type (expected {kind}, got object)"
                with self.subTest(name, parameter=parameter), self.unchanged(TypeError, words):
                    getattr(self.db, name)(**given)
                given[parameter] = good[kind]


if __name__ == "__main__":
    unittest.main()
