"""The module's namespace, its import checks and the two records."""

import _imp
import ctypes
import dataclasses
import inspect
import pickle
import types
import unittest
from unittest import mock

from model import Column, Table
from support import module, run_python

NAME = "talvern_client.utils.json_database"


class Namespace(unittest.TestCase):
    def test_names(self):
        expected = {}
        exec("import json, os; from typing import Dict, List, Optional, Any, Union\n"
             "from dataclasses import dataclass, field; import re; from datetime import datetime", expected)
        del expected["__builtins__"]
        own = {name: value for name, value in vars(module).items() if not name.startswith("__")}
        self.assertEqual(list(own), [*expected, "Column", "Table", "JSONDatatable"])
        self.assertLessEqual(expected.items(), own.items())
        self.assertLessEqual(set(vars(module)) - set(own), set(vars(_imp)) | {"__file__", "__builtins__"})
        self.assertEqual((module.__name__, module.__doc__), (NAME, None))


class Import(unittest.TestCase):
    def test_once_per_process(self):
        self.assertIs(_imp.create_dynamic(module.__spec__), module)
        create, initialise = ctypes.PyDLL(module.__file__).PyInit_json_database, ctypes.pythonapi.PyModule_ExecDef
        create.restype, initialise.argtypes = ctypes.py_object, [ctypes.py_object] * 2
        definition = create()
        ctypes.pythonapi.Py_IncRef(ctypes.py_object(definition))
        with mock.patch.object(module, "re", "kept"):
            before = dict(vars(module))
            self.assertEqual(initialise(module, definition), 0)
            self.assertEqual(vars(module), before)
        other = types.ModuleType(NAME)
        with self.assertRaises(RuntimeError) as caught:
            initialise(other, definition)
        self.assertEqual(str(caught.exception), "Module 'json_database' has already been imported. "
                                                "Re-initialisation is not supported.")
        self.assertFalse(hasattr(other, "Column"))

    def test_one_interpreter_per_process(self):
        other = "import _xxsubinterpreters as others; others.run_string(others.create(), code)"
        for order in (f"exec(code); {other}", f"{other}; exec(code)"):
            with self.subTest(order):
                attempt = f"try: import {NAME}; print(1, flush=True)\\nexcept ImportError as e: print(e, flush=True)"
                self.assertEqual(run_python(f"code = '{attempt}'; {order}"), [
                    "1", "Interpreter change detected - this module can only be loaded into one interpreter per process."])

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

    def test_failed_import_can_be_repeated(self):
        for spoil, restore, error in (
                ("sys.hexversion = 0x030900f0; warnings.simplefilter('error')", "sys.hexversion = kept", "RuntimeWarning"),
                ("sys.modules['re'] = None", "sys.modules['re'] = re", "ModuleNotFoundError"),
                ("del typing.Union", "typing.Union = union", "ImportError"),
                ("dataclasses.dataclass = None", "dataclasses.dataclass = dataclass", "TypeError")):
            with self.subTest(error):
                self.assertEqual(run_python(f"""
                    import dataclasses, datetime, json, os, re, sys, typing, warnings
                    kept, union, dataclass = sys.hexversion, typing.Union, dataclasses.dataclass
                    {spoil}
                    try:
                        import {NAME}
                    except Exception as error:
                        print(type(error).__name__, "{NAME}" in sys.modules)
                    {restore}
                    from {NAME} import Column, JSONDatatable
                    JSONDatatable("database").tables["t"] = Column("a", "b")
                """), [f"{error} False"])


class Records(unittest.TestCase):
    def test_same_as_the_declaration(self):
        def described(record):
            return ([(one.name, one.type, one.default, one.default_factory) for one in dataclasses.fields(record)],
                    list(record.__annotations__.items()), record.__bases__, record.__qualname__, record.__doc__,
                    str(inspect.signature(record)), record.__hash__)

        for record, declared, values in ((module.Column, Column, ["n", 1]), (module.Table, Table, ["n", [], [2], {"k": "v"}])):
            with self.subTest(record.__name__):
                self.assertEqual(described(record), described(declared))
                one = record(*values)
                self.assertEqual((record.__module__, repr(one)), (NAME, repr(declared(*values))))
                self.assertEqual(one, record(*values))
                self.assertNotEqual(one, declared(*values))
                self.assertEqual(pickle.loads(pickle.dumps(one)), one)
                for wrong in (lambda: hash(one), lambda: one < one, lambda: record("n")):
                    self.assertRaises(TypeError, wrong)
        self.assertIsNot(record("t", []).rows, record("t", []).rows)


if __name__ == "__main__":
    unittest.main()
