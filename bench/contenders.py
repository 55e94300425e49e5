"""Who is measured: each class does the same operations its own way.

`fill` makes the file, `use` opens it for the operations. An operation is an attribute that takes one argument, made by
`argument` before the clock starts. A contender that lacks an operation is left out of it. `before` and `after` are
outside the clock, too.
"""

import functools
import importlib.machinery
import importlib.util
import json
import os
import random
import sqlite3
import sys

import rows

TABLE = "items"


class Contender:
    def __init__(self, folder, count):
        self.path = self.disk = os.path.join(folder, "database")
        self.random = random.Random(1)
        self.count = count
        self.next = count
        self.last = count - 1

    def argument(self, operation):
        if operation.startswith("insert"):
            self.next += 1
            self.last += 1
            return rows.row(self.next)
        if operation == "update":
            number = self.random.randrange(self.count)
            return number, {**rows.row(number), "price": self.random.randrange(10_000) / 100}
        if operation == "delete":
            self.last -= 1
            return self.last + 1
        if operation == "by_unique" or operation == "open":
            return rows.row(self.random.randrange(self.count))["sku"]
        if operation.startswith("get_row"):
            return self.random.randrange(self.count)
        if operation == "no_match":
            return f"no such name {self.random.random()}"
        if operation == "one_percent":
            return self.random.randrange(100)
        return None

    def before(self, operation):
        pass

    def after(self, operation):
        pass


def flush(path):
    """What one contender leaves unwritten must not burden the next one's flush."""
    handle = os.open(path, os.O_RDONLY)
    os.fsync(handle)
    os.close(handle)


class Database(Contender):
    """What the module and the literal program have in common: the interface."""

    def __init__(self, folder, count, memory=None, width=len(rows.COLUMNS)):
        super().__init__(folder, count)
        self.memory = memory and os.path.join(memory, "database")
        self.width = width
        self.module = self.find()

    def fill(self):
        db = self.module.JSONDatatable(self.disk)
        db.create_table(TABLE, rows.columns(self.module.Column, self.width))
        db.tables[TABLE].rows.extend(rows.stored(rows.row(number, self.width)) for number in range(self.count))
        db._build_indexes(TABLE)
        db.save()

    def use(self):
        self.load(None)
        db = self.db = self.opened
        self.insert = self.insert_memory = functools.partial(db.insert, TABLE)
        self.by_unique = self.no_match = self.one_percent = functools.partial(db.select, TABLE)
        self.get_row = self.get_row_anywhere = functools.partial(db.get_row, TABLE)
        self.delete = functools.partial(db.delete, TABLE)

    def argument(self, operation):
        argument = super().argument(operation)
        if operation == "by_unique":
            return {"sku": argument}
        if operation == "no_match":
            return {"name": argument}
        if operation == "one_percent":
            return {"quantity": argument}
        if self.width > len(rows.COLUMNS) and operation == "insert":
            return rows.row(self.next, self.width)
        return argument

    def before(self, operation):
        self.opened = None
        if operation not in ("load", "open"):
            self.db.filename = self.memory if operation == "insert_memory" else self.disk
        if self.count == 0:
            self.db.tables[TABLE].rows.clear()
            self.db._build_indexes(TABLE)
            self.db.save()

    def update(self, argument):
        self.db.update(TABLE, *argument)

    def select_all(self, _):
        return self.db.select(TABLE)

    def display(self, _):
        self.db.display_table(TABLE)

    def load(self, _):
        self.opened = self.module.JSONDatatable(self.disk)

    def open(self, sku):
        self.opened = self.module.JSONDatatable(self.disk)
        self.opened.select(TABLE, {"sku": sku})


class Ours(Database):
    def find(self):
        from talvern_client.utils import json_database
        return json_database


class Literal(Database):
    def find(self):
        import literal
        return literal

    def after(self, operation):
        flush(self.disk)


class ByHand(Contender):
    """Dictionaries in a list, and a file replaced with some care: what one writes without a library."""

    def __init__(self, folder, count, memory=None):
        super().__init__(folder, count)
        self.memory = memory and os.path.join(memory, "database")

    def fill(self):
        self.rows = [rows.row(number) for number in range(self.count)]
        self.save()

    def use(self):
        self.load(None)
        self.rows = self.opened
        self.get_row = self.get_row_anywhere = self.rows.__getitem__

    def save(self):
        temporary = self.path + ".new"
        with open(temporary, "w", encoding="utf-8") as file:
            file.write(json.dumps(self.rows))
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, self.path)

    def before(self, operation):
        self.opened = None
        self.path = self.memory if operation == "insert_memory" else self.disk
        if self.count == 0:
            self.rows.clear()
            self.save()

    def insert(self, new):
        if any(row["sku"] == new["sku"] for row in self.rows):
            raise ValueError("duplicate")
        self.rows.append(new)
        self.save()

    insert_memory = insert

    def update(self, argument):
        number, new = argument
        if any(row["sku"] == new["sku"] for row in self.rows if row is not self.rows[number]):
            raise ValueError("duplicate")
        self.rows[number] = new
        self.save()

    def delete(self, number):
        del self.rows[number]
        self.save()

    def by_unique(self, sku):
        return next((row for row in self.rows if row["sku"] == sku), None)

    def no_match(self, name):
        return [row for row in self.rows if row["name"] == name]

    def one_percent(self, quantity):
        return [row for row in self.rows if row["quantity"] == quantity]

    def select_all(self, _):
        return list(self.rows)

    def load(self, _):
        with open(self.path, encoding="utf-8") as file:
            self.opened = json.load(file)

    def open(self, sku):
        self.load(None)
        return next((row for row in self.opened if row["sku"] == sku), None)


class Sqlite(Contender):
    """The standard library's sqlite3 with its own settings; each change is committed."""

    names = [name for name, *_ in rows.COLUMNS]

    def connect(self):
        connection = sqlite3.connect(self.path)
        connection.row_factory = sqlite3.Row
        return connection

    def fill(self):
        self.use()
        self.db.execute("CREATE TABLE items (id INTEGER PRIMARY KEY, sku TEXT NOT NULL UNIQUE, name TEXT NOT NULL,"
                        " quantity NUMERIC NOT NULL, price NUMERIC NOT NULL, active INTEGER NOT NULL, added TEXT)")
        self.db.executemany(self.add, (rows.row(number) for number in range(self.count)))
        self.db.commit()

    def use(self):
        self.db = self.connect()
        self.add = f"INSERT INTO items ({', '.join(self.names)}) VALUES ({', '.join(':' + name for name in self.names)})"
        self.change = f"UPDATE items SET {', '.join(f'{name} = :{name}' for name in self.names)} WHERE id = :id"

    def before(self, operation):
        self.opened = None
        if self.count == 0:
            self.db.execute("DELETE FROM items")
            self.db.commit()

    def insert(self, new):
        self.db.execute(self.add, new)
        self.db.commit()

    def update(self, argument):
        number, new = argument
        self.db.execute(self.change, {**new, "id": number + 1})
        self.db.commit()

    def delete(self, number):
        self.db.execute("DELETE FROM items WHERE id = ?", (number + 1,))
        self.db.commit()

    def by_unique(self, sku):
        return self.db.execute("SELECT * FROM items WHERE sku = ?", (sku,)).fetchall()

    def get_row(self, number):
        return self.db.execute("SELECT * FROM items WHERE id = ?", (number + 1,)).fetchone()

    get_row_anywhere = get_row

    def no_match(self, name):
        return self.db.execute("SELECT * FROM items WHERE name = ?", (name,)).fetchall()

    def one_percent(self, quantity):
        return self.db.execute("SELECT * FROM items WHERE quantity = ?", (quantity,)).fetchall()

    def select_all(self, _):
        return self.db.execute("SELECT * FROM items").fetchall()

    def open(self, sku):
        self.opened = self.connect()
        return self.opened.execute("SELECT * FROM items WHERE sku = ?", (sku,)).fetchall()


def find_tinydb():
    """The library, or None. Where the distribution packages it for its own Python, it serves this one as well."""
    spec = (importlib.util.find_spec("tinydb")
            or importlib.machinery.PathFinder.find_spec("tinydb", ["/usr/lib/python3/dist-packages"]))
    if spec is None:
        return None
    library = importlib.util.module_from_spec(spec)
    sys.modules["tinydb"] = library
    spec.loader.exec_module(library)
    return library


class TinyDB(Contender):
    def __init__(self, folder, count):
        super().__init__(folder, count)
        self.library = find_tinydb()
        self.where = self.library.where

    def fill(self):
        self.use()
        self.db.insert_multiple(rows.row(number) for number in range(self.count))

    def use(self):
        self.db = self.library.TinyDB(self.path)

    def before(self, operation):
        self.opened = None
        if self.count == 0:
            (getattr(self.db, "truncate", None) or self.db.purge)()

    def after(self, operation):
        flush(self.path)

    def insert(self, new):
        if self.db.contains(self.where("sku") == new["sku"]):
            raise ValueError("duplicate")
        self.db.insert(new)

    def update(self, argument):
        number, new = argument
        self.db.update(new, doc_ids=[number + 1])

    def delete(self, number):
        self.db.remove(doc_ids=[number + 1])

    def by_unique(self, sku):
        return self.db.search(self.where("sku") == sku)

    def get_row(self, number):
        return self.db.get(doc_id=number + 1)

    def no_match(self, name):
        return self.db.search(self.where("name") == name)

    def one_percent(self, quantity):
        return self.db.search(self.where("quantity") == quantity)

    def select_all(self, _):
        return self.db.all()

    def open(self, sku):
        self.opened = self.library.TinyDB(self.path)
        return self.opened.search(self.where("sku") == sku)


class Floor(Contender):
    """No database at all: the bytes of our file, put on the disk as safely as we do it."""

    def __init__(self, folder, count, memory=None, like=None):
        super().__init__(folder, count)
        self.memory = memory and os.path.join(memory, "database")
        self.like = like

    def fill(self):
        with open(self.like, "rb") as file:
            self.content = file.read()
        self.insert(None)

    def use(self):
        self.fill()

    def before(self, operation):
        self.path = self.memory if operation == "insert_memory" else self.disk

    def insert(self, _):
        temporary = self.path + ".new"
        handle = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
        left = memoryview(self.content)
        while left:
            left = left[os.write(handle, left):]
        os.fsync(handle)
        os.close(handle)
        os.rename(temporary, self.path)
        handle = os.open(os.path.dirname(self.path), os.O_RDONLY)
        os.fsync(handle)
        os.close(handle)

    insert_memory = insert

    def update(self, _):
        self.insert(None)

    delete = update


CONTENDERS = {"ours": Ours, "literal": Literal, "by hand": ByHand, "TinyDB": TinyDB, "sqlite3": Sqlite, "floor": Floor}
