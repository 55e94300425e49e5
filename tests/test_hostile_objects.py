"""Objects whose methods raise, lie or change the database while it works on them."""

import gc
import itertools
import json
import operator
import random
import unittest

from fault_support import (
    LONG, OPERATIONS, PARTIAL, PATH, FaultTest, disagreement, fresh, listing, memory, outcome, read,
    reset, saved)
from support import JSONDatatable, module


class Stage:
    """What hostile objects do: nothing wrong for some calls of their methods, then an act at each further one."""

    def set(self, db, act="raise", honest=0):
        self.db, self.act, self.honest, self.calls, self.acting = db, act, honest, 0, False
        return db

    def answer(self, honestly):
        self.calls += 1
        # Not for ever: rows that grow at every step of a walk would make any walk endless.
        if self.honest < self.calls <= self.honest + 50 and not self.acting:
            if self.act in ODD:
                return ODD[self.act]
            self.acting = True
            try:
                ACTS[self.act](self.db)
            finally:
                self.acting = False
        return honestly()


stage = Stage()


def misbehave(kind):
    raise kind("misbehaved")


def table(db):
    return db.tables["t"]


ODD = {repr(odd)[:6]: odd for odd in (None, [], -1, 10 ** 30, "odd", NotImplemented)}
ACTS = {
    "raise": lambda db: misbehave(ZeroDivisionError),
    "interrupt": lambda db: misbehave(KeyboardInterrupt),
    "clear rows": lambda db: table(db).rows.clear(),
    "shorten rows": lambda db: [row.clear() for row in table(db).rows],
    "grow rows": lambda db: table(db).rows.insert(0, ["grown"] * 3),
    "clear columns": lambda db: table(db).columns.clear(),
    "clear indexes": lambda db: [cleared.clear() for index in (*table(db).indexes.values(), table(db).indexes)
                                 for cleared in (*index.values(), index)],
    "clear arguments": lambda db: [argument.clear() for argument in vars(db).get("given", ())],
    "other indexes": lambda db: setattr(table(db), "indexes", {"k": [], "s": {"new": (1,), "b": 5}}),
    "clear tables": lambda db: db.tables.clear(),
    "drop": lambda db: (db.__dict__.clear(), gc.collect()),
    **{name: OPERATIONS[name] for name in ("insert", "update", "clear_table", "_build_indexes", "save", "load")},
}


class HostilePath:
    pass


class Hostile(HostilePath):
    """Not for a file name: a number would be a descriptor."""


for special, honest in {
        "__eq__": lambda self, other: self is other, "__ne__": lambda self, other: self is not other,
        "__hash__": lambda self: hash("new"), "__str__": lambda self: "text", "__repr__": lambda self: "text",
        "__format__": lambda self, _: "text", "__bool__": lambda self: True, "__int__": lambda self: 1,
        "__index__": lambda self: 1, "__float__": lambda self: 1.0, "__len__": lambda self: 1,
        "__del__": lambda self: None, "__iter__": lambda self: iter([1]), "__contains__": lambda self, _: True,
        "__getitem__": lambda self, _: [1], "__fspath__": lambda self: PATH,
        "__getattr__": lambda self, name: getattr(table(stage.db), name),
        "__setitem__": lambda self, *_: None, "__delitem__": lambda self, _: None}.items():
    def method(self, *args, honest=honest):
        return stage.answer(lambda: honest(self, *args))
    setattr(Hostile if special in ("__int__", "__index__", "__float__") else HostilePath, special, method)


class Spelt(str):
    """An attribute's name that has a say in its look-up."""

    __hash__ = str.__hash__

    def __eq__(self, other):
        return stage.answer(lambda: str.__eq__(self, other))


def respell(record, name):
    vars(record)[Spelt(name)] = vars(record).pop(name)


PLANTS = {
    "argument": None,
    "value": lambda db: operator.setitem(table(db).rows[1], 2, Hostile()),
    "keys": lambda db: [(operator.setitem(table(db).rows[row], column, Hostile()), db._build_indexes("t"))
                        for row in (0, 1) for column in (1, 3)],
    "ids": lambda db: operator.setitem(table(db).indexes["s"], "b", [Hostile(), 1]),
    "row": lambda db: operator.setitem(table(db).rows, 1, Hostile()),
    "column": lambda db: operator.setitem(table(db).columns, 1, Hostile()),
    "table": lambda db: operator.setitem(db.tables, "t", Hostile()),
    **{field: lambda db, field=field: setattr(table(db).columns[1], field, Hostile()) for field in (
        "name", "data_type", "required", "unique", "default", "validation_pattern")},
    **{f"the table's {field}": lambda db, field=field: setattr(table(db), field, Hostile()) for field in (
        "name", "columns", "rows", "indexes")},
    **{f"respelt {name}": lambda db, name=name: respell(table(db).columns[1], name) for name in ("name", "unique")},
    **{f"respelt {name}": lambda db, name=name: respell(table(db), name) for name in ("columns", "rows", "indexes")},
    "respelt tables": lambda db: respell(db, "tables"),
    "filename": lambda db: setattr(db, "filename", HostilePath()),
    "tables": lambda db: setattr(db, "tables", Hostile()),
    **{f"redefined {name}": lambda db, name=name: setattr(db, name, lambda *args, **names: stage.answer(Hostile))
       for name in vars(JSONDatatable) if name[1] != "_"},
    **{f"rebound {name}": lambda db, name=name: setattr(module, name, Hostile()) for name in (
        "json", "open", "os", "re", "datetime", "Column", "Table")},
}


NESTED = [("argument", act) for act in ("insert", "update", "save", "clear_table")]
OFTENER = {("keys", "raise"): 0.5, ("keys", "clear indexes"): 0.5, ("argument", "clear arguments"): 1,
           ("respelt name", "clear columns"): 1}


def hostile_objects(cases, share):
    chosen = random.Random(4)
    reset(b"")
    content = saved(fresh())
    originals = dict(vars(module))
    for plant, name, act in itertools.product(PLANTS, OPERATIONS, (*ODD, *ACTS)):
        accepts = plant != "argument" or "x" in OPERATIONS[name].__code__.co_varnames
        if not accepts or chosen.random() > max(share, OFTENER.get((plant, act), 0)):
            continue
        for honest in range(25):
            reset(content)
            db = stage.set(fresh(), honest=1000)
            given = [db, HostilePath() if name == "__init__" else Hostile()] if plant == "argument" else [db]
            if PLANTS[plant]:
                PLANTS[plant](db)
            before, saving = plant in ("keys", "value", "argument") and memory(db, id), []
            if before:
                db.save = lambda: (saving.append(1), JSONDatatable.save(db))
            with cases(plant, name, act, honest):
                stage.set(db, act, honest)
                got, _ = outcome(OPERATIONS[name], *given, show=type)
                used = stage.calls > honest
                stage.set(db, honest=1000)
                vars(module).clear()
                vars(module).update(originals)
                assert got[0] is not SystemError, got
                json.loads(read())
                assert listing() == [f"./{PATH}"] or plant in ("filename", "argument"), listing()
                if (act in ("raise", "interrupt") or (plant, act) in NESTED) and before and name not in PARTIAL:
                    assert not disagreement(db), disagreement(db)
                    assert saving or act not in ("raise", "interrupt") or memory(db, id) == before, "not taken back"
            if not used:
                break


class HostObjects(FaultTest):
    def test_every_object_in_every_place(self):
        self.in_child(hostile_objects, 1 if LONG else 0.02)

if __name__ == "__main__":
    unittest.main()
