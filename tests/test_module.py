"""The module's namespace, its import checks and the two records."""

import _imp
import ctypes
import dataclasses
import inspect
import pickle
import sys
import types
import unittest
from unittest import mock

from model import Column, Table
from support import module, run_python

NAME = "talvern_client.utils.json_database"
STATEMENTS = """\
import json, os
from typing import Dict, List, Optional, Any, Union
from dataclasses import dataclass, field
import re
from datetime import datetime
"""
ATTEMPT = f"try: import {NAME}; print(1, flush=True)\\nexcept ImportError as e: print(e, flush=True)"
OTHER = "Interpreter change detected - this module can only be loaded into one interpreter per process."


class Namespace(unittest.TestCase):
    def test_names(self):
        expected = {}
        exec(STATEMENTS, expected)
        del expected["__builtins__"]
        own = {name: value for name, value in vars(module).items() if not name.startswith("__")}
        self.assertEqual(list(own), [*expected, "Column", "Table", "JSONDatatable"])
        self.assertLessEqual(expected.items(), own.items())
        self.assertLessEqual(set(vars(module)) - set(own), set(vars(_imp)) | {"__file__", "__builtins__"})


class Import(unittest.TestCase):
    def test_once_per_process(self):
        self.assertIs(_imp.create_dynamic(module.__spec__), module)
        create, initialise = ctypes.PyDLL(module.__file__).PyInit_json_database, ctypes.pythonapi.PyModule_ExecDef
        create.restype, initialise.argtypes = ctypes.py_object, [ctypes.py_object] * 2
        definition = create()
        ctypes.pythonapi.Py_IncRef(ctypes.py_object(definition))
        with mock.patch.object(module, "re", "kept"):
            self.assertEqual((initialise(module, definition), module.re), (0, "kept"))
        words = "Module 'json_database' has already been imported. Re-initialisation is not supported."
        with self.assertRaisesRegex(RuntimeError, f"^{words}$"):
            initialise(types.ModuleType(NAME), definition)

    def test_one_interpreter_per_process(self):
        other = "import _xxsubinterpreters as others; others.run_string(others.create(), code)"
        for order in (f"exec(code); {other}", f"{other}; exec(code)"):
            self.assertEqual(run_python(f"code = '{ATTEMPT}'; {order}"), ["1", OTHER], order)

    @unittest.skipUnless(sys.platform == "linux", "no functions to be called after the runtime's end")
    def test_one_runtime_per_process(self):
        self.assertEqual(run_python(f"""
            import ctypes
            from {NAME} import JSONDatatable
            def last(function, text=None):
                libc.__cxa_atexit(function, text and libc.strdup(text), None)
            libc, runtime = ctypes.CDLL(None), ctypes.pythonapi
            libc.strdup.restype, libc.__cxa_atexit.argtypes = ctypes.c_void_p, [ctypes.c_void_p] * 3
            address = lambda name: ctypes.cast(getattr(runtime, name), ctypes.c_void_p)
            last(address("PyRun_SimpleString"), b"{ATTEMPT}")
            last(address("Py_Initialize"))
        """), [OTHER])

    def test_failed_import(self):
        """It fails as the statements do that it stands for, and can be repeated."""
        for spoil in ("sys.modules['re'] = None", "del typing.Union", "del datetime.datetime",
                      "sys.modules['typing'] = types.ModuleType('other')",
                      "sys.modules['typing'] = types.SimpleNamespace(Dict=1)"):
            with self.subTest(spoil):
                got, expected = run_python(f"""
                    import dataclasses, datetime, json, os, re, sys, types, typing
                    modules, names = dict(sys.modules), dict(vars(typing))
                    date_time = datetime.datetime
                    {spoil}
                    for statements in ("import {NAME}", {STATEMENTS!r}):
                        try:
                            exec(statements)
                        except ImportError as error:
                            print(type(error), error, error.name, error.path)
                    vars(typing).update(names)
                    datetime.datetime = date_time
                    sys.modules.update(modules)
                    from {NAME} import Column, JSONDatatable
                    JSONDatatable("database").tables["t"] = Column("a", "b")
                """)
                self.assertEqual(got, expected)

    def test_changed_standard_modules(self):
        """What stands in for a name of theirs is neither called at the import nor taken for the built-in one."""
        self.assertEqual(run_python(f"""
            import datetime, json, os, sys, tempfile
            from unittest import mock
            class Date(datetime.date):
                __hash__ = None
                def __ne__(self, other):
                    rows.clear()
                    return True
                __eq__ = __ne__
            class Finder:
                def find_spec(self, name, *_):
                    if name == "datetime":
                        sys.meta_path.remove(self)
                        raise KeyboardInterrupt
            kept = sys.modules.pop("datetime")
            sys.meta_path.insert(0, Finder())
            try:
                import {NAME}
            except KeyboardInterrupt:
                print("interrupted")
            sys.modules["datetime"] = kept
            sys.modules.pop("{NAME}", None)
            with mock.patch("datetime.date", Date), mock.patch("json.loads", None):
                from {NAME} import Column, JSONDatatable
            os.chdir(tempfile.mkdtemp())
            db = JSONDatatable("database")
            db.create_table("t", [Column("n", "text", False)])
            rows = db.tables["t"].rows
            rows += [[float("nan")], [Date(2000, 1, 1)], [Date(2000, 1, 1)]]
            db.save()
            db.load()
            print(db.tables["t"].rows[0][0] is json.decoder.NaN)
            rows = db.tables["t"].rows
            rows += [[Date(2000, 1, 1)] for _ in range(10)]
            print(db.select("t", {{"n": "x"}}), rows)
        """), ["interrupted", "True", "[] []"])

    def test_other_version_warns(self):
        words = f"compile time Python version 3.10 of module '{NAME}' does not match runtime version 3.11"
        self.assertEqual(run_python(f"""
            import sys, warnings, json, dataclasses, typing, datetime
            sys.hexversion = 0x030b02f0
            with warnings.catch_warnings(record=True) as seen:
                warnings.simplefilter("always")
                import {NAME} as module
            print(*[(str(one.message), one.category.__name__) for one in seen], vars(module).keys() > {{"Table"}})
        """), [f'("{words}", \'RuntimeWarning\') True'])


class Records(unittest.TestCase):
    def test_same_as_the_declaration(self):
        def described(record):
            return ([(one.name, one.type, one.default, one.default_factory) for one in dataclasses.fields(record)],
                    list(record.__annotations__.items()), record.__bases__, record.__qualname__, record.__doc__,
                    str(inspect.signature(record)), record.__hash__)

        for record, declared, values in (
                (module.Column, Column, ["n", 1]), (module.Table, Table, ["n", [], [2], {"k": "v"}])):
            with self.subTest(record.__name__):
                self.assertEqual(described(record), described(declared))
                one = record(*values)
                self.assertEqual((record.__module__, repr(one)), (NAME, repr(declared(*values))))
                self.assertEqual(one, record(*values))
                self.assertEqual(pickle.loads(pickle.dumps(one)), one)
        self.assertIsNot(module.Table("t", []).rows, module.Table("t", []).rows)
