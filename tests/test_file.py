"""The database file: wrong contents, read by the module and by the model; names rebound by others."""

import builtins
import contextlib
import gc
import io
import itertools
import json
import os
import random
import signal
from unittest import mock

from fault_support import LONG, PATH, FaultTest, fresh, outcome, read, reset, saved
import model
from support import DatabaseTest, JSONDatatable, module, optional

TOKENS = [token.encode() for token in (
    '{ } [ ] : , null true nul NaN -Infinity - -0 01 1e999 1E5 1.5e-7 .5 1. "a" "tables" "rows" "name" '
    '"\\ud800" "\\ud83d\\ude00" "\\ud83d\\u0041" "\\u12" "\\x" " \\ / \\u0041 \x00 \x7f \u2028').split(" ")]
TOKENS += [b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xef\xbb\xbf", b"\n", b"\t", b'"\t"', b"\r\n"]
TOKENS += [b'"\\ud83ddc00"', b"5e5_0", b"[[[[", b"}}}}", b"7" * 4300, b"7" * 4301, b"-" + b"9" * 20]
LONG_TOKENS = [b"[" * 10 ** 5, b"[" * 400, b'{"":' * 10 ** 5, b'"' + b"x" * 10 ** 7 + b'"',
               b"-" + b"9" * 4301, b"1e" + b"9" * 400, b'{"a": 1, "b": 2, "a": 3}']
WRAPPED = b'{"tables": {"t": {"name": "t", "columns": [{"name": "a", "data_type": "x"}], "rows": [[%b]]}}}'
SHAPELESS = (None, 2.5, "k", [], {}, [1], {"a": [0]}, [[1, "a"], [None]], {"name": "k", "data_type": "x"})


def other_bytes(content, chosen):
    for place in range(0, len(content), 1 if LONG else 3):
        yield content[:place]
        repeated = content[place - 9:place + 1]
        for other in (b"", b"\xff", bytes([content[place] ^ 1]), repeated, chosen.choice(TOKENS)):
            yield content[:place] + other + content[place + 1:]
    for token in TOKENS + LONG_TOKENS:
        yield token
        yield WRAPPED % token


def other_shape(content, chosen):
    document = json.loads(content)
    node, key = {"document": document}, "document"
    while node[key] and isinstance(node[key], (dict, list)) and chosen.random() < 0.7:
        node = node[key]
        key = chosen.choice(list(node) if isinstance(node, dict) else range(len(node)))
    node[key] = chosen.choice(SHAPELESS)
    return json.dumps(document).encode()


def loaded(database):
    """What a load does, and what it leaves for the calls that follow."""
    db = database("missing.json")
    db.filename, db.tables = PATH, {"old": model.Table("old", [])}
    with contextlib.redirect_stdout(io.StringIO()) as output:
        got, error = outcome(db.load)
    tables = [(name, table.name, [vars(column) for column in table.columns], table.rows, table.indexes)
              for name, table in db.tables.items()]
    seen = [got, str(error), output.getvalue(), repr(tables)]
    db.save = lambda: None
    for name, *values in (("select", {"k": 2}), ("select", {"o": 1.5, "s": "b"}), ("update", 0, {"s": "d"}),
                          ("insert", {"k": 8, "u": "p"})):
        seen.append(outcome(getattr(db, name), "t", *values)[0])
    return seen


def wrong_files(cases, count):
    reset(b"")
    content, chosen = saved(fresh()), random.Random(6)
    other_shapes = (other_shape(content, chosen) for _ in range(count))
    for number, changed in enumerate(itertools.chain(other_bytes(content, chosen), other_shapes)):
        reset(changed)
        with cases(number, changed[:1000]):
            for came, expected in zip(loaded(JSONDatatable), loaded(model.JSONDatatable)):
                cases.assertEqual(came, expected)
            cases.assertEqual(read(), changed)


class Files(FaultTest):
    def test_bad_files(self):
        self.in_child(wrong_files, 40000 if LONG else 300, least=40000 if LONG else 2000)


class SavingAndLoading(DatabaseTest):
    def test_torn_writing_leaves_the_file(self):
        self.table(optional("a"), rows=["é"])
        with mock.patch.object(json, "dump", lambda document, file, **_: file.write("é") // 0), \
                self.unchanged(ZeroDivisionError):
            self.db.save()

    def test_table_is_printed_by_the_print_of_the_import(self):
        self.table(optional("name"), rows=[("日本",)])
        with mock.patch("builtins.print") as late, mock.patch.object(module, "print", late, create=True), \
                contextlib.redirect_stdout(io.StringIO()) as output:
            self.db.display_table("t")
        late.assert_not_called()
        self.assertEqual(output.getvalue(), "\nname\n----\n日本  \n\nShowing 1 of 1 rows\n\n")

    def test_open(self):
        for where in (module, builtins):
            with mock.patch.object(where, "open", mock.Mock(side_effect=open), create=True) as opened:
                self.table(name=where.__name__)
                JSONDatatable(self.path)
            calls = [mock.call(self.path, mode, encoding="utf-8") for mode in "wr"]
            self.assertEqual(opened.mock_calls, calls)

    def test_new_file_of_another_save(self):
        """It may stand where this save's own was removed, and is not taken for it."""
        def replace(_):
            name, = {*os.listdir(self.folder)} - {"database.json", "half"}
            os.replace(self.at("half"), self.at(name))
            return "text"

        self.write(b"half", self.at("half"))
        self.table(optional("a")).rows.append([mock.MagicMock(__str__=replace)])
        self.assertRaises(FileNotFoundError, self.db.save)
        self.assertNotEqual(self.read(), b"half")

    def test_deleted_rows_of_rows_that_are_no_list(self):
        self.table(optional("k")).rows = ([None], [1])
        self.db.save()
        self.assertEqual(json.loads(self.read())["tables"]["t"]["rows"], [[1]])

    def test_collector_pauses_for_the_parse_alone(self):
        """Python code finds it as it was: in a record's class, in a signal's handler, and afterwards."""
        self.addCleanup(gc.enable)
        self.table(optional("a")).rows += [[number, str(number)] for number in range(400_000)]
        self.db.save()
        found = []
        handler = signal.signal(signal.SIGALRM, lambda *_: found.append(gc.isenabled()))
        self.addCleanup(signal.signal, signal.SIGALRM, handler)
        for switch in (gc.disable, gc.enable):
            found.clear()
            switch()
            signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
            with mock.patch.object(module, "Table", lambda **_: found.append(gc.isenabled())):
                self.db.load()
            signal.setitimer(signal.ITIMER_REAL, 0)
            self.assertGreater(len(found), 2)
            self.assertEqual({*found, gc.isenabled()}, {switch is gc.enable})
