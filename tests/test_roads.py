"""The fast roads against the defining ones, which rebinding a name or redefining a method brings back."""

import contextlib
import copy
import datetime
import enum
import functools
import gc
import io
import json
import math
import random
import struct
import types
from unittest import mock

from support import Column, DatabaseTest, JSONDatatable, module


class Text(str):
    pass


class Plain(JSONDatatable):
    """Redefines the row conversions by themselves, which closes every scan's fast road."""

    def _row_to_dict(self, *args):
        return super()._row_to_dict(*args)

    def _project_row(self, *args):
        return super()._project_row(*args)


def plain_json():
    """json.dump and json.load behind another module object: the native writer and reader stand aside."""
    return mock.patch.object(module, "json", types.SimpleNamespace(dump=json.dump, load=json.load))


ALPHABETS = ["abc xyz", 'a"\\\n\t\r\b\f\x00\x1f\x7f/', "aé\xff", "aあ\u2028", "a😀é\n\""]


def text(r):
    if r.random() < 0.1:
        return str(day(r))
    return "".join(r.choices(r.choice(ALPHABETS), k=r.choice([*range(27), 300])))


def number(r):
    return r.choice([
        lambda: r.randint(-9, 9), lambda: r.choice([1, -1]) * 10 ** r.randint(0, 40) + r.randint(-1, 1),
        lambda: struct.unpack("d", r.randbytes(8))[0], lambda: round(r.uniform(-1, 1) * 10 ** r.randint(0, 17), r.randint(0, 7)),
        lambda: r.choice([math.nan, math.inf, -math.inf, 0.0, -0.0, 5e-324, 1e16, 1e22, 123456789012345.6])])()


def day(r):
    return datetime.date(2024, 1, r.randint(1, 3))


def word(r):
    return r.choice([None, True, False])


def plain_value(r, depth=0):
    """A value that the native writer knows."""
    simple = [
        text, text, number, number, word, lambda r: datetime.date.fromordinal(r.randint(1, 3652059)),
        lambda r: datetime.datetime(r.randint(1, 9999), 1, 2, 3, 4, r.choice([0, 59]), r.choice([0, 1, 120000]))]
    if depth == 4 or r.random() < 0.75:
        return r.choice(simple)(r)
    values = [plain_value(r, depth + 1) for _ in range(r.randrange(4))]
    return r.choice([list, tuple, lambda values: {r.choice([text, number, word])(r): value for value in values}])(values)


def fresh(value):
    """An equal text is another object, without a hash as yet."""
    return value.encode().decode() if type(value) is str else value


def nested(depth):
    return functools.reduce(lambda value, _: [value], range(depth), [])


# Values at which it gives up, in ways that json.dump takes or refuses.
CIRCULAR = []
CIRCULAR.append(CIRCULAR)
ODD = [Text("x"), {1}, b"y", "\ud800", "é\udfff", nested(150), nested(5000), {(1, 2): 3}, {Text("k"): 1}, 10 ** 5000,
       object, datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc), datetime.timedelta(1), CIRCULAR,
       enum.IntEnum("Kind", "A").A, type("Mute", (str,), {"__str__": None})("é"),
       type("Mute", (float,), {"__repr__": None})(1.5)]


class RoadsTest(DatabaseTest):
    def outcome(self, function, *args):
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            try:
                result = function(*args)
            except Exception as error:
                result = type(error), error.args
        return repr(result), printed.getvalue()

    def assert_same(self, fast, plain):
        """Without unittest's own report of differences, which takes minutes over texts as long as these."""
        if fast != plain:
            at = next((i for i, (a, b) in enumerate(zip(repr(fast), repr(plain))) if a != b), 0)
            self.fail(f"{repr(fast)[max(at - 60, 0):at + 60]} is not {repr(plain)[max(at - 60, 0):at + 60]}")

    def saved(self):
        self.write(b"before")
        return self.outcome(self.db.save), self.on_disk()

    def test_writing(self):
        for seed in range(60):
            r = random.Random(seed)
            self.db.tables = {}
            for name in {text(r) for _ in range(r.randint(seed % 2, 3))}:
                columns = [Column(text(r), r.choice(["number", 5]), default=plain_value(r)) for _ in range(3)]
                table = self.db.tables[name] = module.Table(name, columns)
                table.rows = [[plain_value(r) for _ in range(r.choice([3, 3, 0, 5]))] for _ in range(r.choice([9, 600]))]
                table.rows.append([None] * 3)
                keys = r.choice([[text, number, word], [number, day], [text, lambda r: (b"k", number(r))]])
                table.indexes = {name: {r.choice(keys)(r): [1, 2] for _ in range(r.randrange(5))}}
                if seed % 2:
                    r.choice(table.rows).append(ODD[seed // 2 % len(ODD)])
            with self.subTest(seed=seed):
                fast = self.saved()
                with plain_json():
                    self.assert_same(fast, self.saved())

    def test_reading_many_rows(self):
        """Texts met before, an index's keys that follow the rows or do not, and memory in huge pages."""
        count = 40_000
        rows = [[f"key {i}" if i % 9 else f"schlüssel {i}", f"often {i % 50}", "é" * (i % 30), None, i / 7] for i in range(count)]
        in_order = {row[0]: [i] for i, row in enumerate(rows) if i % 70 or i > 30_000}
        shuffled = {f"key {i * 7919 % count}": [i] for i in range(0, count, 3)}
        tables = {name: {"name": name, "columns": [], "rows": rows, "indexes": {"a": in_order, "b": {}, "c": shuffled, "d": in_order}}
                  for name in "tu"}
        self.write(json.dumps({"tables": tables}, ensure_ascii=False).encode())
        found = []
        for road in (contextlib.nullcontext, plain_json):
            with road():
                self.db.load()
            found.append([(table.rows, [list(index.items()) for index in table.indexes.values()])
                          for table in self.db.tables.values()])
        self.assertTrue(found[0] == found[1], "the roads read different tables")

        self.db.load()
        self.assertEqual((gc.isenabled(), gc.get_freeze_count()), (True, 0))
        self.assertLess(gc.get_count()[0], count, "the rows are left to the next collection")
        gc.freeze()
        try:
            frozen = gc.get_freeze_count()
            JSONDatatable(self.path)
            self.assertGreaterEqual(gc.get_freeze_count(), frozen - 50, "what the host froze is frozen no more")
        finally:
            gc.unfreeze()

    def test_changes_between_calls(self):
        """What the fast roads remember of records and methods must not outlive it."""
        class Late:
            def __get__(self, *_):
                return "late"

        def columns():
            return self.db.tables["t"].columns

        changes = [
            lambda: setattr(columns()[0], "name", "z"), lambda: columns().reverse(), lambda: columns().pop(),
            lambda: setattr(self.db.tables["t"], "rows", [[7, 8]]), lambda: vars(self.db.tables["t"]).pop("rows"),
            lambda: setattr(self.db.tables["t"], "columns", tuple(columns())), lambda: self.db.tables["t"].indexes.clear(),
            lambda: setattr(self.db, "tables", {}), lambda: setattr(self.db, "_row_to_dict", lambda *_: {"x": 1}),
            lambda: patched(module.Table, "rows", property(lambda _: [[5, 6]])),
            lambda: (patched(module.Column, "name", Late()), self.call_all(), patched(Late, "__set__", None)),
            lambda: patched(JSONDatatable, "_row_to_dict", lambda *_: {"y": 1}),
            lambda: patched(JSONDatatable._row_to_dict, "__defaults__", (["b"],)),
            lambda: setattr(columns()[1], "__class__", type("Other", (), {"name": "other"}))]

        def patched(*args):
            patches.enter_context(mock.patch.object(*args, create=not hasattr(*args[:2])))

        for number, change in enumerate(changes):
            with self.subTest(number=number), contextlib.ExitStack() as patches:
                self.db = JSONDatatable(self.at(f"{number}.json"))
                self.db.create_table("t", [Column("a", "number", False, True), Column("b", "number", False)])
                self.db.insert("t", {"a": 1, "b": 2})
                self.call_all()
                change()
                fast = self.call_all()
                fresh = copy.copy(self.db)  # with records of its own, of which nothing is remembered
                fresh.tables = {name: copy.copy(table) for name, table in self.db.tables.items()}
                for table in fresh.tables.values():
                    table.columns = type(table.columns)(map(copy.copy, table.columns))
                self.db = fresh
                self.assertEqual(fast, self.call_all())

    def test_change_of_one_object(self):
        """What is remembered of one object says nothing of another of its class."""
        self.table(Column("a", "number"), rows=[(1,)])
        other = JSONDatatable(self.path)
        self.assertEqual(self.db.get_row("t", 0), other.get_row("t", 0))
        other._row_to_dict = lambda *_: {"x": 1}
        self.assertEqual([db.get_row("t", 0) for db in (self.db, other)], [{"a": 1}, {"x": 1}])

    def call_all(self):
        calls = [("get_row", "t", 0), ("select", "t"), ("select", "t", {"a": 1}), ("select", "t", {"b": 2}),
                 ("display_table", "t"), ("_row_to_dict", self.db.tables.get("t"), [1, 2])]
        return [self.outcome(getattr(self.db, method), *args) for method, *args in calls]

    def test_scanning(self):
        plain = [None, 0, 1, True, 1.0, math.nan, "a", "ち", "é", "b", 2 ** 70, datetime.date(2024, 1, 1)]
        odd = plain + [Text("a"), b"a", [1], datetime.datetime(2024, 1, 1)]
        for seed in range(400):
            r = random.Random(seed)
            values = list(map(fresh, r.choice([plain[:8], plain, odd, ["ち", "ぢ", None]])))
            names = r.choice([["a", "b", "c"], ["a", "b", "a"]] * 3 + [[Text("a"), "b", "c"], ["a", 5, "c"], []])
            table = module.Table("t", [Column(name, "any", False, r.random() < 0.4) for name in names])
            table.rows = [[r.choice(values) for _ in range(max(len(names), r.choice([0, 0, 0, 4])))]
                          for _ in range(r.choice([2, 5, 60]))]
            if r.random() < 0.2:
                del r.choice(table.rows)[1:]
            wanted = {name: fresh(r.choice(values)) for name in r.sample(["a", "b", "c"], r.randint(0, 3))}
            if r.random() < 0.3:
                wanted[r.choice([5, "zz"])] = r.choice([None, r.choice(values)])
            chosen = r.choice([None, None, ["b", "a", "b", "q"], [], [5, Text("a")]])
            calls = [("select", ("t", wanted, chosen, r.choice([None, 0, 2, -1, 2 ** 70]))),
                     ("_dict_to_row_id", (table, wanted)), ("_validate_row", (table, wanted)),
                     ("_validate_row", (table, wanted, True)), ("display_table", ("t", 5)), ("get_row", ("t", 1))]
            self.db.tables = {"t": table}
            if r.random() < 0.5:
                with contextlib.suppress(TypeError, IndexError):
                    self.db._build_indexes("t")
            other = Plain(self.at("other.json"))
            other.tables = self.db.tables
            for method, args in calls:
                with self.subTest(seed=seed, method=method):
                    self.assert_same(self.outcome(getattr(self.db, method), *args),
                                     self.outcome(getattr(other, method), *args))
