"""Methods redefined by others."""

import contextlib
import functools
import itertools
from unittest import mock

import model
from support import DatabaseTest, JSONDatatable, optional, unique


class Redefinition(DatabaseTest):
    ACTIONS = [
        lambda db: db.__init__(db.filename),
        lambda db: db.create_table("u", [unique("a"), unique("b")]),
        lambda db: db.insert("t", {"id": 3}),
        lambda db: db.update("t", 0, {"id": 3}),
        lambda db: db.update("t", 0, {"id": 2, "name": "x"}),
        lambda db: db.delete("t", 0),
        lambda db: db.clear_table("t"),
        lambda db: db.select("t", {"id": 2}, ["name"]),
        lambda db: db.select("t", {"name": "b"}),
        lambda db: db.select("t", None, ["id"], 1),
        lambda db: db.get_row("t", 0),
        lambda db: db.display_table("t", 1),
    ]

    def calls(self, kind, name, where, act):
        """The calls of one redefined method that an action makes through the object."""
        original, calls = getattr(kind, name), []

        def record(receiver, *args, **keywords):
            calls.append(repr((args, keywords)))
            return original(receiver, *args, **keywords)

        def find(receiver, wanted):
            return functools.partial(record, receiver) if wanted == name else object.__getattribute__(receiver, wanted)

        self.write(self.content)
        db, body = kind(self.path), {"subclass": {name: record}, "look-up": {"__getattribute__": find}}
        if where in body:
            db.__class__ = type("Heir", (kind,), body[where])
        target, stand_in = (kind, record) if where == "class" else (db, functools.partial(record, db))
        redefined = contextlib.nullcontext() if where in body else mock.patch.object(target, name, stand_in)
        with redefined, contextlib.redirect_stdout(None), contextlib.suppress(ValueError):
            act(db)
        return calls

    def test_every_caller_sees_it(self):
        self.table(unique("id", "number"), optional("name"), rows=[(1, "a"), (2, "b")])
        self.content = self.read()
        names = [name for name, value in vars(JSONDatatable).items() if callable(value)]
        for (number, act), name in itertools.product(enumerate(self.ACTIONS), names):
            expected = self.calls(model.Checked, name, "class", act)
            for where in ("class", "subclass", "instance", "look-up") if expected else ():
                with self.subTest(name, where=where, number=number):
                    self.assertEqual(self.calls(JSONDatatable, name, where, act), expected)
