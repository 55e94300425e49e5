"""What the example prints, run as a program of its own in an empty folder that it leaves empty."""

import os
import pathlib
import unittest

from support import DatabaseTest, run_python

EXAMPLE = pathlib.Path(__file__).resolve().parent.parent / "examples" / "inventory.py"
PRINTED = """\
Refused: Duplicate value for unique column 'code'
Refused: Value for column 'code' doesn't match validation pattern
Refused: Invalid number value for column 'price'
Refused: Column 'name' is required
[{'code': 'TE-101', 'name': 'Green tea', 'stock': 38, 'price': 4.5, 'on_sale': True, 'counted': None}]
[{'name': 'Green tea', 'stock': 38}, {'name': 'Large mug', 'stock': 0}]

code   | name      | stock | price | on_sale | counted
---------------------------------------------------------
TE-101 | Green tea | 38    | 4.5   | True    | None
CO-201 | Coffee    | 12    | None  | False   | 2024-03-15
MU-302 | Large mug | 0     | 7.5   | True    | None

Showing 3 of 3 rows

"""


class Example(DatabaseTest):
    def test_output(self):
        printed = run_python(EXAMPLE.read_text(), folder=self.folder)
        self.assertEqual([line.rstrip() for line in printed], PRINTED.splitlines())
        self.assertEqual(os.listdir(self.folder), [])


if __name__ == "__main__":
    unittest.main()
