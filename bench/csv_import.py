"""Many rows at once: a CSV file into a new database, each way in a process of its own, from opening the file until
all rows are on the disk.

Everyone reads with csv.DictReader, refuses a second row with the same sku, and stores numbers as numbers and an empty
date as None.
"""

import contextlib
import csv
import json
import os
import sqlite3
import time

import measure
import rows

COUNT = 50_000
ROUNDS = 3
NAMES = [name for name, *_ in rows.COLUMNS if name != "active"]  # bool("False") is true, for everyone here


def write_csv(path):
    with open(path, "w", encoding="utf-8", newline="") as file:
        writer = csv.DictWriter(file, NAMES, extrasaction="ignore")
        writer.writeheader()
        writer.writerows(map(rows.row, range(COUNT)))


def read_csv(path):
    with open(path, encoding="utf-8", newline="") as file:
        for row in csv.DictReader(file):
            row["added"] = row["added"] or None
            yield row


def new_database(target):
    from talvern_client.utils.json_database import Column, JSONDatatable

    class Batch(JSONDatatable):
        held = 0

        def save(self):
            if not self.held:
                super().save()

        @contextlib.contextmanager
        def one_write(self):
            self.held += 1
            try:
                yield
            finally:
                self.held -= 1
            self.save()

    db = Batch(target)
    db.create_table("items", [column for column in rows.columns(Column) if column.name in NAMES])
    return db


def one_write(source, target):
    db = new_database(target)
    with db.one_write():
        for row in read_csv(source):
            db.insert("items", row)


def one_write_and_set(source, target):
    db = new_database(target)
    column = db.tables["items"].columns[0]
    taken = set()
    with db.one_write():
        column.unique = False
        try:
            for row in read_csv(source):
                if row["sku"] in taken:
                    raise ValueError("duplicate")
                db.insert("items", row)
                taken.add(row["sku"])
        finally:
            column.unique = True


def by_hand(source, target):
    taken = set()
    kept = []
    for row in read_csv(source):
        if row["sku"] in taken:
            raise ValueError("duplicate")
        taken.add(row["sku"])
        kept.append({**row, "quantity": int(row["quantity"]), "price": float(row["price"])})
    with open(target + ".new", "w", encoding="utf-8") as file:
        file.write(json.dumps(kept))
        file.flush()
        os.fsync(file.fileno())
    os.replace(target + ".new", target)


def by_sqlite3(source, target):
    connection = sqlite3.connect(target)
    with connection:
        connection.execute("CREATE TABLE items (id INTEGER PRIMARY KEY, sku TEXT NOT NULL UNIQUE, name TEXT NOT NULL,"
                           " quantity NUMERIC NOT NULL, price NUMERIC NOT NULL, added TEXT)")
        places = ", ".join(f":{name}" for name in NAMES)
        connection.executemany(f"INSERT INTO items ({', '.join(NAMES)}) VALUES ({places})", read_csv(source))
    connection.close()


WAYS = {
    "sqlite3, one transaction": by_sqlite3,
    "by hand, json.dumps at the end": by_hand,
    "ours, one_write, uniqueness by a set": one_write_and_set,
    "ours, one_write": one_write,
}


def serve(connection, way, source, target):
    with contextlib.suppress(FileNotFoundError):
        os.unlink(target)
    if way.startswith("ours"):
        from talvern_client.utils import json_database  # noqa: F401  the import is no part of the work
    start = time.perf_counter()
    WAYS[way](source, target)
    connection.send(time.perf_counter() - start)


def rows_in(target):
    if target.endswith("sqlite3"):
        connection = sqlite3.connect(target)
        (count,), = connection.execute("SELECT count(*) FROM items")
        connection.close()
        return count
    with open(target, encoding="utf-8") as file:
        content = json.load(file)
    return len(content) if isinstance(content, list) else len(content["tables"]["items"]["rows"])


def measure_all(folder):
    """{way: seconds of each round}; the ways take turns."""
    source = os.path.join(folder, "items.csv")
    write_csv(source)
    samples = {way: [] for way in WAYS}
    for _ in range(ROUNDS):
        for number, way in enumerate(WAYS):
            target = os.path.join(folder, f"import {number}" + ".sqlite3" * way.startswith("sqlite3"))
            process, here = measure.start(serve, way, source, target)
            samples[way].append(here.recv())
            process.join()
            if rows_in(target) != COUNT:
                raise AssertionError(f"{way}: {rows_in(target)} rows of {COUNT}")
    return samples
