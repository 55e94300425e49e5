"""Files with wrong contents, read by the module and by the model."""

import contextlib
import io
import itertools
import json
import random

import model
from fault_support import LONG, PATH, FaultTest, fresh, outcome, read, reset, saved
from support import JSONDatatable

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


class BadFiles(FaultTest):
    def test_wrong_contents(self):
        self.in_child(wrong_files, 40000 if LONG else 300, least=40000 if LONG else 2000)
