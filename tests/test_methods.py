"""The methods as functions of Python, and the checks in front of their bodies."""

import inspect
import pickle
import re
import sys
import types
from fractions import Fraction
from unittest import mock

from support import DatabaseTest, JSONDatatable, optional

METHODS = {name: value for name, value in vars(JSONDatatable).items() if inspect.isfunction(value)}


class Methods(DatabaseTest):
    def test_each_is_an_ordinary_function(self):
        for name, method in METHODS.items():
            with self.subTest(name):
                self.assertIs(pickle.loads(pickle.dumps(method)), method)
                self.assertRaises(TypeError, mock.create_autospec(method), *range(6))
                # A copy of the function has its code, whose body is not the native one.
                given = range(method.__code__.co_argcount)
                self.assertRaises(AssertionError, types.FunctionType(method.__code__, {}), *given)

    def test_receiver_of_another_class(self):
        self.table(optional("n"), rows=["x"])
        stand_in = types.SimpleNamespace(tables=self.db.tables, _row_to_dict=lambda table, row: {"row": row})
        self.assertEqual(JSONDatatable.get_row(stand_in, "t", 0), {"row": ["x"]})
        stand_in._row_to_dict = lambda *_: []
        with self.raises(TypeError, "Expected dict, got list"):
            JSONDatatable.get_row(stand_in, "t", 0)

    def test_calls_nested_too_deep(self):
        """They leave as much depth for later calls as there was."""
        def depth():
            try:
                return 1 + depth()
            except RecursionError:
                return 1

        before = depth()
        with mock.patch.object(JSONDatatable, "load", JSONDatatable.__init__):
            for _ in range(20):
                self.assertRaises(RecursionError, JSONDatatable, "nowhere.json")
        self.assertEqual(depth(), before)

    def test_an_error_handled_within_a_generator(self):
        """It is gone with the call: the generator and the block around it have their own ones back."""
        def insert():
            try:
                raise LookupError
            except LookupError as own:
                with self.raises(ValueError) as caught:
                    self.db.insert("t", {"n": "x"})
                self.assertIs(caught.exception.__context__.__context__, own)
                yield sys.exc_info()[1], own

        self.table(optional("n", "number"))
        try:
            raise OSError
        except OSError as outer:
            handled, own = next(insert())
            self.assertIs(handled, own)
            self.assertIs(sys.exc_info()[1], outer)

    def test_binding(self):
        db, count = self.db, "{}() takes {} positional argument{} ({} given)".format
        for name, args, keywords, message in (
                ("save", (), {}, count("save", "exactly 1", "", 0)),
                ("create_table", (db, "t"), {}, count("create_table", "exactly 3", "s", 2)),
                ("__init__", (db, 1, 2), {"x": 1}, count("__init__", "at most 2", "s", 3)),
                # After keywords the count given is the position of the first parameter left out.
                ("select", (), {"self": db}, count("select", "at least 2", "s", 1)),
                ("insert", (db,), {"naïve": 1}, "insert() got an unexpected keyword argument 'naïve'"),
                ("save", (db,), {"self": db}, "save() got multiple values for keyword argument 'self'")):
            with self.subTest(message), self.unchanged(TypeError, message):
                getattr(JSONDatatable, name)(*args, **keywords)

    def test_conversions(self):
        """Numbers become integers, anything a truth value, before the types of other arguments are tested."""
        class Indexed:
            __index__ = lambda self: 1

        self.table(optional("n"), rows=[("x",), ("y",)])
        for number in (1.9, True, Fraction(3, 2), Indexed(), type("Whole", (int,), {})(1)):
            with self.subTest(number):
                self.assertEqual(self.db.get_row("t", number), {"n": "y"})
        for method, *args in ((self.db.get_row, None, mock.MagicMock(__int__=lambda _: 1 // 0)),
                              (self.db._validate_row, None, None, mock.MagicMock(__bool__=lambda _: 1 // 0))):
            with self.subTest(method.__name__), self.unchanged(ZeroDivisionError):
                method(*args)

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
