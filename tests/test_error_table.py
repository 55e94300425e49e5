"""The guide's tables of errors: each example raises what its line says, and leaves what its section says."""

import contextlib
import io
import json
import os
import pathlib
import re
import sys

from support import DatabaseTest, JSONDatatable

GUIDE = (pathlib.Path(__file__).resolve().parent.parent / "docs/guide.md").read_text()
BLOCKS = re.compile(r"^```python\n(.*?)^```$", re.MULTILINE | re.DOTALL)
PROGRAM = "".join(BLOCKS.findall(GUIDE.split("\n## Errors\n")[0]))


class ErrorTables(DatabaseTest):
    def lines(self, title, least):
        """(example, class, words) of each line of the section's table, each for an empty folder."""
        section = re.search(rf"^### {title}\n(.*?)^#", GUIDE, re.MULTILINE | re.DOTALL)[1]
        found = re.findall(r"^\| `?(.+?)`? \| `([\w.]+)` \| `(.+?)` \|$", section, re.MULTILINE)
        self.assertGreaterEqual(len(found), least)
        self.addCleanup(os.chdir, os.getcwd())
        for line in found:
            self.setUp()
            os.chdir(self.folder)
            yield line

    @contextlib.contextmanager
    def said(self, kind, words):
        with self.raises(eval(kind, {"json": json, "re": re})) as caught:
            yield
        said = str(caught.exception)
        self.assertEqual(said[:len(words) - 3] + "..." if words.endswith("...") else said, words)

    def run_example(self, example, kind, words):
        """Runs it after the guide's program; its last statement has to raise. The state right before that."""
        names, (before, _, last) = {}, example.rpartition("; ")
        with contextlib.redirect_stdout(None):
            exec(PROGRAM + before, names)
        self.db, self.path = names["db"], "shop.json"
        state = self.state()
        with self.said(kind, words):
            exec(last, names)
        return state

    def test_refused(self):
        for line in self.lines("Refused", 21):
            self.assertEqual(self.run_example(*line), self.state())
            self.db.insert("items", {"code": "TE-990", "name": "Tea"})

    def test_failed_write(self):
        for example, kind, words in self.lines("Failed write", 6):
            if "4300" in example and not hasattr(sys, "get_int_max_str_digits"):
                continue  # this interpreter writes integers of any length
            on_disk, tables = self.run_example(example, kind, words)
            self.assertEqual(self.state()[0], on_disk)
            self.assertNotEqual(self.state()[1], tables)
            self.db.filename = "shop.json"
            self.db.load()
            self.db.insert("items", {"code": "TE-990", "name": "Tea"})

    def test_unreadable_file(self):
        for content, kind, words in self.lines("Unreadable file", 5):
            if content == "a folder":
                os.mkdir("shop.json")
            else:
                text = "" if content == "empty" else content.encode().decode("unicode_escape")
                self.write(text.encode("latin-1"), "shop.json")
            with contextlib.redirect_stdout(io.StringIO()) as printed, self.said(kind, words):
                JSONDatatable("shop.json")
            self.assertEqual(printed.getvalue(), f"Error loading database: {words}\n")
