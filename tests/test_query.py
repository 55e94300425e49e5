"""Reading rows by index and by scan, comparisons that change what is being read, and the printed table."""

import contextlib
import datetime
import gc
import io
import itertools
import unittest
from unittest import mock

from support import DatabaseTest, JSONDatatable, module, optional, unique


class Select(DatabaseTest):
    def ids(self, *args, **keywords):
        return [row["id"] for row in self.db.select("t", *args, **keywords)]

    def test_limits_and_order(self):
        self.table(optional("g"), optional("id"), rows=[("x", 1), ("x", 2), ("x", 3), ("y", 4), ("x", 5)])
        self.db._build_index("t", "g")
        self.db.update("t", 1, {"g": "x", "id": 2})
        self.db.delete("t", 2)
        for limit, indexed, scanned in (
                (None, [1, 5, 2], [1, 2, 5]), (0, [1, 5, 2], [1, 2, 5]), (2, [1, 5], [1, 2]), (-1, [1, 5], [1]),
                (-9, [], [1]), (2 ** 70, [1, 5, 2], [1, 2, 5]), (-2 ** 70, [], [1])):
            with self.subTest(limit=limit):
                self.assertEqual(self.ids({"g": "x"}, limit=limit), indexed)
                self.assertEqual(self.ids({"g": "x", "zz": None}, limit=limit), scanned)
        wanted = ["id", "zz", "g", "id"]
        self.assertEqual([list(row) for row in self.db.select("t", {"g": "y"}, wanted)], [["g", "id"]])
        self.assertEqual([list(row) for row in self.db.select("t", {"id": 4}, wanted)], [["id", "g"]])


class Hostile(str):
    __hash__ = str.__hash__
    pending = []

    def __eq__(self, other):
        if self.pending and (act := self.pending.pop()):
            act()
            gc.collect()
        return False

    __ne__ = __eq__


class ChangedWhileRead(DatabaseTest):
    """Comparisons may run any code; whatever they take away, the walk around them must not touch freed memory."""

    USES = [
        lambda db, conditions, names: db.select("t", conditions, names),
        lambda db, conditions, names: db.select("t", {"u": Hostile("x")}, names),
        lambda db, conditions, names: db._row_to_dict(db.tables["t"], db.tables["t"].rows[0], names),
        lambda db, conditions, names: db._dict_to_row_id(db.tables["t"], conditions),
        lambda db, conditions, names: db.insert("t", {"u": Hostile("x")}),
        lambda db, conditions, names: db.update("t", 1, {"u": Hostile("x")}),
        lambda db, conditions, names: db.delete("t", 1),
        lambda db, conditions, names: db.clear_table("t"),
    ]

    def test_every_use_survives(self):
        for use, victim, comparison in itertools.product(self.USES, range(13), range(4)):
            Hostile.pending = []
            db = JSONDatatable(self.path)
            table = db.tables["t"] = module.Table("t", [optional("n"), unique("u"), optional(Hostile("z"))], [
                [Hostile("a"), "x", 1], [Hostile("b"), Hostile("y"), 2], ["c", "z", 3]])
            conditions, names = {"n": Hostile("a"), "zz": 1}, [Hostile("n"), "z"]
            db._build_indexes("t")
            db.save = lambda: None
            owned = [table.rows, *table.rows, table.columns, table.indexes, table.indexes["u"], table.indexes["u"]["x"],
                     db.tables, conditions, names, vars(db)]
            spoil = [each.clear for each in owned] + [lambda: vars(table).update(rows=[], columns=[], indexes={})]
            Hostile.pending = [spoil[victim]] + [None] * comparison
            with contextlib.suppress(Exception), mock.patch("sys.unraisablehook"):
                use(db, conditions, names)


class Display(DatabaseTest):
    def shown(self, *args, **keywords):
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.assertIsNone(self.db.display_table(*args, **keywords))
        return output.getvalue()

    def test_exact_text(self):
        self.table(optional("id"), optional("name"), rows=[(1, "Ann"), (2, "Bob Stone"), (3, "gone")])
        self.db.delete("t", 2)
        self.assertEqual(self.shown("t"), "\nid | name     \n--------------\n1  | Ann      \n2  | Bob Stone\n\n"
                                          "Showing 2 of 2 rows\n\n")
        self.table(optional("ä"), rows=[("日本語",), (datetime.date(2024, 3, 5),), (False,)], name="one")
        self.assertEqual(self.shown("one", limit=-3), "\nä  \n---\n日本語\n\nShowing 1 of 3 rows\n\n")
        self.assertEqual(self.shown("one", 0), "\nä         \n----------\n日本語       \n2024-03-05\nFalse     \n\n"
                                               "Showing 3 of 3 rows\n\n")
        self.table(optional("a"), optional("b"), rows=[("two\nlines",)], name="two")
        self.assertEqual(self.shown("two"), "\na         | b   \n----------------\ntwo\nlines | None\n\nShowing 1 of 1 rows\n\n")
        self.table(name="bare", rows=[()])
        self.assertEqual(self.shown("bare"), "Table has no columns\n")

    def test_print_is_the_one_of_the_import(self):
        with mock.patch("builtins.print") as late, mock.patch.object(module, "print", late, create=True):
            self.assertEqual(self.shown("no"), "Table 'no' does not exist\n")
        late.assert_not_called()


if __name__ == "__main__":
    unittest.main()
