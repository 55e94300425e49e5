"""Includes run one way: module, then the four topics side by side, then tables, then cpython310, then host."""

import pathlib
import re
import unittest

SOURCES = pathlib.Path(__file__).resolve().parent.parent / "src"
BELOW = {"host": set(), "cpython310": {"host"}, "tables": {"cpython310", "host"}}
BELOW.update(dict.fromkeys(("display", "query", "persistence", "store"), {"tables", "cpython310", "host"}))
BELOW["module"] = set(BELOW)


class Includes(unittest.TestCase):
    def test_arrows(self):
        wrong = []
        for file in sorted(SOURCES.glob("**/*.[ch]*")):
            folder = file.parent.name
            for target in re.findall(r'^\s*#\s*include\s+[<"]([^>"]+)', file.read_text(), re.MULTILINE):
                place = file.parent / target if (file.parent / target).exists() else SOURCES / target
                inner = place.exists() and place.resolve().parent.name
                allowed = not inner or inner in BELOW[folder] or inner == folder
                if inner == "store" == folder:
                    allowed = place.stem == file.stem
                if not allowed or (target.endswith("Python.h") and (folder, file.name) != ("host", "python.h")):
                    wrong.append(f"{file.relative_to(SOURCES)} -> {target}")
        self.assertTrue(BELOW.keys() <= {path.name for path in SOURCES.iterdir()})
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
