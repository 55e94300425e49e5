"""Random operations, run on the module and on its plain-Python model, which must never differ.

Each step draws from a generator of its own, once for each side: equal states lead to the same choices,
and no object is shared.
"""

import concurrent.futures
import contextlib
import copy
import inspect
import io
import os
import pickle
import random
import sys
import tempfile
import unittest
from datetime import date, datetime
from pathlib import Path
from types import MethodType, SimpleNamespace
from unittest import mock

import literal
import model
from support import BASE
from talvern_client.utils import json_database


class Odd:
    """Raises in the operation that is its tag, tells left from right, and == from a negated !=."""
    def __init__(self, tag, failure=TypeError):
        self.tag, self.failure = str(tag), failure

    def fail(self, operation):
        if self.tag == operation:
            raise self.failure(operation)

    def __repr__(self):
        return f"Odd({self.tag})"

    # Equal hashes would make the order of a dictionary's comparisons matter, which depends on its past.
    def __hash__(self):
        return self.fail("hash") or hash(self.tag)

    def __eq__(self, other):
        return self.fail("eq") or isinstance(other, Odd) and self.tag >= other.tag

    def __ne__(self, other):
        return not isinstance(other, Odd) or self.tag > other.tag

    def __str__(self):
        return self.fail("str") or "7.5"

    def __bool__(self):
        return self.fail("bool") is None


def subclass(name, base):
    represent = lambda self: f"{name}({base.__repr__(self)})"
    return type(name, (base,), {"__module__": __name__, "__repr__": represent})


Text, Whole, Real = subclass("Text", str), subclass("Whole", int), subclass("Real", float)
Items, Record = subclass("Items", list), subclass("Record", dict)

NAN = float("nan")
PLAIN = [None, True, False, 0, 1, -1, 2, 3, 7, 1.0, 2.5, NAN, "", "a", "b", "c", "d", "Abc", "1", "2.5", "日本"]
TYPED = {
    "number": [0, 1, 2, 3, 4, 5, 1.0, 2.5, 1e20, 1e-05, True, "1", "2", "3.", "4.50", " 7 ", "1_0", "1e3"],
    "boolean": [True, False, 0, 1, "", "false", 0.0],
    "date": ["2024-03-15", "2024-3-5", "2024-01-01", "2024-02-30", date(2024, 3, 15), date(2024, 1, 1), 9],
    "odd": [Odd(1), Odd(2), Odd(3), Odd(4), Odd("eq"), NAN, (1, "a"), [1], [2], 1]}
ODD = [
    float("inf"), -0.0, 1e16, 10 ** 30, -2 ** 63, {1}, b"x", (1, "a"), [1, [None]], {"k": 1.5, 2: None},
    'é q"\\\n\x01\x7f\u2028', datetime(2024, 3, 15, 10, 5), Text("a"), Whole(1), Real(2.5), Items([1]),
    Record(k=Text("v")), Odd("eq"), Odd("hash"), Odd("bool", RuntimeError), Odd(1), Odd(2)]
UNWRITABLE = ["\ud800", Odd("str", ValueError), {(1, 2): 3}, [{date(2024, 3, 15): 1}]]
TABLES = ["t", "second", "é"]
STEPS = {
    "create_table": 3, "insert": 24, "update": 14, "clear_table": 0.5, "delete": 6, "select": 16,
    "get_row": 4, "_build_indexes": 1, "_build_index": 3, "_row_to_dict": 2, "_validate_row": 4,
    "_dict_to_row_id": 5, "_project_row": 2, "save": 1, "load": 2, "display_table": 4, "__init__": 0.2,
    "fill": 0.06, "edit": 5, "copy": 1}
# Those that other methods call.
REDEFINED = [
    "_row_to_dict", "_project_row", "_dict_to_row_id", "_validate_row", "_build_index", "select", "save"]
# What a redefined method makes of the original's result.
CHANGES = [
    lambda r: None, lambda r: 0, lambda r: "0", lambda r: 1 / 0, list, lambda r: Record(r), lambda r: r[:1],
    lambda r: {**r, "more": 1}, lambda r: dict(reversed(r.items())), lambda r: dict([*r.items()][1:])]


class Side:
    """One implementation, with a database in a folder of its own, and the step that it takes."""
    def __init__(self, module, kind, folder):
        self.module, self.kind, self.folder = module, kind, folder
        os.mkdir(folder)
        os.chdir(folder)
        self.db = kind()

    def take_step(self, seed):
        """All that a caller can see of a random step, and after it."""
        os.chdir(self.folder)
        self.draw, self.told, self.result, failure = random.Random(seed), mock.Mock(), None, None
        self.name = self.choose([*self.db.tables] or TABLES if self.chance(.95) else TABLES + ["nope"])
        self.table = self.db.tables.get(self.name) or self.module.Table(self.name, [])
        self.rows, self.columns = self.table.rows, self.table.columns
        self.what, = self.draw.choices(list(STEPS), STEPS.values())
        if not self.rows and self.chance(.5):
            self.what = "insert" if self.name in self.db.tables else "create_table"
        self.words = self.what
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            try:
                self.run()
            except Exception as error:
                failure = self.failure(error)
        tables = [(name, vars(table), vars(table).get(model.TO_REBUILD, self) is table.indexes)
                  for name, table in self.db.tables.items()]
        calls = [(name, len(args), list(kwargs)) for name, args, kwargs in self.told.mock_calls]
        files = {path.name: path.read_bytes() for path in Path().iterdir()}
        return self.words, self.result, failure, printed.getvalue(), calls, repr(tables), files

    def failure(self, error):
        """How the type of a wrong argument is named is free; a string may be encoded whole or in pieces."""
        words = str(error).replace(self.module.__name__ + ".", "").split(", got ")[0]
        if isinstance(error, UnicodeEncodeError):
            words = error.object[error.start:error.end] + error.reason
        handled = error.__context__ and self.failure(error.__context__)
        return type(error), words, error.__suppress_context__, handled

    def chance(self, probability):
        return self.draw.random() < probability

    def choose(self, options):
        return self.draw.choice(options)

    # Values

    def value(self):
        kinds, = self.draw.choices([PLAIN, ODD, UNWRITABLE], [900, 97, 3])
        return copy.deepcopy(self.choose(kinds))

    def some_values(self, below):
        return [self.value() for _ in range(self.draw.randrange(below))]

    def cell(self, position):
        """A value for the column; often the very object that a row holds there."""
        held = [row[position] for row in self.rows if isinstance(row, list) and len(row) > position]
        if held and self.chance(.35):
            return self.choose(held)
        kind = getattr(self.columns[position], "data_type", None)
        return self.choose(TYPED[kind]) if kind in TYPED and self.chance(.85) else self.value()

    def values(self, share):
        positions = [i for i in range(len(self.columns)) if self.chance(share)]
        result = {self.column_name(i): self.cell(i) for i in positions}
        if self.chance(.08):
            result[self.choose(["extra", 1, None, Text("id")])] = self.choose([None, self.value()])
        return result

    def column_name(self, position=None):
        names = [getattr(column, "name", "x") for column in self.columns] + ["none"]
        name = self.choose(names) if position is None else names[position]
        return name if name.__hash__ else "x"

    def column(self):
        usual = self.chance(.985)
        name = self.choose(["id", "name", "n", "when", "x"] if usual else [5, None, Text("id"), ["id"]])
        kind = self.choose(["number"] * 2 + ["boolean", "date", "Number", None] + ["text"] * 3 + ["odd"] * 2)
        required, unique = [self.chance(share) if self.chance(.97) else self.value() for share in (.1, .4)]
        return self.module.Column(
            name, kind, required, unique, self.value() if self.chance(.2) else None,
            self.choose(["", "[A-Z]", "a", r"\d+$", "(", 5, b"a"]) if self.chance(.1) else None)

    def new_columns(self):
        columns = [self.column() for _ in range(self.choose([0, 1, 2, 3, 3, 4, 5]))]
        different = {repr(column.name): column for column in columns}
        return columns if self.chance(.25) else list(different.values())

    def argument(self, name):
        if name in ("data", "new_data", "row_dict"):
            return self.values(.8)
        if self.what == "create_table":
            return self.choose(TABLES) if name == "table_name" else self.new_columns()
        return {
            "table_name": lambda: self.name,
            "filename": lambda: self.choose(["database.json", "other.json"]),
            "columns": lambda: self.choose([None, [self.column_name() for _ in self.columns]]),
            "conditions": lambda: self.choose([None, self.values(.4), *[
                {self.column_name(position): self.cell(position)} for position in range(len(self.columns))]]),
            "row_id": lambda: self.choose([*range(len(self.rows) + 1)] * 4 + [10 ** 30, -2 ** 64, -1]),
            "limit": lambda: self.choose([0, 1, 2, 3, 20, -1, -2, 10 ** 30, -2 ** 64]),
            "column_name": self.column_name,
            "table": lambda: self.table if self.chance(.9) else SimpleNamespace(**vars(self.table)),
            "row": lambda: self.choose(self.rows) if self.rows and self.chance(.8) else self.some_values(5),
            "update": lambda: self.chance(.5),
        }[name]()

    # Steps

    def run(self):
        if not hasattr(literal.JSONDatatable, self.what):
            getattr(self, self.what)()
        elif self.chance(.75):
            self.call()
        elif self.chance(.1):
            name = self.choose(["json", "re", "datetime", "os", "Column", "Table"])
            self.told = mock.Mock(wraps=getattr(self.module, name))
            with mock.patch.object(self.module, name, self.told):
                self.call()
        else:
            self.call_redefined(self.choose(REDEFINED))

    def call(self):
        """A call of a method. What it gives is written down and then changed: it is no part of the store."""
        parameters = dict(inspect.signature(getattr(literal.JSONDatatable, self.what)).parameters)
        del parameters["self"]
        values = {name: self.argument(name) for name, parameter in parameters.items()
                  if parameter.default is parameter.empty or self.chance(.5)}
        self.words += repr(values)
        result = getattr(self.db, self.what)(**values)
        self.result = repr(result)
        for given in result if isinstance(result, list) else [result]:
            if isinstance(given, dict):
                given["more"] = given.pop("id", None)
        self.result += repr(result)

    def call_redefined(self, name):
        """A call while the object's class redefines the method of that name, or how methods are looked up."""
        change, self.told = self.choose(CHANGES), mock.Mock(wraps=getattr(self.kind, name))

        def method(*args, **kwargs):
            return change(self.told(*args, **kwargs))

        def look_up(receiver, attribute):
            found = object.__getattribute__(receiver, attribute)
            return MethodType(method, receiver) if attribute == name else found

        self.words += f" with {name} redefined "
        body = self.choose([{name: method}, {"__getattribute__": look_up}])
        self.db.__class__ = type(self.kind.__name__, (self.kind,), body)
        try:
            self.call()
        finally:
            self.db.__class__ = self.kind

    def fill(self):
        """Enough rows for what is done only in large tables."""
        for _ in range(40):
            self.rows.append([self.cell(position) for position in range(len(self.columns))])

    def copy(self):
        self.db = self.choose([copy.deepcopy, lambda db: pickle.loads(pickle.dumps(db))])(self.db)

    def edit(self):
        """A change that the caller makes in the records."""
        table, rows, columns, indexes = self.table, self.rows, self.columns, self.table.indexes
        row, column = self.choose(rows or [[]]), self.choose(columns or [None])
        other, name = self.column(), self.column_name()
        ids = [self.draw.randrange(len(rows) + 1) for _ in range(self.draw.randrange(3))]
        odd_row = self.choose([[], [None] * len(columns), tuple(row or ()), "ab", None])
        merged = {date(2024, 3, 15): ids, "2024-03-15": [], (1,): ids}
        index = self.choose([{}, merged, None, [1], Record(a=ids), {self.value(): ids}])
        set_cell = lambda: row.__setitem__(self.draw.randrange(len(row)), self.value())
        set_ids = lambda: indexes[name].update({self.choose([*indexes[name], self.value()]): ids})
        edits = [
            lambda: rows.append(self.some_values(len(columns) + 2)), lambda: rows.pop(),
            lambda: rows.__setitem__(self.draw.randrange(len(rows)), odd_row),
            lambda: row.append(self.value()), lambda: row.pop(), set_cell, set_cell, set_cell,
            lambda: columns.append(other), lambda: columns.pop(), lambda: columns.reverse(),
            lambda: setattr(column, *self.choose(list(vars(other).items()))), lambda: indexes.pop(name),
            lambda: indexes.__setitem__(name, index), lambda: setattr(table, "indexes", {name: index}),
            lambda: setattr(table, "indexes", dict(indexes)), set_ids, set_ids, set_ids]
        number = self.draw.randrange(len(edits))
        self.words += repr((self.name, number, name, ids, index))
        edits[number]()


def difference(seed, steps=range(200)):
    """What each side shows of the first step after which they differ, and the steps up to it; else None."""
    with tempfile.TemporaryDirectory(dir=BASE) as folder:
        sides = [Side(literal, model.JSONDatatable, os.path.join(folder, "a")),
                 Side(json_database, json_database.JSONDatatable, os.path.join(folder, "b"))]
        taken = {}
        for number in steps:
            expected, got = [side.take_step(seed * 1000003 + number) for side in sides]
            taken[number] = expected[0]
            if got != expected:
                return expected, got, taken
    return None


def smallest_difference(seed):
    """The same without steps that have no part in it."""
    found = difference(seed)
    for number in reversed(found[2] if found else {}):
        found = difference(seed, [step for step in found[2] if step != number]) or found
    return found


class ModelTest(unittest.TestCase):
    maxDiff = None

    def test_random_operations(self):
        seeds = range(1000, 2050) if "JSON_DATABASE_LONG" in os.environ else range(60)
        with concurrent.futures.ProcessPoolExecutor() as pool:
            self.addCleanup(pool.shutdown, cancel_futures=True)
            for seed, found in zip(seeds, pool.map(smallest_difference, seeds)):
                if seed % 100 == 50:
                    print(f"up to seed {seed}", file=sys.stderr, flush=True)
                if found:
                    expected, got, taken = found
                    self.assertEqual(got, expected, f"after the steps {taken} of seed {seed}")
