"""The guide's tables of errors: each example raises what its line says, and leaves what its section says."""

import ast
import contextlib
import io
import json
import os
import pathlib
import re
import sys
import tempfile
import unittest

from support import DatabaseTest, JSONDatatable

GUIDE = (pathlib.Path(__file__).resolve().parent.parent / "docs/guide.md").read_text()
SOUND = {"code": "TE-990", "name": "Tea"}


def section(title):
    return re.search(rf"^### {title}\n(.*?)^#", GUIDE, re.MULTILINE | re.DOTALL)[1]


def lines(title):
    """(example, class, words) of each line of the section's table."""
    return re.findall(r"^\| `?(.+?)`? \| `([\w.]+)` \| `(.+?)` \|$", section(title), re.MULTILINE)


class ErrorTables(DatabaseTest):
    def new_folder(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(folder.name)
        self.folder = folder.name
        self.path = self.at("shop.json")

    def run_program(self):
        """The names of the guide's program, run up to the tables in a new folder."""
        self.new_folder()
        names = {"json": json, "re": re}
        with contextlib.redirect_stdout(io.StringIO()):
            for block in re.findall(r"^```python\n(.*?)^```$", GUIDE.split("\n## Errors\n")[0], re.MULTILINE | re.DOTALL):
                exec(block, names)
        self.db = names["db"]
        return names

    @contextlib.contextmanager
    def said(self, kind, words):
        with self.assertRaises(Exception) as caught:
            yield
        self.assertIs(type(caught.exception), eval(kind))
        text = str(caught.exception)
        self.assertEqual(text[:len(words) - 3] + "..." if words.endswith("...") else text, words)

    def run_example(self, example, kind, words):
        """The state right before the example's last statement, which has to raise."""
        names = self.run_program()
        *before, last = ast.parse(example).body
        exec(compile(ast.Module(before, []), "<before>", "exec"), names)
        state = self.state()
        with self.said(kind, words):
            exec(compile(ast.Module([last], []), "<example>", "exec"), names)
        return state

    def test_refused(self):
        self.assertGreater(len(lines("Refused")), 20)
        for example, kind, words in lines("Refused"):
            with self.subTest(example):
                before = self.run_example(example, kind, words)
                self.assertEqual(self.state(), before)
                self.db.insert("items", SOUND)

    def test_failed_write(self):
        self.assertGreater(len(lines("Failed write")), 5)
        for example, kind, words in lines("Failed write"):
            with self.subTest(example):
                if "4300" in example and not hasattr(sys, "get_int_max_str_digits"):
                    self.skipTest("this interpreter writes integers of any length")
                on_disk, tables = self.run_example(example, kind, words)
                with self.assertRaises(eval(kind)):
                    self.db.insert("items", SOUND)
                self.assertEqual(self.state()[0], on_disk)
                self.assertNotEqual(self.state()[1], tables)
                self.db.filename = "shop.json"
                self.db.load()
                self.db.insert("items", SOUND)

    def test_unreadable_file(self):
        self.assertGreater(len(lines("Unreadable file")), 4)
        for content, kind, words in lines("Unreadable file"):
            with self.subTest(content):
                self.new_folder()
                if content == "a folder":
                    os.mkdir("shop.json")
                else:
                    text = "" if content == "empty" else content.encode().decode("unicode_escape")
                    pathlib.Path("shop.json").write_bytes(text.encode("latin-1"))
                printed = io.StringIO()
                with contextlib.redirect_stdout(printed), self.said(kind, words):
                    JSONDatatable("shop.json")
                self.assertEqual(printed.getvalue(), f"Error loading database: {words}\n")


if __name__ == "__main__":
    unittest.main()
