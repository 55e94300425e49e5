"""What the module is checked against: the program of bench/literal.py and what the module does besides."""

import contextlib
import functools
import io
import operator

import literal
from literal import Column, Table  # noqa: F401

TO_REBUILD = "_indexes_to_rebuild"


def mark(table):
    vars(table)[TO_REBUILD] = table.indexes


@contextlib.contextmanager
def undone_on_failure(db, table, undo_row=None):
    """A failure undoes the steps, latest first; where that fails too, the indexes are to be rebuilt."""
    db.undo_row, db.undo_steps = undo_row, []
    try:
        yield
    except BaseException:
        for step in reversed(db.undo_steps):
            try:
                step()
            except Exception:
                mark(table)
        raise
    finally:
        del db.undo_row, db.undo_steps


def rebuild_marked_indexes(table):
    """Those of a file name rows by ids from before the load, and their keys are strings."""
    marked = getattr(table, "__dict__", {}).get(TO_REBUILD, table)
    if marked is table:
        return
    if marked is table.indexes:
        names = marked if isinstance(marked, dict) else {}
        wanted = {column.name: {} for column in table.columns if column.unique or column.name in names}
        rebuilt = {name: wanted[name] for name in [*names, *wanted] if name in wanted}
        for row_id, row in enumerate(table.rows if rebuilt else ()):
            if not isinstance(row, list) or all(value is None for value in row):
                continue
            for column, value in zip(table.columns, row):
                if column.name in rebuilt:
                    try:
                        hash(value)
                    except TypeError:
                        continue  # it is listed nowhere
                    rebuilt[column.name].setdefault(value, []).append(row_id)
        table.indexes = rebuilt
    del vars(table)[TO_REBUILD]


def with_json_keys(column_index):
    """Keys that JSON has no form for become strings; the ids of equal ones follow each other."""
    written = {}
    for value, ids in column_index.items():
        key = value if value is None or isinstance(value, (str, int, float)) else str(value)
        written[key] = written[key] + ids if key in written else ids
    return written


def check_argument(name, value, kind):
    if type(value) is not kind:
        raise TypeError(f"Argument '{name}' has incorrect type "
                        f"(expected {kind.__name__}, got {type(value).__name__:.200})")


class JSONDatatable(literal.JSONDatatable):
    """Of arguments, those are checked that a method or a file may hand on in a wrong type."""
    def _build_index(self, table_name, column_name):
        check_argument("column_name", column_name, str)
        super()._build_index(table_name, column_name)

    def _row_to_dict(self, table, row, columns=None):
        check_argument("row", row, list)
        return super()._row_to_dict(table, row, columns)

    def _project_row(self, row_dict, columns):
        check_argument("row_dict", row_dict, dict)
        return super()._project_row(row_dict, columns)

    def _append_row(self, table, data):
        rebuild_marked_indexes(table)
        with undone_on_failure(self, table, lambda: table.rows.pop()):
            return super()._append_row(table, data)

    def _replace_row(self, table, row_id, new_data):
        rebuild_marked_indexes(table)
        put_back = functools.partial(operator.setitem, table.rows, row_id, table.rows[row_id])
        with undone_on_failure(self, table, put_back):
            super()._replace_row(table, row_id, new_data)

    def clear_table(self, table_name):
        rebuild_marked_indexes(self.tables.get(table_name))
        return super().clear_table(table_name)

    def _clear_row(self, table, row_id):
        rebuild_marked_indexes(table)
        with undone_on_failure(self, table):
            super()._clear_row(table, row_id)

    def _add_to_indexes(self, table, row_id, row):
        def undo(index, value, ids, is_new):
            del ids[-1]
            if is_new and not ids and value in index:
                del index[value]

        self.undo_steps.append(self.undo_row)
        for column, value in zip(table.columns, row):
            if column.name in table.indexes:
                index = table.indexes[column.name]
                is_new = value not in index
                if is_new:
                    index[value] = []
                index[value].append(row_id)
                self.undo_steps.append(functools.partial(undo, index, value, index[value], is_new))

    def _withdraw_from_indexes(self, table, row_id, row):
        def undo(index, value, ids, position):
            if not ids:
                ids = index.setdefault(value, ids)
            ids.insert(position, row_id)

        for position, column in enumerate(table.columns):
            if column.name in table.indexes:
                index, value = table.indexes[column.name], row[position]
                if value in index and row_id in index[value]:
                    ids = index[value]
                    self.undo_steps.append(functools.partial(undo, index, value, ids, ids.index(row_id)))
                    ids.remove(row_id)
                    if not ids:
                        del index[value]

    def select(self, table_name, conditions=None, columns=None, limit=None):
        if conditions and len(conditions) == 1:
            rebuild_marked_indexes(self.tables.get(table_name))
        return super().select(table_name, conditions, columns, limit)

    def _dict_to_row_id(self, table, data):
        if table.rows:
            rebuild_marked_indexes(table)
        return super()._dict_to_row_id(table, data)

    def get_row(self, table_name, row_id):
        row_dict = super().get_row(table_name, row_id)
        if row_dict is not None and not isinstance(row_dict, dict):
            raise TypeError(f"Expected dict, got {type(row_dict).__name__:.200}")
        return row_dict

    def save(self):
        tables = {name: self._written_table(table) for name, table in self.tables.items()}
        written = io.StringIO()
        literal.json.dump({"tables": tables}, written, indent=None, ensure_ascii=False, default=str)
        content = written.getvalue().encode()
        with open(self.filename, "wb") as file:
            file.write(content)

    def _written_table(self, table):
        written = super()._written_table(table)
        if isinstance(table.indexes, dict):
            written["indexes"] = {name: with_json_keys(index) if isinstance(index, dict) else index
                                  for name, index in table.indexes.items()}
        return written

    def _read_table(self, table):
        result = super()._read_table(table)
        mark(result)
        return result
