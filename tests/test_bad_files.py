"""Files of the wrong contents, read by the module and by the model."""

import contextlib
import io
import json
import random
import re
import unittest

from fault_support import LONG, PATH, FaultTest, fresh, outcome, read, reset, saved
import model
from support import JSONDatatable
from test_hostile_objects import table
import test_fast_paths


TOKENS = [token.encode() for token in (
    "{ } [ ] : , null true nul NaN -Infinity - -0 01 1e999 1E5 1.5e-7 .5 1. \"a\" \"tables\" \"rows\" \"name\" "
    "\"\\ud800\" \"\\ud83d\\ude00\" \"\\u12\" \"\\x\" \" \\ / \\u0041 \x00 \x7f 5e5_0 \u2028 [[[[ }}}}").split(" ")]
TOKENS += [b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xef\xbb\xbf", b"\n", b"\t", b'"\t"', b"\r\n"]
TOKENS += [b"7" * 4300, b"7" * 4301]

SHAPELESS = (None, 1, True, 2.5, "k", [], {}, [1], {"a": [0]}, [[1, "a"], [None]],
             {"name": "k", "data_type": "number"})


def wrapped(value):
    columns = b'[{"name": "a", "data_type": "x"}]'
    return b'{"tables": {"t": {"name": "t", "columns": %b, "rows": [[%b]]}}}' % (columns, value)


def bad_files(content, count):
    chosen = random.Random(6)
    for place in range(0, len(content), 1 if LONG else 3):
        yield content[:place]
        for other in (b"", b"\xff", bytes([content[place] ^ 1])):
            yield content[:place] + other + content[place + 1:]
    for value in (b"[" * 10 ** 5, b"[" * 400, b'{"":' * 10 ** 5, b'"' + b"x" * 10 ** 7 + b'"',
                  b"-" + b"9" * 4301, b"1e" + b"9" * 400, b'{"a": 1, "b": 2, "a": 3}', *TOKENS):
        yield from (value, wrapped(value))
    pieces = re.findall(rb'"[^"]*"|[^"\s]|\s+', content)
    for _ in range(count):
        changed = list(pieces)
        for _ in range(chosen.randint(1, 3)):
            place = chosen.randrange(len(changed))
            until = place + chosen.choice((0, 1, 1, 1, 5, 40))
            changed[place:until] = chosen.choice(([chosen.choice(TOKENS)], changed[place:until] * 2, []))
        yield b"".join(changed)
        node = document = json.loads(content)
        while node:
            key = chosen.choice(list(node) if isinstance(node, dict) else range(len(node)))
            if not isinstance(node[key], (dict, list)) or not node[key] or chosen.random() < 0.3:
                node[key] = chosen.choice(SHAPELESS)
                break
            node = node[key]
        yield json.dumps(document).encode()
        values = [make(chosen) for make in (test_fast_paths.text, test_fast_paths.number) for _ in range(9)]
        yield wrapped(json.dumps(values, ensure_ascii=chosen.random() < 0.5).encode("utf-8", "surrogatepass"))


def loaded(database):
    db = database("missing.json")
    db.filename = PATH
    with contextlib.redirect_stdout(io.StringIO()) as output:
        got, error = outcome(db.load)
    tables = {name: (table.name, [vars(column) for column in table.columns], table.rows, table.indexes)
              for name, table in db.tables.items()}
    db.save = lambda: None
    calls = (("select", {"k": 2}), ("select", {"o": 1.5, "s": "b"}), ("update", 0, {"s": "d"}),
             ("insert", {"k": 8, "u": "p"}))
    after = [outcome(getattr(db, name), "t", *values)[0] for name, *values in calls]
    return got, str(error), output.getvalue(), repr(tables), after


def wrong_files(cases, count):
    reset(b"")
    for number, content in enumerate(bad_files(saved(fresh()), count)):
        reset(content)
        with cases(number, content[:1000]):
            ours, expected = loaded(JSONDatatable), loaded(model.Checked)
            for came, should in zip(ours, expected):
                assert came == should, f"{came} instead of {should}"
            assert read() == content


class Files(FaultTest):
    def test_bad_files(self):
        self.in_child(wrong_files, 15000 if LONG else 300, least=40000 if LONG else 2000)
