"""Random operations, run on the module and on its plain-Python model, which must never differ.

Each step draws from a generator of its own, once for each side: equal states lead to the same choices,
and no object is shared. A difference is reported with few steps that lead to it.
"""

import concurrent.futures
import contextlib
import copy
import functools
import inspect
import io
import json
import os
import pickle
import random
import re
import tempfile
import unittest
from datetime import date, datetime
from decimal import Decimal
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

import literal
import model
from support import BASE
from talvern_client.utils import json_database


# Odd values. What they do depends on nothing but their tags, so that it is the same on both sides.

class Tagged:
    def __init__(self, tag):
        self.tag = tag

    def __repr__(self):
        return f"{type(self).__name__}({self.tag!r})"

    # Equal hashes would make the order of a dictionary's comparisons matter, which depends on its past.
    def __hash__(self):
        return hash((type(self), self.tag))


class Failing(Tagged):
    """Raises in the operation that is its tag."""
    def fail(self, operation, failure=TypeError):
        if self.tag == operation:
            raise failure(operation)

    __eq__ = lambda self, other: self.fail("eq") or isinstance(other, Failing) and self.tag == other.tag
    __hash__ = lambda self: self.fail("hash") or id(self) >> 4
    __str__ = lambda self: self.fail("str", ValueError) or "7.5"
    __bool__ = lambda self: self.fail("bool", RuntimeError) is None


class Sided(Tagged):
    """Tells left from right, and == from a negated !=."""
    __eq__ = lambda self, other: isinstance(other, Sided) and self.tag >= other.tag
    __ne__ = lambda self, other: not isinstance(other, Sided) or self.tag > other.tag
    __hash__ = Tagged.__hash__


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
    "odd": [Sided(1), Sided(2), Sided(3), Sided(4), Failing("eq"), NAN, (1, "a"), [1], 1]}
ODD = [
    lambda: float("inf"), lambda: -0.0, lambda: 1e16, lambda: 10 ** 30, lambda: -2 ** 63,
    lambda: b"x", lambda: (1, "a"), lambda: [1, [None]], lambda: {"k": 1.5, 2: None, 1.5: True}, lambda: {1},
    lambda: datetime(2024, 3, 15, 10, 5), lambda: Decimal("1.50"), lambda: 'é q"\\\n\x01\x7f\u2028',
    lambda: Text("a"), lambda: Whole(1), lambda: Real(2.5), lambda: Items([1]), lambda: Record(k=Text("v")),
    lambda: Failing("eq"), lambda: Failing("hash"), lambda: Failing("bool"), lambda: Sided(1), lambda: Sided(2)]
UNWRITABLE = [lambda: "\ud800", lambda: Failing("str"), lambda: {(1, 2): 3}, lambda: [{date(2024, 3, 15): 1}]]
TABLES = ["t", "second", "é"]
STEPS = {
    "create_table": 3, "insert": 24, "update": 14, "clear_table": 0.5, "delete": 6, "select": 16, "get_row": 4,
    "_build_indexes": 1, "_build_index": 1, "_row_to_dict": 2, "_validate_row": 4, "_dict_to_row_id": 5,
    "_project_row": 2, "save": 1, "load": 2, "display_table": 4, "__init__": 0.2, "fill": 0.06, "edit": 5,
    "copy": 1}

# What a redefined method makes of the original's result.
CHANGES = {
    "_row_to_dict": [lambda r: {**r, "more": 1}, lambda r: Record(r), lambda r: None, list],
    "_project_row": [lambda r: dict(reversed(r.items())), lambda r: None],
    "_dict_to_row_id": [lambda r: None, lambda r: 0, lambda r: 99, lambda r: "0"],
    "_validate_row": [lambda r: Record(r), lambda r: dict(list(r.items())[1:]), lambda r: None],
    "select": [lambda r: r[:1], lambda r: r + [{"more": 1}], lambda r: None],
    "save": [lambda r: 1 / 0], "load": [lambda r: 1 / 0],
    "_build_index": [lambda r: 1 / 0], "_build_indexes": [str]}


class Side:
    """One implementation, with a database in a folder of its own."""
    def __init__(self, module, kind, folder):
        self.module, self.kind, self.folder, self.calls = module, kind, folder, []
        os.mkdir(folder)
        os.chdir(folder)
        self.db = kind()

    def run(self, seed):
        """All that a caller can see of a step, and after it."""
        os.chdir(self.folder)
        step, printed, failure, self.calls = Step(self, seed), io.StringIO(), None, []
        try:
            with contextlib.redirect_stdout(printed):
                step.run()
        except Exception as error:
            failure = self.failure(error)
        tables = [(name, vars(table), vars(table).get(model.TO_REBUILD, self) is table.indexes)
                  for name, table in self.db.tables.items()]
        files = {path.name: path.read_bytes() for path in Path().iterdir()}
        return step.words, step.result, failure, printed.getvalue(), self.calls, repr(tables), files

    def failure(self, error):
        """Class and words. How the type of a wrong argument is named is free; a string may be encoded whole or in
        pieces."""
        words = str(error).replace(self.module.__name__ + ".", "").split(", got ")[0]
        if isinstance(error, UnicodeEncodeError):
            words = error.object[error.start:error.end] + error.reason
        handled = error.__context__ and self.failure(error.__context__)
        return type(error), words, error.__suppress_context__, handled


class Step:
    """One random step for one side."""
    def __init__(self, side, seed):
        self.side, self.db, self.draw, self.result = side, side.db, random.Random(seed), None
        self.name = self.choose([*self.db.tables] or TABLES if self.chance(.95) else TABLES + ["nope"])
        self.table = self.db.tables.get(self.name) or side.module.Table(self.name, [])
        self.rows, self.columns = self.table.rows, self.table.columns
        self.what, = self.draw.choices(list(STEPS), STEPS.values())
        if not self.rows and self.chance(.5):
            self.what = "insert" if self.name in self.db.tables else "create_table"
        self.words = self.what

    def chance(self, probability):
        return self.draw.random() < probability

    def choose(self, options):
        return self.draw.choice(options)

    # Values

    def value(self):
        kinds, = self.draw.choices([PLAIN, ODD, UNWRITABLE], [900, 97, 3])
        chosen = self.choose(kinds)
        return chosen() if kinds is not PLAIN else chosen

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
        """A dictionary from column names to values."""
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
        return self.side.module.Column(
            name, kind, required, unique, self.value() if self.chance(.2) else None,
            self.choose(["", "[A-Z]", "a", r"\d+$", "(", 5, b"a"]) if self.chance(.1) else None)

    # Arguments, by parameter name

    def give_columns(self):
        if self.what != "create_table":
            return None if self.chance(.4) else [self.column_name() for _ in range(self.draw.randrange(4))]
        columns = [self.column() for _ in range(self.choose([0, 1, 2, 3, 3, 4, 5]))]
        different = {repr(column.name): column for column in columns}
        return columns if self.chance(.25) else list(different.values())

    def give_conditions(self):
        if self.chance(.15):
            return self.choose([None, {}])
        position = self.choose([*range(len(self.columns)), None])
        return self.values(.4) if position is None else {self.column_name(position): self.cell(position)}

    def give_row_id(self):
        if self.chance(.25):
            return self.choose([10 ** 30, -2 ** 64, *range(-1, len(self.rows) + 2)])
        return self.draw.randrange(len(self.rows) or 1)

    def argument(self, name):
        if name in ("data", "new_data", "row_dict"):
            return self.values(.8)
        return {
            "table_name": lambda: self.choose(TABLES) if self.what == "create_table" else self.name,
            "filename": lambda: self.choose(["database.json", "other.json"]),
            "columns": self.give_columns, "conditions": self.give_conditions, "row_id": self.give_row_id,
            "limit": lambda: self.choose([0, 1, 2, 3, 20, -1, -2, 10 ** 30, -2 ** 64]),
            "column_name": self.column_name,
            "table": lambda: self.table if self.chance(.9) else SimpleNamespace(**vars(self.table)),
            "row": lambda: self.choose(self.rows) if self.rows and self.chance(.8) else self.some_values(5),
            "update": lambda: self.chance(.5),
        }[name]()

    # Steps

    def call(self):
        """A call of a method. What it gives is written down and then changed: it is no part of the store."""
        parameters = dict(inspect.signature(getattr(literal.JSONDatatable, self.what)).parameters)
        del parameters["self"]
        values = {name: self.argument(name) for name, parameter in parameters.items()
                  if parameter.default is parameter.empty or self.chance(.6)}
        self.words += repr(values)
        result = getattr(self.db, self.what)(**values)
        self.result = repr(result)
        for given in result if isinstance(result, list) else [result]:
            if isinstance(given, dict):
                given["more"] = given.pop("id", None)
        self.result += repr(result)

    def fill(self):
        """Enough rows for what is done only in large tables."""
        for _ in range(40):
            self.rows.append([self.cell(position) for position in range(len(self.columns))])

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

        def add_ids():
            key = self.choose([*indexes[name], self.value()])
            indexes[name].setdefault(key, []).extend(ids)

        edits = [
            lambda: rows.append(self.some_values(len(columns) + 2)), lambda: rows.pop(),
            lambda: rows.__setitem__(self.draw.randrange(len(rows)), odd_row),
            lambda: row.append(self.value()), lambda: row.pop(), set_cell, set_cell, set_cell,
            lambda: columns.append(other), lambda: columns.pop(), lambda: columns.reverse(),
            lambda: setattr(column, *self.choose(list(vars(other).items()))), lambda: indexes.pop(name),
            lambda: indexes.__setitem__(name, index), lambda: setattr(table, "indexes", {name: index}),
            lambda: setattr(table, "indexes", dict(indexes)), add_ids, add_ids, add_ids]
        number = self.draw.randrange(len(edits))
        self.words += repr((self.name, number, name, ids, index))
        edits[number]()

    def copy(self):
        self.side.db = self.choose([copy.deepcopy, lambda db: pickle.loads(pickle.dumps(db))])(self.db)

    # Redefined methods and module names

    def run(self):
        if not hasattr(literal.JSONDatatable, self.what):
            getattr(self, self.what)()
        elif self.chance(.75):
            self.call()
        elif self.chance(.1):
            with mock.patch.object(self.side.module, *self.replacement()):
                self.call()
        else:
            self.call_of_subclass(self.choose(list(CHANGES)))

    def call_of_subclass(self, name):
        """A call while the object's class redefines the method of that name, or how methods are looked up."""
        kind = self.side.kind
        change, original = self.choose(CHANGES[name]), self.told(getattr(kind, name))

        def method(*args, **kwargs):
            return change(original(*args, **kwargs))

        def look_up(receiver, attribute):
            found = object.__getattribute__(receiver, attribute)
            return functools.partial(method, receiver) if attribute == name else found

        self.words += f" with {name} redefined "
        self.db.__class__ = type(kind.__name__, (kind,), self.choose([{name: method}, {"__getattribute__": look_up}]))
        try:
            self.call()
        finally:
            self.db.__class__ = kind

    def told(self, function):
        """The function, with its calls written down."""
        def tell(*args, **kwargs):
            self.side.calls.append((function.__name__, len(args), list(kwargs)))
            return function(*args, **kwargs)
        return tell

    def replacement(self):
        """A name of the module's namespace, and what tells of its use."""
        module, told = self.side.module, self.told
        return self.choose([
            ("json", SimpleNamespace(dump=told(json.dump), load=told(json.load))),
            ("re", SimpleNamespace(match=told(re.match))),
            ("datetime", SimpleNamespace(strptime=told(datetime.strptime))),
            ("os", SimpleNamespace(path=SimpleNamespace(exists=told(os.path.exists)))),
            ("Column", told(module.Column)), ("Table", told(module.Table))])


def difference(seed, steps=range(200)):
    """What each side shows of the first step after which they differ, and the steps up to it; None where they agree."""
    with tempfile.TemporaryDirectory(dir=BASE) as folder:
        sides = [Side(literal, model.JSONDatatable, os.path.join(folder, "a")),
                 Side(json_database, json_database.JSONDatatable, os.path.join(folder, "b"))]
        taken = {}
        for number in steps:
            expected, got = [side.run(seed * 1000003 + number) for side in sides]
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
        seeds = range(1000, 2050) if "JSON_DATABASE_LONG" in os.environ else range(30)
        with concurrent.futures.ProcessPoolExecutor() as pool:
            self.addCleanup(pool.shutdown, cancel_futures=True)
            for seed, found in zip(seeds, pool.map(smallest_difference, seeds)):
                if found:
                    expected, got, taken = found
                    self.assertEqual(got, expected, f"after the steps {taken} of seed {seed}")
