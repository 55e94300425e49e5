"""The printed table."""

import contextlib
import io
import unittest
from unittest import mock

from support import DatabaseTest, module, optional


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
