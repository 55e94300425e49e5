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

METHODS = {name: value for name, value in vars(JSONDatatable).items() if inspect.isfunction(value)}


class Functions(DatabaseTest):
    def test_class_and_instance(self):
        names = list(vars(JSONDatatable))
        # Copying an instance makes the host leave one more name on its class.
        self.assertEqual({*names} - {*METHODS, "__slotnames__"}, {"__module__", "__dict__", "__weakref__", "__doc__"})
        self.assertEqual((JSONDatatable.__doc__, JSONDatatable.__bases__), (None, (object,)))
        self.assertEqual(list(vars(self.db).items()), [("filename", self.path), ("tables", {})])

    def test_each_is_an_ordinary_function(self):
        for name, method in METHODS.items():
            with self.subTest(name):
                self.assertEqual((method.__name__, method.__qualname__), (name, f"JSONDatatable.{name}"))
                self.assertEqual((method.__module__, method.__globals__), (module.__name__, vars(module)))
                shown = pydoc.render_doc(method, renderer=pydoc.plaintext)
                self.assertIn(name + str(inspect.signature(method)), shown)
                self.assertIs(pickle.loads(pickle.dumps(method)), method)
                self.assertIs(weakref.ref(method)(), method)
                self.assertRaises(TypeError, mock.create_autospec(method), *range(6))
                declared = {}
                exec(f"def {name}{inspect.signature(method)}: pass", declared)
                facts = "co_name", "co_varnames", "co_argcount", "co_nlocals", "co_flags", "co_names", "co_freevars"
                self.assertEqual(*([getattr(code, fact) for fact in facts] for code in (method.__code__, declared[name].__code__)))
                self.assertEqual(method.__code__.co_filename, "<json_database>")
                # A copy of the function has its code, whose body is not the native one.
                given = range(method.__code__.co_argcount)
                self.assertRaises(AssertionError, types.FunctionType(method.__code__, {}), *given)

    def test_documentation(self):
        """The declaration with the type that each argument must have, then what the method does, if it says so."""
        for text in (
                "__init__(self, filename='database.json')",
                "clear_table(self, str table_name: str) -> bool",
                "update(self, str table_name: str, int row_id: int, dict new_data: Dict[str, Any]) -> bool\n\n"
                "Update an existing row",
                "_validate_row(self, table: Table, dict data: Dict[str, Any], bool update: bool = False) "
                "-> Dict[str, Any]\n\nValidate row data against column definitions",
                "_project_row(self, dict row_dict: Dict[str, Any], list columns: Optional[List[str]]) "
                "-> Dict[str, Any]\n\nSelect specific columns from a row dictionary"):
            with self.subTest(text):
                self.assertEqual(METHODS[text.split("(")[0]].__doc__, f"JSONDatatable.{text}")

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
        for name, method in METHODS.items():
            checks = re.findall(r"(str|dict|list|int) (\w+):", method.__doc__.splitlines()[0])
            given = dict.fromkeys(list(inspect.signature(method).parameters)[1:], object())
            for kind, parameter in sorted(checks, key=lambda check: check[0] != "int"):
                words = f"Argument '{parameter}' has incorrect type (expected {kind}, got object)"
                with self.subTest(name, parameter=parameter), self.unchanged(TypeError, words):
                    getattr(self.db, name)(**given)
                given[parameter] = good[kind]


if __name__ == "__main__":
    unittest.main()
