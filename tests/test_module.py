"""The module's import, its checks, its two records, and the stub, which says what the module is."""

import __future__
import _imp
import ctypes
import inspect
import pathlib
import sys
import types
import unittest
from unittest import mock

from model import Column, Table
from support import JSONDatatable, module, run_python

NAME = "talvern_client.utils.json_database"
STATEMENTS = """\
from typing import Dict, List, Optional, Any, Union
import re
from datetime import datetime
"""
ATTEMPT = f"try: import {NAME}; print(1, flush=True)\\nexcept ImportError as e: print(e, flush=True)"
PATH = pathlib.Path(module.__file__).with_name("json_database.pyi")
STUB = {"__name__": module.__name__}
# Annotations stay strings, as the module's are.
exec(compile(PATH.read_text(), PATH, "exec", __future__.annotations.compiler_flag, dont_inherit=True), STUB)
OTHER = "Interpreter change detected - this module can only be loaded into one interpreter per process."


class Import(unittest.TestCase):
    def test_once_per_process(self):
        library, initialise = ctypes.PyDLL(module.__file__), ctypes.pythonapi.PyModule_ExecDef
        library.PyInit_json_database.restype = ctypes.c_void_p
        definition = ctypes.c_void_p(library.PyInit_json_database())
        self.assertIs(_imp.create_dynamic(module.__spec__), module)
        with mock.patch.object(module, "re", "kept"):
            initialise(ctypes.py_object(module), definition)
            self.assertEqual(module.re, "kept")
        words = "Module 'json_database' has already been imported. Re-initialisation is not supported."
        with self.assertRaisesRegex(RuntimeError, f"^{words}$"):
            initialise(ctypes.py_object(types.ModuleType(NAME)), definition)

    def test_one_interpreter_per_process(self):
        other = "import _xxsubinterpreters as others; others.run_string(others.create(), code)"
        for order in (f"exec(code); {other}", f"{other}; exec(code)"):
            self.assertEqual(run_python(f"code = '{ATTEMPT}'; {order}"), ["1", OTHER], order)

    @unittest.skipUnless(sys.platform == "linux", "no functions to be called after the runtime's end")
    def test_one_runtime_per_process(self):
        self.assertEqual(run_python(f"""
            import ctypes
            from {NAME} import JSONDatatable
            libc, runtime = ctypes.CDLL(None), ctypes.pythonapi
            libc.strdup.restype, libc.__cxa_atexit.argtypes = ctypes.c_void_p, [ctypes.c_void_p] * 3
            address = lambda name: ctypes.cast(getattr(runtime, name), ctypes.c_void_p)
            libc.__cxa_atexit(address("PyRun_SimpleString"), libc.strdup(b"{ATTEMPT}"), None)
            libc.__cxa_atexit(address("Py_Initialize"), None, None)
        """), [OTHER])

    def test_failed_import(self):
        """It fails as the statements do that it stands for, and can be repeated."""
        for spoil in ("sys.modules['re'] = None", "del typing.Union", "del datetime.datetime",
                      "sys.modules['typing'] = types.ModuleType('other')",
                      "sys.modules['typing'] = types.SimpleNamespace(Dict=1)"):
            with self.subTest(spoil):
                got, expected = run_python(f"""
                    import dataclasses, datetime, json, os, re, sys, types, typing
                    from unittest.mock import patch
                    with patch.dict(sys.modules), patch.dict(vars(typing)), patch.dict(vars(datetime)):
                        {spoil}
                        for statements in ("import {NAME}", {STATEMENTS!r}):
                            try:
                                exec(statements)
                            except ImportError as error:
                                print(type(error), error, error.name, error.path)
                    import {NAME}
                """)
                self.assertEqual(got, expected)

    def test_date_replaced_before_the_import(self):
        """What stands in for it is not taken for the built-in class, whose comparisons run no Python code."""
        self.assertEqual(run_python(f"""
            import datetime
            from unittest import mock
            class Date(datetime.date):
                def __ne__(self, other):
                    rows.clear()
                    return True
            with mock.patch("datetime.date", Date):
                from {NAME} import JSONDatatable, Column, Table
            db = JSONDatatable("missing")
            rows = [[Date(2000, 1, 1)] for _ in range(10)]
            db.tables["t"] = Table("t", [Column("n", "date")], rows)
            print(db.select("t", {{"n": "x"}}), rows)
        """), ["[] []"])

    def test_other_version_warns(self):
        words = f"compile time Python version 3.10 of module '{NAME}' does not match runtime version 3.11"
        self.assertEqual(run_python(f"""
            import sys, warnings, json, dataclasses, typing, datetime
            sys.hexversion = 0x030b02f0
            warnings.showwarning = lambda message, *_: print(repr(message))
            import {NAME}
        """), [f'RuntimeWarning("{words}")'])


class Records(unittest.TestCase):
    def test_same_as_the_declaration(self):
        for record, declared in ((module.Column, Column), (module.Table, Table)):
            with self.subTest(record.__name__):
                self.assertEqual(record.__doc__, declared.__doc__)
                self.assertEqual(record.__module__, NAME)
                self.assertEqual(record.__qualname__, declared.__qualname__)


def own(names):
    return [name for name in names if not name.startswith("__")]


def functions(database):
    return {name: value for name, value in vars(database).items() if inspect.isfunction(value)}


def parameters(function):
    """All that is declared of each. The module asks nothing of a file name; the stub says what works."""
    declared = inspect.signature(function).parameters.values()
    return [one.replace(annotation=None) if one.name == "filename" else one for one in declared]


class Stub(unittest.TestCase):
    def test_names(self):
        self.assertEqual(own(STUB), own(vars(module)))
        for name in own(STUB)[:-3]:
            self.assertIs(STUB[name], vars(module)[name])
        self.assertEqual(list(STUB["JSONDatatable"].__annotations__), list(vars(JSONDatatable("missing"))))
        self.assertEqual(list(functions(STUB["JSONDatatable"])), list(functions(JSONDatatable)))

    def test_parameters(self):
        real = {**functions(JSONDatatable), "Column": module.Column, "Table": module.Table}
        stubbed = {**functions(STUB["JSONDatatable"]), **STUB}
        for name, function in real.items():
            with self.subTest(name):
                self.assertEqual(parameters(stubbed[name]), parameters(function))
                self.assertTrue(stubbed[name].__doc__)
                declared = function.__annotations__.get("return")
                self.assertIn(declared, (None, stubbed[name].__annotations__.get("return")))
