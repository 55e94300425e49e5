"""The database file: names rebound by others, and failing reads."""

import builtins
import contextlib
import gc
import io
import json
import signal
import types
import unittest
from unittest import mock

from support import DatabaseTest, JSONDatatable, module, optional, unique


class Rebound(DatabaseTest):
    def test_torn_writing_leaves_the_file(self):
        def torn(document, file, **keywords):
            file.write("é")
            raise OSError(5, "torn")

        self.table(unique("a"), rows=["é"])
        for where, name, stand_in in ((module, "json", types.SimpleNamespace(dump=torn)), (json, "dump", torn)):
            with mock.patch.object(where, name, stand_in), self.unchanged(OSError, 5, "torn"):
                self.db.save()

    def test_table_is_printed_by_the_print_of_the_import(self):
        self.table(optional("name"), rows=[("日本",)])
        with mock.patch("builtins.print") as late, mock.patch.object(module, "print", late, create=True), \
                contextlib.redirect_stdout(io.StringIO()) as output:
            self.db.display_table("t")
        late.assert_not_called()
        self.assertEqual(output.getvalue(), "\nname\n----\n日本  \n\nShowing 1 of 1 rows\n\n")

    def test_open(self):
        original = open

        def spy(*args, **keywords):
            opened.append((args, keywords, original(*args, **keywords)))
            return opened[-1][2]

        for where in (module, builtins):
            opened = []
            with mock.patch.object(where, "open", spy, create=True):
                self.table(name=where.__name__)
                self.assertEqual(list(JSONDatatable(self.path).tables), list(self.db.tables))
            expected = [((self.path, mode), {"encoding": "utf-8"}) for mode in "wr"]
            self.assertEqual([call[:2] for call in opened], expected)
            self.assertTrue(all(file.closed for *_, file in opened))


class Saving(DatabaseTest):
    def test_deleted_rows_of_rows_that_are_no_list(self):
        self.table(optional("k")).rows = ([None], [1])
        self.db.save()
        self.assertEqual(json.loads(self.read())["tables"]["t"]["rows"], [[1]])


class Loading(DatabaseTest):
    def test_error_is_passed_on_itself(self):
        self.db.save()
        for error, printed in ((ValueError("own"), "Error loading database: own\n"), (KeyboardInterrupt(), "")):
            with mock.patch.object(json, "load", side_effect=error), self.raises(type(error)) as caught, \
                    contextlib.redirect_stdout(io.StringIO()) as output:
                self.db.load()
            self.assertIs(caught.exception, error)
            self.assertEqual(output.getvalue(), printed)

    def test_collector_pauses_for_the_parse_alone(self):
        """Python code finds it as it was: in a record's class, in a signal's handler amid the parse, and afterwards."""
        self.addCleanup(gc.enable)
        table = self.table(optional("a"))
        table.rows.extend([[number, str(number)] for number in range(400_000)])
        self.db.save()
        found = []
        handler = signal.signal(signal.SIGALRM, lambda *_: found.append(gc.isenabled()))
        self.addCleanup(signal.signal, signal.SIGALRM, handler)
        for switch in (gc.disable, gc.enable):
            switch()
            signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
            with mock.patch.object(module, "Table", lambda **_: found.append(gc.isenabled())):
                self.db.load()
            signal.setitimer(signal.ITIMER_REAL, 0)
            self.assertGreater(len(found), 2)
            self.assertEqual({*found, gc.isenabled()}, {switch is gc.enable})
            found.clear()
        self.write(b"{")
        with self.assertRaises(ValueError), contextlib.redirect_stdout(None):
            self.db.load()
        self.assertTrue(gc.isenabled())
