"""Declaring tables, validating rows, methods redefined by others, and what a failing change leaves behind."""

import contextlib
import functools
import itertools
import unittest
from unittest import mock

from support import Column, DatabaseTest, JSONDatatable, module, optional, unique


class Validation(DatabaseTest):
    def test_refused_conversions_keep_their_reason(self):
        for data_type, value, reason in (
                ("number", float("nan"), ValueError), ("number", [], TypeError), ("date", "2024-02-30", ValueError)):
            with self.raises(ValueError, f"Invalid {data_type} value for column 'c'") as caught:
                self.db._validate_row(module.Table("t", [Column("c", data_type)]), {"c": value})
            error = caught.exception
            self.assertIs(type(error.__context__), reason)
            self.assertEqual((error.__cause__, error.__suppress_context__, error.__context__.__context__), (None, False, None))


class Redefinition(DatabaseTest):
    def calls(self):
        """What is called, which method it reaches through the object, and with which arguments each time."""
        table = self.db.tables["t"]
        first, second = table.rows
        data, columns = {"id": 2, "name": "x"}, [unique("a"), unique("b")]
        return [
            (lambda db: db.__init__(self.path), "load", [()]),
            (lambda db: db.create_table("u", columns), "_build_indexes", [("u",)]),
            (lambda db: db.create_table("u", columns), "_build_index", [("u", "a"), ("u", "b")]),
            (lambda db: db.create_table("u", columns), "save", [()]),
            (lambda db: db.insert("t", {"id": 3}), "_validate_row", [(table, {"id": 3})]),
            (lambda db: db.insert("t", {"id": 3}), "save", [()]),
            (lambda db: db.insert("t", {"id": 3}), "_row_to_dict", [(table, first), (table, second)]),
            (lambda db: db.update("t", 0, {"id": 3}), "_validate_row", [(table, {"id": 3}, ("update", True))]),
            (lambda db: db.update("t", 0, {"id": 3}), "save", [()]),
            (lambda db: db.update("t", 0, data), "_dict_to_row_id", [(table, data)]),
            (lambda db: db.delete("t", 0), "save", [()]),
            (lambda db: db.clear_table("t"), "save", [()]),
            (lambda db: db.select("t", {"id": 2}, ["name"]), "_row_to_dict", [(table, second, ["name"])]),
            (lambda db: db.select("t", {"name": "b"}), "_row_to_dict", [(table, first), (table, second)]),
            (lambda db: db.select("t", None, ["id"], 1), "_project_row", [({"id": 1, "name": "a"}, ["id"])]),
            (lambda db: db.get_row("t", 0), "_row_to_dict", [(table, first)]),
            (lambda db: db.display_table("t", 1), "select", [("t", ("limit", 1))]),
        ]

    @contextlib.contextmanager
    def redefined(self, name, where, calls):
        original = getattr(JSONDatatable, name)

        def record(receiver, *args, **keywords):
            calls.append((*args, *keywords.items()))
            return original(receiver, *args, **keywords)

        def find(receiver, wanted):
            return functools.partial(record, receiver) if wanted == name else object.__getattribute__(receiver, wanted)

        if where == "class":
            with mock.patch.object(JSONDatatable, name, record):
                yield
        elif where == "instance":
            with mock.patch.object(self.db, name, functools.partial(record, self.db)):
                yield
        else:
            body = {name: record} if where == "subclass" else {"__getattribute__": find}
            self.db.__class__ = type("Heir", (JSONDatatable,), body)
            yield

    def test_every_caller_sees_it(self):
        for where in ("class", "subclass", "instance", "look-up"):
            for number in itertools.count():
                self.db = JSONDatatable(self.at(f"{where}{number}"))
                self.table(unique("id", "number"), optional("name"), rows=[(1, "a"), (2, "b")])
                if number == len(self.calls()):
                    break
                act, name, expected = self.calls()[number]
                calls = []
                with self.subTest(name, where=where, number=number), self.redefined(name, where, calls), \
                        contextlib.redirect_stdout(None):
                    act(self.db)
                    self.assertEqual(calls, expected)


class TakenBack(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.rows = self.table(optional("plain", validation_pattern="p"), unique("a"), unique("b"), rows=[
            ("p", "x", 1), ("p", None, 2), (None, None, None), (None, "y", None)]).rows

    def test_update(self):
        def interrupted(*args, **keywords):
            self.assertNotIn(row_id, itertools.chain(*self.db.tables["t"].indexes["a"].values()))
            raise KeyboardInterrupt

        for row_id, row in enumerate(self.rows):
            for stage, error, data, validate in (
                    ("validation", ValueError, {"a": "new", "plain": "other"}, None),
                    ("validation", KeyboardInterrupt, {}, interrupted),
                    ("row", KeyError, {}, lambda *_, **__: {"plain": 1, "a": "new"}),
                    ("first index", TypeError, {"a": []}, None),
                    ("second index", TypeError, {"a": "new", "b": []}, None),
                    ("second index", TypeError, {"a": None, "b": {}}, None)):
                replaced = mock.patch.object(self.db, "_validate_row", validate)
                with self.subTest(stage, error=error, row=row), replaced if validate else contextlib.nullcontext():
                    with self.unchanged(error):
                        self.db.update("t", row_id, data)
                self.assertIs(self.rows[row_id], row)

    def test_update_of_a_row_it_cannot_withdraw(self):
        for self.rows[0], error in ((["p", "x"], IndexError), (["p", "x", []], TypeError)):
            with self.subTest(error=error), self.unchanged(error):
                self.db.update("t", 0, {"a": "new"})


if __name__ == "__main__":
    unittest.main()
