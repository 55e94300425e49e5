"""Comparisons that change what is being read, and the printed table."""

import contextlib
import gc
import io
import itertools
import unittest
from unittest import mock

from support import DatabaseTest, JSONDatatable, module, optional, unique


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
        lambda db, *_: db.insert("t", {"u": Hostile("x")}),
        lambda db, *_: db.update("t", 1, {"u": Hostile("x")}),
        lambda db, *_: db.delete("t", 1),
        lambda db, *_: db.clear_table("t"),
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
    def test_exact_text_from_the_print_of_the_import(self):
        self.table(optional("id"), optional("name"), rows=[(1, "日本"), (2, "Bob Stone"), (3, "gone")])
        self.db.delete("t", 2)
        with mock.patch("builtins.print") as late, mock.patch.object(module, "print", late, create=True), \
                contextlib.redirect_stdout(io.StringIO()) as output:
            self.db.display_table("t")
        late.assert_not_called()
        self.assertEqual(output.getvalue(), "\nid | name     \n--------------\n1  | 日本       \n2  | Bob Stone\n\n"
                                            "Showing 2 of 2 rows\n\n")


if __name__ == "__main__":
    unittest.main()
