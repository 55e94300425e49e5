"""Each operation as its user would try it: what it returns, what a refusal says, what the file then holds.

Read this file first, and begin a test of your own as a copy of one of these. `unchanged` is for a call that
must raise this error and leave tables and file as they were.
"""

import contextlib
import io
import json

from support import Column, DatabaseTest, JSONDatatable


class Examples(DatabaseTest):
    def setUp(self):
        super().setUp()  # gives self.path, a file that is not there yet, and self.db, its database
        self.db.create_table("people", [
            Column("email", "text", unique=True),
            Column("age", "number", required=False),
            Column("born", "date", required=False),
        ])
        self.db.insert("people", {"email": "ann@x.org", "age": "42", "born": "1982-03-15"})
        self.db.insert("people", {"email": "bob@x.org"})

    def rows_in_file(self):
        with open(self.path, encoding="utf-8") as file:
            return json.load(file)["tables"]["people"]["rows"]

    def test_create_table(self):
        self.assertIs(self.db.create_table("pets", [Column("name", "text")]), True)
        self.assertEqual(list(self.db.tables), ["people", "pets"])
        with self.unchanged(ValueError, "Table 'people' already exists"):
            self.db.create_table("people", [])

    def test_insert(self):
        self.assertEqual(self.db.insert("people", {"age": 4.5, "email": "eve@x.org"}), 2)
        self.assertEqual(self.rows_in_file()[2], ["eve@x.org", 4.5, None])
        with self.unchanged(ValueError, "Column 'email' is required"):
            self.db.insert("people", {"age": 1})
        with self.unchanged(ValueError, "Duplicate value for unique column 'email'"):
            self.db.insert("people", {"email": "ann@x.org"})
        with self.unchanged(ValueError, "Invalid number value for column 'age'"):
            self.db.insert("people", {"email": "eva@x.org", "age": "four"})
        with self.unchanged(ValueError, "Table 'nope' does not exist"):
            self.db.insert("nope", {})
        with self.unchanged(TypeError, "Argument 'data' has incorrect type (expected dict, got list)"):
            self.db.insert("people", ["eva@x.org"])

    def test_update_replaces_the_whole_row(self):
        self.assertIs(self.db.update("people", 0, {"email": "ann@y.org"}), True)
        self.assertEqual(self.rows_in_file(), [["ann@y.org", None, None], ["bob@x.org", None, None]])
        with self.unchanged(IndexError, "Row index 2 out of range"):
            self.db.update("people", 2, {"email": "eve@x.org"})

    def test_delete(self):
        self.assertIs(self.db.delete("people", 0), True)
        self.assertEqual(self.rows_in_file(), [["bob@x.org", None, None]])
        self.assertEqual(self.db.insert("people", {"email": "ann@x.org"}), 2)  # no other row's id has changed
        with self.unchanged(ValueError, "Row has been deleted"):
            self.db.get_row("people", 0)
        with self.unchanged(IndexError, "Row index out of range"):
            self.db.delete("people", 3)

    def test_clear_table(self):
        self.assertIs(self.db.clear_table("people"), True)
        self.assertEqual(self.db.select("people"), [])
        self.assertEqual(self.rows_in_file(), [])
        self.assertEqual(self.db.insert("people", {"email": "eve@x.org"}), 2)

    def test_get_row(self):
        self.assertEqual(self.db.get_row("people", 1), {"email": "bob@x.org", "age": None, "born": None})
        with self.unchanged(IndexError, "Row index (2) out of range"):
            self.db.get_row("people", 2)

    def test_select(self):
        self.assertEqual(self.db.select("people", columns=["age", "email"]),
                         [{"age": 42, "email": "ann@x.org"}, {"age": None, "email": "bob@x.org"}])
        self.assertEqual(self.db.select("people", {"email": "bob@x.org"}, ["age"]), [{"age": None}])
        self.assertEqual(self.db.select("people", {"age": 42, "email": "bob@x.org"}), [])
        self.assertEqual(self.db.select("people", columns=["email"], limit=1), [{"email": "ann@x.org"}])

    def test_limits_below_one(self):
        """0 stands for all. A negative one cuts the end off what an index gives; a scan ends after a row."""
        self.db._build_index("people", "born")
        self.db.insert("people", {"email": "eve@x.org"})
        for limit, found in (0, 2), (-1, 1), (-2, 0):
            self.assertEqual(len(self.db.select("people", {"born": None}, limit=limit)), found)
        self.assertEqual([len(self.db.select("people", limit=limit)) for limit in (0, -1)], [3, 1])

    def test_load_closes_gaps_and_gives_dates_as_strings(self):
        self.db.insert("people", {"email": "eve@x.org", "born": "2001-01-01"})
        self.db.delete("people", 0)
        again = JSONDatatable(self.path)
        self.assertEqual([list(row.values()) for row in again.select("people")],
                         [["bob@x.org", None, None], ["eve@x.org", None, "2001-01-01"]])
        self.assertEqual(again.select("people", {"email": "eve@x.org"}, ["born"]), [{"born": "2001-01-01"}])

    def test_display_table(self):
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            self.db.display_table("people", limit=1)
            self.db.display_table("nope")
        self.assertEqual(printed.getvalue(), (
            "\nemail     | age | born      \n"
            "----------------------------\n"
            "ann@x.org | 42  | 1982-03-15\n"
            "\nShowing 1 of 2 rows\n\n"
            "Table 'nope' does not exist\n"))
