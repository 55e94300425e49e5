"""Objects whose methods raise, lie or change the database while it works on them."""

import gc
import itertools
import json
import operator
import random
import signal
import traceback
from unittest import mock

from fault_support import (
    LONG, OPERATIONS, PARTIAL, PATH, FaultTest, disagreement, fresh, listing, memory, outcome, read, reset,
    saved)
from support import JSONDatatable, module


class Script:
    """What hostile objects do when they are called: nothing wrong at first, then an action at each call."""
    def set(self, db, action="raise", calls_before=1000):
        self.db, self.action, self.calls_before, self.calls, self.acting = db, action, calls_before, 0, False
        return db

    def answer(self, right_answer):
        self.calls += 1
        # Not for ever: rows that grow at every step of a walk would make any walk endless.
        due = self.calls_before < self.calls <= self.calls_before + 50 and not self.acting
        if due and self.action in ODD_ANSWERS:
            return ODD_ANSWERS[self.action]
        if due:
            self.acting = True
            try:
                ACTIONS[self.action](self.db)
            finally:
                self.acting = False
        return right_answer()


script = Script()


def table(db):
    return db.tables["t"]


ODD_ANSWERS = {repr(odd)[:6]: odd for odd in (None, [], -1, 10 ** 30, "odd", NotImplemented)}
ACTIONS = {
    "raise": lambda db: 1 / 0,
    "interrupt": lambda db: signal.default_int_handler(),
    "clear rows": lambda db: table(db).rows.clear(),
    "shorten rows": lambda db: [row.clear() for row in table(db).rows],
    "grow rows": lambda db: table(db).rows.insert(0, ["grown"] * 3),
    "clear columns": lambda db: table(db).columns.clear(),
    "clear indexes": lambda db: [index.clear() for index in (*table(db).indexes.values(), table(db).indexes)],
    "clear ids": lambda db: [ids.clear() for index in table(db).indexes.values() for ids in index.values()],
    "clear arguments": lambda db: [argument.clear() for argument in vars(db).get("given", ())],
    "other indexes": lambda db: setattr(table(db), "indexes", {"k": [], "s": {"new": (1,), "b": 5}}),
    "clear tables": lambda db: db.tables.clear(),
    "drop": lambda db: (db.__dict__.clear(), gc.collect()),
    **{name: OPERATIONS[name]
       for name in ("insert", "update", "clear_table", "_build_indexes", "save", "load")},
}
RIGHT_ANSWERS = {
    "__eq__": lambda self, other: self is other, "__ne__": lambda self, other: self is not other,
    "__hash__": lambda self: hash("new"), "__str__": lambda self: "text", "__repr__": lambda self: "text",
    "__format__": lambda self, _: "text", "__bool__": lambda self: True, "__int__": lambda self: 1,
    "__index__": lambda self: 1, "__float__": lambda self: 1.0, "__len__": lambda self: 1,
    "__del__": lambda self: None, "__iter__": lambda self: iter([1]), "__contains__": lambda self, _: True,
    "__getitem__": lambda self, _: [1], "__fspath__": lambda self: PATH,
    "__getattr__": lambda self, name: getattr(table(script.db), name),
    "__setitem__": lambda self, *_: None, "__delitem__": lambda self, _: None}


def asking(right):
    return lambda self, *args: script.answer(lambda: right(self, *args))


Hostile = type("Hostile", (), {special: asking(right) for special, right in RIGHT_ANSWERS.items()})
# For a file name: a number would be a descriptor.
HostilePath = type("HostilePath", (), {special: asking(right) for special, right in RIGHT_ANSWERS.items()
                                       if special not in ("__int__", "__index__", "__float__")})


class Spelt(str):
    """An attribute's name that has a say in its look-up."""
    __hash__ = str.__hash__
    __eq__ = asking(str.__eq__)


def respell(record, name):
    vars(record)[Spelt(name)] = vars(record).pop(name)


# Where a hostile object is put before the operation; as an argument it is handed over.
PLACES = {
    "argument": lambda db: None,
    "value": lambda db: operator.setitem(table(db).rows[1], 2, Hostile()),
    "keys": lambda db: [(operator.setitem(table(db).rows[row], column, Hostile()), db._build_indexes("t"))
                        for row in (0, 1) for column in (1, 3)],
    "ids": lambda db: operator.setitem(table(db).indexes["s"], "b", [Hostile(), 1]),
    "row": lambda db: operator.setitem(table(db).rows, 1, Hostile()),
    "column": lambda db: operator.setitem(table(db).columns, 1, Hostile()),
    "table": lambda db: operator.setitem(db.tables, "t", Hostile()),
    **{field: lambda db, field=field: setattr(table(db).columns[1], field, Hostile())
       for field in module.Column.__annotations__},
    **{f"the table's {field}": lambda db, field=field: setattr(table(db), field, Hostile())
       for field in module.Table.__annotations__},
    **{f"respelt {name}": lambda db, name=name: respell(table(db), name)
       for name in ("columns", "rows", "indexes")},
    "respelt name": lambda db: respell(table(db).columns[1], "name"),
    "respelt tables": lambda db: respell(db, "tables"),
    "filename": lambda db: setattr(db, "filename", HostilePath()),
    "tables": lambda db: setattr(db, "tables", Hostile()),
    **{f"redefined {name}": lambda db, name=name: setattr(db, name, lambda *_, **__: script.answer(Hostile))
       for name in vars(JSONDatatable) if name[1] != "_"},
    **{f"rebound {name}": lambda db, name=name: setattr(module, name, Hostile()) for name in (
        "json", "open", "os", "re", "datetime", "Column", "Table")},
}


def combinations(share):
    """Some of the places, operations and actions that go together, always the same ones."""
    chosen = random.Random(4)
    for place, name, action in itertools.product(PLACES, OPERATIONS, (*ODD_ANSWERS, *ACTIONS)):
        possible = place != "argument" or "x" in OPERATIONS[name].__code__.co_varnames
        often = place == "keys" and action in ("raise", "clear indexes", "clear ids")
        if possible and chosen.random() <= max(share, 0.5 * often):
            yield place, name, action


RAISING = ("raise", "interrupt")
# What these change within the operation stays, and rows and indexes must agree all the same.
NESTED = ("insert", "update", "save", "clear_table")


def hostile_objects(cases, share):
    reset(b"")
    content, originals = saved(fresh()), dict(vars(module))
    for place, name, action in combinations(share):
        for calls_before in range(25):
            reset(content)
            db = script.set(fresh())
            arguments = [HostilePath() if name == "__init__" else Hostile()] if place == "argument" else []
            PLACES[place](db)
            watched = place in ("keys", "value", "argument") and name not in PARTIAL
            if watched:
                before, db.save = memory(db, id), mock.Mock(wraps=db.save)
            with cases(place, name, action, calls_before):
                script.set(db, action, calls_before)
                got, _ = outcome(OPERATIONS[name], db, *arguments, show=type)
                used = script.calls > calls_before
                script.set(db)
                vars(module).clear()
                vars(module).update(originals)
                assert got[0] is not SystemError, got
                json.loads(read())
                if place not in ("filename", "argument"):
                    assert listing() == [f"./{PATH}"], listing()
                if watched and action in (*RAISING, *(NESTED if place == "argument" else ())):
                    assert not disagreement(db), disagreement(db)
                if watched and action in RAISING and not db.save.called:
                    assert memory(db, id) == before, f"not undone: {memory(db)}"
            if not used:
                break


class HostileObjects(FaultTest):
    def test_handled_error_keeps_its_traceback(self):
        wordless = type("Wordless", (), {"__str__": lambda self: int("no words")})
        with self.assertRaises(ValueError) as caught:
            fresh().insert("t", {"k": wordless()})
        frames = traceback.extract_tb(caught.exception.__context__.__traceback__)
        self.assertEqual([frame.name for frame in frames], ["<lambda>"])

    def test_every_object_in_every_place(self):
        self.in_child(hostile_objects, 1 if LONG else 0.02, least=50000 if LONG else 1100)
