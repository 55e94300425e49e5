"""The fast paths against the defining ones, which rebinding a name or redefining a method brings back."""

import contextlib
import copy
import datetime
import functools
import json
import math
import os
import random
import struct
import types
from unittest import mock

from fault_support import outcome
from support import Column, DatabaseTest, JSONDatatable, module, optional, unique, run_python


def plain_json():
    """json.dump and json.load behind another module object: the native writer and reader stand aside."""
    return mock.patch.object(module, "json", types.SimpleNamespace(dump=json.dump, load=json.load))


PATHS = (contextlib.nullcontext, plain_json)
ALPHABETS = ["abc xyz", 'a"\\\n\t\r\b\f\x00\x1f\x7f/', "aé\xff", "aあ\u2028", "a😀é\n\""]


def text(r):
    if r.random() < 0.1:
        return str(day(r))
    return "".join(r.choices(r.choice(ALPHABETS), k=r.choice([*range(27), 300])))


def number(r):
    return r.choice([
        lambda: r.randint(-9, 9), lambda: r.choice([1, -1]) * 10 ** r.randint(0, 40) + r.randint(-1, 1),
        lambda: struct.unpack("d", r.randbytes(8))[0],
        lambda: round(r.uniform(-1, 1) * 10 ** r.randint(0, 17), r.randint(0, 7)),
        lambda: r.choice([math.nan, math.inf, -math.inf, 0.0, -0.0, 5e-324, 1e16, 1e22, 123456789012345.])])()


def day(r):
    return datetime.date(2024, 1, r.randint(1, 3))


def word(r):
    return r.choice([None, True, False])


def plain_value(r, depth=0):
    """A value that the native writer knows."""
    simple = [
        text, text, number, number, word, lambda r: datetime.date.fromordinal(r.randint(1, 3652059)),
        lambda r: datetime.datetime(r.randint(1, 9999), 1, 2, 3, 4, r.choice([0, 59]), r.choice([0, 12000]))]
    if depth == 4 or r.random() < 0.75:
        return r.choice(simple)(r)
    values = [plain_value(r, depth + 1) for _ in range(r.randrange(4))]
    as_object = lambda values: {r.choice([text, number, word])(r): value for value in values}
    return r.choice([list, tuple, as_object])(values)


def nested(depth):
    return functools.reduce(lambda value, _: [value], range(depth), [])


def noting(asked, act=lambda: "asked"):
    """A value that notes each time that its str() is asked for, and then acts, as on what it lies in."""
    return mock.MagicMock(__str__=lambda _: asked.append(len(asked)) or act())


def odd_values(asked):
    """Beside the values above: what json.dump takes by its own rules, or refuses."""
    def changed(container, act):
        """The container, whose last item does that to it."""
        value = noting(asked, lambda: act(container) or "acted")
        container.update(z=value) if isinstance(container, dict) else container.append(value)
        return container

    text, whole, real, mute, signed, listed, mapped = (type("Sub", (base,), body) for base, body in (
        (str, {}), (int, dict(__str__=None, __repr__=None)), (float, {}), (float, {"__repr__": None}),
        (float, {"__hash__": None, "__eq__": lambda self, other: other < 0}),
        (list, {"__iter__": lambda self: iter(["own"] * (len(self) - 1))}),
        (dict, {"items": lambda self: self["items"]})))
    circular = [1]
    circular.append({"a": (circular,)})
    return [
        text("é"), text("é\udfff"), "é\udfff", {"a": "\ud800"}, noting(asked, lambda: "\ud800"), {1}, b"y",
        nested(150), nested(5000), circular, {(1, 2): 3}, {text("k"): 1}, {b"k": noting(asked)}, 10 ** 5000,
        mute(1.5), whole(8), {whole(7): real("-inf")},
        datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc),
        listed(), listed([1]), listed([1, 2, 3]), mapped(items=[("k", 1), ["l", noting(asked)]]),
        mapped(items=["k"]), mapped(items=[("k", 1), (1, 2, 3)]), signed(2), [signed("nan")],
        *([noting(asked), mock.Mock(spec=kind)] for kind in (str, int, float, list, dict)),
        {mock.Mock(spec=str): 1}, {mock.Mock(spec=float): 1}, noting(asked, lambda: text("sub")),
        noting(asked, lambda: None), [noting(asked), noting(asked, lambda: 1 / 0), noting(asked)],
        changed([1], list.clear), changed([1], lambda it: it.append(2)), changed({"a": 1}, dict.clear),
        changed([1], lambda it: it.append(it)), changed({"a": 1}, lambda it: it.update(b=2)),
        changed({"a": 1}, lambda it: it.update(a=it)), changed({"a": 1}, lambda it: it.update(b=it.pop("a")))]


class WritingAndReading(DatabaseTest):
    def make_table(self, seed, asked):
        r = random.Random(seed)
        columns = [Column(text(r), r.choice(["number", 5]), default=plain_value(r)) for _ in range(3)]
        rows = [[plain_value(r) for _ in range(r.choice([3, 0, 5]))] for _ in range(r.choice([9, 90]))]
        keys = r.choice([[text, number, word], [number, day], [text, lambda r: (b"k", number(r))]])
        index = {r.choice(keys)(r): [1, 2] for _ in range(r.randrange(9))}
        if seed % 2:
            rows[5].insert(0, odd_values(asked)[seed // 2])
        return module.Table(text(r), columns, [*rows, [None] * 3], {text(r): index})

    def test_random_documents(self):
        for seed in range(2 * len(odd_values([]))):
            outcomes = []
            for path in PATHS:
                asked = []
                self.db.tables = {"t": self.make_table(seed, asked)}
                self.write(b'{"tables": {}}')
                with path(), contextlib.redirect_stdout(None):
                    saved = outcome(self.db.save)[0], self.on_disk(), asked
                    self.db.tables = {}
                    loaded = outcome(self.db.load)[0], self.db.tables
                outcomes.append(repr((saved, loaded)))
            with self.subTest(seed=seed):
                # Not the whole of texts as long as these, which unittest would compare for minutes.
                same = len(os.path.commonprefix(outcomes))
                fast, plain = (shown[max(same - 60, 0):same + 60] for shown in outcomes)
                self.assertEqual(fast, plain)

    def test_many_rows(self):
        """Strings met before, and an index's keys that follow the rows or do not."""
        count = 40_000
        rows = [[f"key {i}" if i % 9 else f"schlüssel {i}", f"often {i % 50}", "é" * (i % 30), None, i / 7]
                for i in range(count)]
        in_order = {row[0]: [i] for i, row in enumerate(rows) if i % 70 or i > 30_000}
        indexes = {"a": in_order, "b": {}, "c": {f"key {i * 7919 % count}": [i] for i in range(0, count, 3)}}
        tables = {name: {"name": name, "columns": [], "rows": rows[:size], "indexes": indexes}
                  for name, size in (("t", count), ("u", 500))}
        self.write(json.dumps({"tables": tables}, ensure_ascii=False).encode())
        self.db.load()
        for name, table in self.db.tables.items():
            self.assertTrue(table.rows == tables[name]["rows"], "other rows")
            self.assertTrue(repr(table.indexes) == repr(indexes), "other indexes, or in another order")

    def test_error_of_the_path_comes_first(self):
        """The file is opened after the document was put together, and before anything is written."""
        table = self.table(optional("a"))
        for path in PATHS:
            for filename, error, written in (
                    (self.at("missing", "x"), FileNotFoundError, []), (self.folder, IsADirectoryError, []),
                    (-1, ValueError, []), (self.path, TypeError, [0])):
                with self.subTest(path=path.__name__, filename=filename), path():
                    asked, self.db.filename = [], filename
                    table.rows[:] = [[noting(asked)], [{(1, 2): 3}]]
                    with self.unchanged(error):
                        self.db.save()
                    self.assertEqual(asked, written)
                    with mock.patch.object(table, "columns", [object()]), self.unchanged(AttributeError):
                        self.db.save()


class Sorted(json.JSONEncoder):
    def __init__(self, **options):
        super().__init__(**{**options, "sort_keys": True})


class OtherPeoplesJson(DatabaseTest):
    def test_replaced_parts(self):
        nothing = lambda *_, **__: {"tables": {}}
        values = [1.25, math.inf, -math.inf, math.nan, "é", {"b": 1, "a": 2}]
        self.table(optional("a")).rows.append(values)
        self.db.save()
        document, tables = self.read(), self.db.tables

        def saved_and_loaded():
            self.db.tables = tables
            self.db.save()
            saved = self.read()
            self.write(document)
            self.db.load()
            return saved, repr(self.db.tables)

        usual = saved_and_loaded()
        self.assertIs(self.db.tables["t"].rows[0][3], json.decoder.NaN)
        for where, name, stand_in in (
                (json, "dump", lambda document, file, **_: file.write("[]")), (json, "JSONEncoder", Sorted),
                (json.JSONEncoder, "item_separator", ","), (json.JSONEncoder, "key_separator", ":"),
                (json.JSONEncoder, "iterencode", lambda *_: ["{", "}"]), (json.encoder, "INFINITY", -1.0),
                (json.encoder, "encode_basestring", json.encoder.encode_basestring_ascii),
                (json.encoder, "float", types.SimpleNamespace(__repr__="{:.1f}".format)),
                (json.encoder, "_make_iterencode", lambda *_: lambda *_: ["own"]),
                (json, "load", nothing), (json, "loads", nothing), (json.JSONDecoder, "decode", nothing),
                (json.JSONDecoder, "raw_decode", lambda _, read, **__: (nothing(), len(read))),
                (json, "_default_decoder", json.JSONDecoder(parse_int=str)),
                (json._default_decoder, "scan_once", json.JSONDecoder(parse_constant=str).scan_once),
                (json._default_decoder, "scan_once", json.JSONDecoder(parse_float=str).scan_once)):
            with self.subTest(name), mock.patch.object(where, name, stand_in, create=True):
                fast = saved_and_loaded()
                with plain_json():
                    self.assertEqual(fast, saved_and_loaded())
                self.assertNotEqual(fast, usual)
        with mock.patch.dict(json.decoder._CONSTANTS, {"NaN": None}):
            self.assertIn("[[1.25, inf, -inf, None,", saved_and_loaded()[1])

    def test_replaced_before_the_import(self):
        self.assertEqual(run_python("""
            import json
            dump, load = json.dump, json.load
            json.dump = lambda *args, **names: (print("dump"), dump(*args, **names))
            json.load = lambda *args, **names: (print("load"), load(*args, **names))[1]
            from talvern_client.utils.json_database import JSONDatatable
            JSONDatatable("x.json").save()
            JSONDatatable("x.json")
        """, self.folder), ["dump", "load"])


class Slow(JSONDatatable):
    def _row_to_dict(self, *args):
        return super()._row_to_dict(*args)


class Remembered(DatabaseTest):
    """What the fast paths remember of records and methods must not outlive it."""
    def call_all(self):
        calls = [("get_row", "t", 0), ("select", "t"), ("select", "t", {"a": 1}), ("select", "t", {"b": 2}),
                 ("select", "t", {"b": math.nan}), ("select", "t", {"b": 3, "no column": None}, ["b", "b"]),
                 ("_row_to_dict", self.db.tables.get("t"), [1, 2, 3])]
        return [outcome(getattr(self.db, method), *args)[0] for method, *args in calls]

    def test_changes_between_calls(self):
        class Late:
            def __get__(self, *_):
                return "late"

        table = lambda: self.db.tables["t"]
        changes = [
            lambda: None, lambda: vars(table()).pop("rows"),
            lambda: setattr(table(), "columns", tuple(table().columns)),
            lambda: setattr(table().columns[1], "__class__", type("Other", (), {"name": "other"})),
            lambda: self.db.tables.clear(), lambda: setattr(self.db, "_row_to_dict", lambda *_: {"x": 1}),
            lambda: patched(module.Table, "rows", property(lambda _: [[5, 6]])),
            lambda: (patched(module.Column, "name", Late()), self.call_all(), patched(Late, "__set__", None)),
            lambda: patched(JSONDatatable, "_row_to_dict", lambda *_: {"y": 1}),
            lambda: patched(JSONDatatable._row_to_dict, "__defaults__", (["b"],))]

        def patched(*args):
            patches.enter_context(mock.patch.object(*args, create=not hasattr(*args[:2])))

        for number, change in enumerate(changes):
            with self.subTest(number=number), contextlib.ExitStack() as patches:
                self.db = JSONDatatable(self.at(f"{number}.json"))
                self.table(unique("a", "number"), optional("b"), optional("b"))
                self.db.tables["t"].rows += [[1, 2, 3], [2, math.nan, math.nan]]
                self.db._build_indexes("t")
                self.call_all()
                change()
                fast = self.call_all()
                self.db = copy.deepcopy(self.db)  # with records of its own, of which nothing is remembered
                self.db.__class__ = Slow
                self.assertEqual(fast, self.call_all())

    def test_value_that_is_gone_within_a_scan(self):
        """A condition's value that the scan is the last to hold changes the table when it goes."""
        class Last:
            def __ne__(self, other):
                wanted["a"] = 5
                return True

            def __del__(self):
                table.columns[0].name = "z"
                db.get_row("t", 0)

        db, table = self.db, self.table(optional("a"), optional("b"))
        table.rows = [[number, "x"] for number in range(200)]
        wanted = {"a": Last(), "b": "x"}
        self.assertEqual(db.select("t", wanted), [])
