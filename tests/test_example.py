"""The example runs as a program of its own, in an empty folder and again, and prints what the README shows."""

import pathlib
import re

from support import DatabaseTest, run_python

ROOT = pathlib.Path(__file__).resolve().parent.parent


class Example(DatabaseTest):
    def test_output(self):
        shown, = re.findall(r"^```text\n(.*?)\n```$", (ROOT / "README.md").read_text(), re.MULTILINE | re.DOTALL)
        first, again = (run_python((ROOT / "examples/inventory.py").read_text(), self.folder) for _ in range(2))
        self.assertEqual([line.rstrip() for line in first], [*shown.split("\n"), ""])
        self.assertEqual(again[-len(shown.split("\n")) + 1:], first[2:])
