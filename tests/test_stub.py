"""The stub says what the module is: the same names, parameters, defaults and annotations."""

import __future__
import inspect
import pathlib
import unittest

from support import DatabaseTest, module

STUB = pathlib.Path(module.__file__).with_name("json_database.pyi")


def run_stub():
    """The stub's names. Annotations stay strings, as the module's are."""
    names = {"__name__": module.__name__}
    flags = __future__.annotations.compiler_flag
    exec(compile(STUB.read_text(), str(STUB), "exec", flags=flags, dont_inherit=True), names)
    return names


def own(names):
    return [name for name in names if not name.startswith("__")]


def functions(database):
    return {name: value for name, value in vars(database).items() if inspect.isfunction(value)}


def parameters(function):
    """All that is declared of each. The module asks nothing of a file name; the stub says what works."""
    declared = inspect.signature(function).parameters.values()
    return [one.replace(annotation=None) if one.name == "filename" else one for one in declared]


class Stub(DatabaseTest):
    @classmethod
    def setUpClass(cls):
        cls.stub = run_stub()
        cls.database = cls.stub["JSONDatatable"]

    def test_names(self):
        self.assertEqual(own(self.stub), own(vars(module)))
        self.assertEqual(list(self.database.__annotations__), list(vars(self.db)))
        self.assertEqual(list(functions(self.database)), list(functions(module.JSONDatatable)))

    def test_parameters(self):
        real = {**functions(module.JSONDatatable), "Column": module.Column, "Table": module.Table}
        stubbed = {**functions(self.database), "Column": self.stub["Column"], "Table": self.stub["Table"]}
        for name, function in real.items():
            with self.subTest(name):
                self.assertEqual(parameters(stubbed[name]), parameters(function))
                self.assertTrue(stubbed[name].__doc__)
                declared = function.__annotations__.get("return")
                self.assertIn(declared, (None, stubbed[name].__annotations__.get("return")))
