"""Indexes follow the rows in place, whatever the columns are called and whatever Python code does."""

import gc
import sys
from unittest import mock

from support import DatabaseTest, JSONDatatable, module, optional, unique


class Indexes(DatabaseTest):
    def test_an_index_stays_the_same_object(self):
        table = self.table(unique("k"), rows=["a"])
        index = table.indexes["k"]
        for value in ("b", ("c", 1), b"d", frozenset("e")):
            self.db.insert("t", {"k": value})
        self.db.update("t", 0, {"k": ("f",)})
        self.db.delete("t", 1)
        with self.assertRaises(TypeError):
            self.db.update("t", 2, {"k": ["unhashable"]})
        self.assertIs(table.indexes["k"], index)
        self.assertEqual(index, {("f",): [0], ("c", 1): [2], b"d": [3], frozenset("e"): [4]})

    def test_rows_replaced_while_a_row_is_validated(self):
        """As by a program that tidies the stored rows whenever one is validated."""
        def tidy(*args, **keywords):
            table.rows[:] = [[str(value).strip() for value in row] for row in table.rows]
            return JSONDatatable._validate_row(self.db, *args, **keywords)

        table = self.table(unique("k"), optional("n", validation_pattern="[a-z]$"))
        self.db._validate_row = tidy
        for new_value, key in (("z", "x"), ("BAD", "a")):
            table.rows[:] = [[" a ", "p"], [" b ", "q"]]
            self.db._build_indexes("t")
            with self.subTest(new_value):
                if new_value == "BAD":
                    self.assertRaises(ValueError, self.db.update, "t", 0, {"k": "x", "n": "BAD"})
                else:
                    self.db.update("t", 0, {"k": "x", "n": "z"})
                self.assertEqual([len(self.db.select("t", {"k": found})) for found in (key, "b")], [1, 1])

    def test_an_undo_that_fails_leaves_the_rebuild_to_the_next_use(self):
        table = self.table(unique("k"), optional("n", validation_pattern="[a-z]$"))
        key = mock.MagicMock()
        key.__hash__.return_value = 1
        self.db.save = lambda: None
        self.db.insert("t", {"k": key, "n": "a"})
        key.__hash__.side_effect = 1, 1, ZeroDivisionError  # the withdrawal asks twice
        with self.raises(ValueError, "Value for column 'n' doesn't match validation pattern"):
            self.db.update("t", 0, {"k": "x", "n": "BAD"})
        key.__hash__.side_effect = None
        self.assertEqual(self.db.select("t", {"k": key}), [{"k": key, "n": "a"}])
        self.assertEqual(table.indexes, {"k": {key: [0]}})

    def test_a_failed_insert_into_rows_that_are_no_list(self):
        self.table(optional("k")).rows = ({"a": 1},)
        with mock.patch.object(sys, "unraisablehook") as unraisable, self.raises(AttributeError):
            self.db.insert("t", {"k": 1})
        unraisable.assert_not_called()

    def test_what_was_built_stays_whatever_ends_it(self):
        for error in (TypeError, MemoryError, KeyboardInterrupt):
            refusing = mock.MagicMock(__hash__=mock.Mock(side_effect=error("refused")))
            with self.subTest(error):
                table = module.Table("t", [unique("a"), unique("b")], [["x", "y"], [refusing, "z"]])
                self.db.tables = {"t": table}
                with self.raises(error, "refused"):
                    self.db._build_indexes("t")
                self.assertEqual(table.indexes, {"a": {"x": [0]}})


class RowDictionaries(DatabaseTest):
    def test_columns_of_any_name(self):
        names = ["__class__", "__dict__", "__weakref__", "__slots__", "", "plain"]
        row = dict(zip(names, range(6)))
        self.table(*map(optional, names)).rows = [[*range(6)]] * 100
        self.assertEqual(self.db.select("t"), [row] * 100)
        found = self.db.select("t", None, ["__class__", "plain"])
        self.assertEqual(found, [{"__class__": 0, "plain": 5}] * 100)
        gc.collect()
        for columns in ([""], ["__dict__", "plain"], ["plain", "__dict__"]):
            self.db.select("t", None, columns)
        self.assertEqual(gc.collect(), 0)

    def test_each_is_its_own(self):
        """They share a table of keys, which a change of one must not show in the others."""
        self.table(optional("a"), optional("b")).rows = [[number, [number]] for number in range(100)]
        rows = self.db.select("t")
        self.assertTrue(all(map(gc.is_tracked, rows)))
        rows[50]["c"] = rows[51][5] = 1
        del rows[52]["a"]
        rows[53].clear()
        expected = [{"a": number, "b": [number]} for number in range(100)]
        self.assertEqual(rows[:50] + rows[54:], expected[:50] + expected[54:])
        self.assertEqual(rows[50:54], [{**expected[50], "c": 1}, {**expected[51], 5: 1}, {"b": [52]}, {}])
        self.assertEqual(self.db.select("t"), expected)
