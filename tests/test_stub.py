"""The stub says what the module is: same names, parameters, defaults, and the annotations that the module has."""

import __future__
import dataclasses
import inspect
import pathlib
import unittest

from support import DatabaseTest, module

STUB = pathlib.Path(module.__file__).with_name("json_database.pyi")


def run_stub():
    """The stub's names. Annotations stay texts, as the module's are."""
    names = {"__name__": module.__name__}
    flags = __future__.annotations.compiler_flag
    exec(compile(STUB.read_text(), str(STUB), "exec", flags=flags, dont_inherit=True), names)
    return names


def parameters(function):
    return [(parameter.name, parameter.kind, parameter.default)
            for parameter in inspect.signature(function).parameters.values()]


class Stub(DatabaseTest):
    @classmethod
    def setUpClass(cls):
        cls.stub = run_stub()
        cls.database = cls.stub["JSONDatatable"]

    def test_names(self):
        def own(names):
            return [name for name in names if not name.startswith("__")]
        self.assertEqual(own(self.stub), own(vars(module)))
        self.assertEqual(list(self.database.__annotations__), list(vars(self.db)))

    def test_records(self):
        def described(record):
            return [(field.name, field.type, field.default, field.default_factory)
                    for field in dataclasses.fields(record)]
        for name in "Column", "Table":
            with self.subTest(name):
                self.assertEqual(described(self.stub[name]), described(getattr(module, name)))

    def test_methods(self):
        def functions(database):
            return {name: value for name, value in vars(database).items() if inspect.isfunction(value)}
        real, stubbed = functions(module.JSONDatatable), functions(self.database)
        self.assertEqual(list(stubbed), list(real))
        for name, function in stubbed.items():
            with self.subTest(name):
                self.assertEqual(parameters(function), parameters(real[name]))
                self.assertLessEqual(real[name].__annotations__.items(), function.__annotations__.items())
                self.assertIn("return", function.__annotations__)
                self.assertTrue(function.__doc__)


if __name__ == "__main__":
    unittest.main()
