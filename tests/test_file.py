"""Saving and loading with names that a program has rebound, and what they leave alone."""

import builtins
import contextlib
import gc
import io
import json
import os
import signal
from unittest import mock

from support import DatabaseTest, JSONDatatable, module, optional


class SavingAndLoading(DatabaseTest):
    def test_torn_writing_leaves_the_file(self):
        self.table(optional("a"), rows=["é"])
        with mock.patch.object(json, "dump", lambda document, file, **_: file.write("é") // 0), \
                self.unchanged(ZeroDivisionError):
            self.db.save()

    def test_table_is_printed_by_the_print_of_the_import(self):
        self.table(optional("name"), rows=[("日本",)])
        with mock.patch("builtins.print") as late, mock.patch.object(module, "print", late, create=True), \
                contextlib.redirect_stdout(io.StringIO()) as output:
            self.db.display_table("t")
        late.assert_not_called()
        self.assertEqual(output.getvalue(), "\nname\n----\n日本  \n\nShowing 1 of 1 rows\n\n")

    def test_open(self):
        for where in (module, builtins):
            with mock.patch.object(where, "open", mock.Mock(side_effect=open), create=True) as opened:
                self.table(name=where.__name__)
                JSONDatatable(self.path)
            calls = [mock.call(self.path, mode, encoding="utf-8") for mode in "wr"]
            self.assertEqual(opened.mock_calls, calls)

    def test_new_file_of_another_save(self):
        """It may stand where this save's own was removed, and is not taken for it."""
        def replace(_):
            name, = {*os.listdir(self.folder)} - {"database.json", "half"}
            os.replace(self.at("half"), self.at(name))
            return "text"

        self.write(b"half", self.at("half"))
        self.table(optional("a")).rows.append([mock.MagicMock(__str__=replace)])
        self.assertRaises(FileNotFoundError, self.db.save)
        self.assertNotEqual(self.read(), b"half")

    def test_deleted_rows_of_rows_that_are_no_list(self):
        self.table(optional("k")).rows = ([None], [1])
        self.db.save()
        self.assertEqual(json.loads(self.read())["tables"]["t"]["rows"], [[1]])

    def test_collector_pauses_for_the_parse_alone(self):
        """Python code finds it as it was: in a record's class, in a signal's handler, and afterwards."""
        self.addCleanup(gc.enable)
        self.table(optional("a")).rows += [[number, str(number)] for number in range(400_000)]
        self.db.save()
        found = []
        handler = signal.signal(signal.SIGALRM, lambda *_: found.append(gc.isenabled()))
        self.addCleanup(signal.signal, signal.SIGALRM, handler)
        for switch in (gc.disable, gc.enable):
            found.clear()
            switch()
            signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
            with mock.patch.object(module, "Table", lambda **_: found.append(gc.isenabled())):
                self.db.load()
            signal.setitimer(signal.ITIMER_REAL, 0)
            self.assertGreater(len(found), 2)
            self.assertEqual({*found, gc.isenabled()}, {switch is gc.enable})
