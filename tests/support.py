"""What the topic tests share: a database in a folder of its own, and assertions about failures."""

import contextlib
import os
import subprocess
import sys
import tempfile
import textwrap
import unittest

from talvern_client.utils import json_database as module
from talvern_client.utils.json_database import Column, JSONDatatable


# Where folders are made: in memory, where flushing takes no time, if that is to be had.
BASE = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None


def optional(name, data_type="text", **options):
    return Column(name, data_type, required=False, **options)


def unique(name, data_type="text", **options):
    return optional(name, data_type, unique=True, **options)


# For an interpreter of its own, which finds the same modules.
ENVIRONMENT = {**os.environ, "PYTHONPATH": os.pathsep.join(map(os.path.abspath, sys.path))}


def run_python(code, folder=None):
    """The lines that the code prints in an interpreter of its own, which must end well."""
    done = subprocess.run([sys.executable, "-X", "dev", "-c", textwrap.dedent(code)], cwd=folder,
                          env=ENVIRONMENT, capture_output=True, text=True, timeout=300)
    if done.returncode:
        raise AssertionError(f"exit status {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done.stdout.splitlines()


class DatabaseTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=BASE)
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.path = self.at("database.json")
        self.db = JSONDatatable(self.path)

    def at(self, *names):
        return os.path.join(self.folder, *names)

    def table(self, *columns, rows=(), name="t"):
        """A new table; each row gives its values in column order."""
        self.db.create_table(name, list(columns))
        for row in rows:
            self.db.insert(name, {column.name: value for column, value in zip(columns, row)})
        return self.db.tables[name]

    def read(self, path=None):
        with open(path or self.path, "rb") as file:
            return file.read()

    def write(self, content, path=None):
        with open(path or self.path, "wb") as file:
            file.write(content)

    @contextlib.contextmanager
    def raises(self, kind, *args):
        """Exactly this class, and exactly these arguments where any are given."""
        with self.assertRaises(kind) as caught:
            yield caught
        self.assertIs(type(caught.exception), kind)
        if args:
            self.assertEqual(caught.exception.args, args)

    def on_disk(self):
        return sorted(os.listdir(self.folder)), os.path.exists(self.path) and self.read()

    def state(self):
        return self.on_disk(), {key: ([list(row) for row in table.rows], {
            name: {value: list(ids) for value, ids in index.items()} for name, index in table.indexes.items()
        }) for key, table in self.db.tables.items()}

    @contextlib.contextmanager
    def unchanged(self, kind, *args):
        """The failure leaves tables, file and folder as they were."""
        before = self.state()
        with self.raises(kind, *args) as caught:
            yield caught
        self.assertEqual(self.state(), before)
