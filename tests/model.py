"""The module's operations as a plain Python program: what the module is checked and measured against.

`JSONDatatable` is the bare program. `Checked` is the same program behind the argument checks that
the module makes; only that one refuses what the module refuses.
"""

from __future__ import annotations

import contextlib
import json
import os
import re
from dataclasses import dataclass, field
from datetime import datetime
from typing import Any, Dict, List, Optional

AS_READ = "_indexes_as_read"


@dataclass
class Column:
    name: str
    data_type: str
    required: bool = True
    unique: bool = False
    default: Any = None
    validation_pattern: Optional[str] = None


@dataclass
class Table:
    name: str
    columns: List[Column]
    rows: List[List[Any]] = field(default_factory=list)
    indexes: Dict[str, Dict[Any, List[int]]] = field(default_factory=dict)


COLUMN_FIELDS = tuple(Column.__dataclass_fields__)


def is_deleted(row):
    return all(value is None for value in row)


def is_hashable(value):
    try:
        hash(value)
    except TypeError:
        return False
    return True


def existing_table(db, table_name):
    if table_name not in db.tables:
        raise ValueError(f"Table '{table_name}' does not exist")
    return db.tables[table_name]


def indexed_values(table, row):
    for idx, column in enumerate(table.columns):
        if column.name in table.indexes:
            yield table.indexes[column.name], row[idx]


@contextlib.contextmanager
def taken_back_on_failure(table):
    """Leaves the indexes as they were when the work on them fails, whatever their keys do when they are asked."""
    indexes = table.indexes if isinstance(table.indexes, dict) else {}
    before = {name: type(index)(index) for name, index in indexes.items() if isinstance(index, dict)}
    lists = [(ids, list(ids)) for index in before.values() for ids in index.values() if type(ids) is list]
    try:
        yield
    except BaseException:
        for ids, items in lists:
            ids[:] = items
        indexes.update(before)
        raise


def add_to_indexes(table, row_id, row):
    for column_index, value in indexed_values(table, row):
        if value not in column_index:
            column_index[value] = []
        column_index[value].append(row_id)


def withdraw_from_indexes(table, row_id, row):
    for column_index, value in indexed_values(table, row):
        if value in column_index and row_id in column_index[value]:
            column_index[value].remove(row_id)
            if not column_index[value]:
                del column_index[value]


def settle_indexes(table):
    """Builds indexes anew that still are what the file held: rows have moved and keys are texts there."""
    as_read = getattr(table, "__dict__", {}).get(AS_READ, table)
    if as_read is table:
        return
    if as_read is table.indexes:
        rebuilt = {column.name: {} for column in table.columns
                   if column.unique or isinstance(as_read, dict) and column.name in as_read}
        indexed = [(idx, rebuilt[column.name]) for idx, column in enumerate(table.columns) if column.name in rebuilt]
        for row_id, row in enumerate(table.rows) if indexed else ():
            if isinstance(row, list) and not is_deleted(row):
                for idx, column_index in indexed:
                    if idx < len(row) and is_hashable(row[idx]):
                        column_index.setdefault(row[idx], []).append(row_id)
        table.indexes = rebuilt
    del table.__dict__[AS_READ]


def is_json_key(value):
    return value is None or isinstance(value, (str, int, float))


def with_json_keys(indexes):
    """The indexes, with the keys that JSON has no form for as their texts."""
    if not isinstance(indexes, dict):
        return indexes
    result = {}
    for name, column_index in indexes.items():
        if isinstance(column_index, dict) and not all(is_json_key(value) for value in column_index):
            named, column_index = column_index, {}
            for value, ids in named.items():
                key = value if is_json_key(value) else str(value)
                column_index[key] = column_index.get(key, []) + ids
        result[name] = column_index
    return result


class JSONDatatable:
    def __init__(self, filename="database.json"):
        self.filename = filename
        self.tables = {}
        self.load()

    def create_table(self, table_name: str, columns: List[Column]):
        if table_name in self.tables:
            raise ValueError(f"Table '{table_name}' already exists")
        self.tables[table_name] = Table(name=table_name, columns=columns)
        self._build_indexes(table_name)
        self.save()
        return True

    def insert(self, table_name: str, data: Dict[str, Any]) -> int:
        table = existing_table(self, table_name)
        settle_indexes(table)
        validated_data = self._validate_row(table, data)
        row_data = [validated_data[column.name] for column in table.columns]
        row_id = len(table.rows)
        table.rows.append(row_data)
        try:
            with taken_back_on_failure(table):
                add_to_indexes(table, row_id, row_data)
        except BaseException:
            table.rows.pop()
            raise
        self.save()
        return row_id

    def update(self, table_name: str, row_id: int, new_data: Dict[str, Any]) -> bool:
        table = existing_table(self, table_name)
        if row_id < 0 or row_id >= len(table.rows):
            raise IndexError(f"Row index {row_id} out of range")
        settle_indexes(table)
        old_row = table.rows[row_id]
        try:
            with taken_back_on_failure(table):
                withdraw_from_indexes(table, row_id, old_row)
                validated_data = self._validate_row(table, new_data, update=True)
                new_row = [validated_data[column.name] for column in table.columns]
                table.rows[row_id] = new_row
                add_to_indexes(table, row_id, new_row)
        except BaseException:
            if table.rows[row_id] is not old_row:
                table.rows[row_id] = old_row
            raise
        self.save()
        return True

    def clear_table(self, table_name: str) -> bool:
        table = existing_table(self, table_name)
        settle_indexes(table)
        for i in range(len(table.rows)):
            with taken_back_on_failure(table):
                withdraw_from_indexes(table, i, table.rows[i])
            table.rows[i] = [None] * len(table.columns)
        self.save()
        return True

    def delete(self, table_name: str, row_id: int) -> bool:
        table = existing_table(self, table_name)
        if row_id < 0 or row_id >= len(table.rows):
            raise IndexError("Row index out of range")
        settle_indexes(table)
        with taken_back_on_failure(table):
            withdraw_from_indexes(table, row_id, table.rows[row_id])
        table.rows[row_id] = [None] * len(table.columns)
        self.save()
        return True

    def select(self, table_name: str, conditions: Optional[Dict[str, Any]] = None,
               columns: Optional[List[str]] = None, limit: Optional[int] = None) -> List[Dict[str, Any]]:
        table = existing_table(self, table_name)
        results = []
        if conditions and len(conditions) == 1:
            settle_indexes(table)
            for name, value in conditions.items():
                if name in table.indexes:
                    for row_id in table.indexes[name].get(value, []):
                        row = table.rows[row_id]
                        if not is_deleted(row):
                            results.append(self._row_to_dict(table, row, columns))
                    return results[:limit] if limit else results
        for row in table.rows:
            if is_deleted(row):
                continue
            row_dict = self._row_to_dict(table, row)
            if conditions and any(row_dict.get(name) != value for name, value in conditions.items()):
                continue
            results.append(self._project_row(row_dict, columns))
            if limit and len(results) >= limit:
                break
        return results

    def get_row(self, table_name: str, row_id: int) -> Dict[str, Any]:
        table = existing_table(self, table_name)
        if row_id < 0 or row_id >= len(table.rows):
            raise IndexError(f"Row index ({row_id}) out of range")
        row = table.rows[row_id]
        if is_deleted(row):
            raise ValueError("Row has been deleted")
        row_dict = self._row_to_dict(table, row)
        if row_dict is not None and not isinstance(row_dict, dict):
            raise TypeError(f"Expected dict, got {type(row_dict).__name__:.200}")
        return row_dict

    def _build_indexes(self, table_name: str):
        table = self.tables[table_name]
        table.indexes = {}
        for column in table.columns:
            if column.unique:
                self._build_index(table_name, column.name)

    def _build_index(self, table_name: str, column_name: str):
        table = self.tables[table_name]
        table.indexes[column_name] = {}
        positions = None
        for row_id, row in enumerate(table.rows):
            if is_deleted(row):
                continue
            if positions is None:
                positions = [idx for idx, column in enumerate(table.columns) if column.name == column_name]
            value = row[positions[-1]] if positions else None
            if value not in table.indexes[column_name]:
                table.indexes[column_name][value] = []
            table.indexes[column_name][value].append(row_id)

    def _row_to_dict(self, table: Table, row: List[Any], columns: Optional[List[str]] = None) -> Dict[str, Any]:
        return {col.name: row[i] for i, col in enumerate(table.columns) if columns is None or col.name in columns}

    def _validate_row(self, table: Table, data: Dict[str, Any], update: bool = False) -> Dict[str, Any]:
        validated = {}
        for column in table.columns:
            col_name = column.name
            value = data.get(col_name, column.default)
            if column.required and value is None and not update:
                raise ValueError(f"Column '{col_name}' is required")
            if value is None:
                validated[col_name] = value
                continue
            try:
                if column.data_type == "number":
                    value = float(value) if "." in str(value) else int(value)
                elif column.data_type == "boolean":
                    value = bool(value)
                elif column.data_type == "date" and isinstance(value, str):
                    value = datetime.strptime(value, "%Y-%m-%d").date()
            except (ValueError, TypeError):
                raise ValueError(f"Invalid {column.data_type} value for column '{col_name}'")
            pattern = column.validation_pattern
            if pattern and isinstance(value, str) and not re.match(pattern, value):
                raise ValueError(f"Value for column '{col_name}' doesn't match validation pattern")
            validated[col_name] = value
            if column.unique:
                for row in table.rows:
                    if not is_deleted(row) and self._row_to_dict(table, row).get(col_name) == value:
                        _row_id = self._dict_to_row_id(table, data)
                        if _row_id is not None and (not update or row != table.rows[_row_id]):
                            raise ValueError(f"Duplicate value for unique column '{col_name}'")
        return validated

    def _dict_to_row_id(self, table: Table, data: Dict[str, Any]) -> Optional[int]:
        if not table.rows:
            return None
        settle_indexes(table)
        for column in table.columns:
            if column.unique and column.name in data:
                value = data[column.name]
                column_index = table.indexes.get(column.name, {})
                if value in column_index:
                    return column_index[value][0]
        for row_id, row in enumerate(table.rows):
            if is_deleted(row):
                continue
            for key, value in data.items():
                positions = [i for i, column in enumerate(table.columns) if column.name == key]
                if not positions or row[positions[0]] != value:
                    break
            else:
                return row_id
        return None

    def _project_row(self, row_dict: Dict[str, Any], columns: Optional[List[str]]) -> Dict[str, Any]:
        if columns is None:
            return row_dict.copy()
        return {name: row_dict[name] for name in columns if name in row_dict}

    def save(self):
        tables = {}
        for table_name, table in self.tables.items():
            tables[table_name] = {
                "name": table.name,
                "columns": [{name: getattr(column, name) for name in COLUMN_FIELDS} for column in table.columns],
                "rows": [row for row in table.rows if not is_deleted(row)],
                "indexes": with_json_keys(table.indexes)}
        with open(self.filename, "w", encoding="utf-8") as f:
            json.dump({"tables": tables}, f, indent=None, ensure_ascii=False, default=str)

    def load(self):
        if not os.path.exists(self.filename):
            return
        try:
            with open(self.filename, "r", encoding="utf-8") as f:
                document = json.load(f)
                self.tables = {}
                for table_name, table_data in document.get("tables", {}).items():
                    columns = [Column(
                        name=col["name"], data_type=col["data_type"], required=col.get("required", True),
                        unique=col.get("unique", False), default=col.get("default"),
                        validation_pattern=col.get("validation_pattern")) for col in table_data["columns"]]
                    table = Table(name=table_data["name"], columns=columns, rows=table_data["rows"],
                                  indexes=table_data.get("indexes", {}))
                    table.__dict__[AS_READ] = table.indexes
                    self.tables[table_name] = table
        except Exception as e:
            print("Error loading database: " + str(e))
            raise

    def display_table(self, table_name: str, limit: int = 10):
        if table_name not in self.tables:
            print(f"Table '{table_name}' does not exist")
            return
        table = self.tables[table_name]
        columns = [column.name for column in table.columns]
        rows = self.select(table_name, limit=limit)
        if not columns:
            print("Table has no columns")
            return
        col_widths = {name: len(name) for name in columns}
        for row in rows:
            for key, value in row.items():
                col_widths[key] = max(col_widths[key], len(str(value)))
        header = " | ".join([name.ljust(col_widths[name]) for name in columns])
        print("\n" + header)
        print("-" * len(header))
        for row in rows:
            print(" | ".join([str(row.get(name, "")).ljust(col_widths[name]) for name in columns]))
        total_rows = len([row for row in table.rows if not is_deleted(row)])
        print(f"\nShowing {len(rows)} of {total_rows} rows\n")


BUILT_IN = {"str": str, "int": int, "Dict": dict, "List": list}


def wrong_type(parameter, expected, value):
    note = ". Subclasses of built-in types are refused" if isinstance(value, expected) else ""
    return TypeError(f"Argument '{parameter}' has incorrect type "
                     f"(expected {expected.__name__}, got {type(value).__name__:.200}){note}")


def bind(name, parameters, defaults, args, kwargs):
    """The arguments in parameter order."""
    def count_error(limit, given):
        how = "exactly" if not defaults else "at least" if given < limit else "at most"
        return TypeError(f"{name}() takes {how} {limit} positional argument{'s'[limit == 1:]} ({given} given)")

    if len(args) > len(parameters):
        raise count_error(len(parameters), len(args))
    bound = dict(zip(parameters, args))
    for keyword, value in kwargs.items():
        if keyword not in parameters:
            raise TypeError(f"{name}() got an unexpected keyword argument '{keyword}'")
        if keyword in bound:
            raise TypeError(f"{name}() got multiple values for keyword argument '{keyword}'")
        bound[keyword] = value
    required = len(parameters) - len(defaults)
    for position, parameter in enumerate(parameters):
        if parameter not in bound and position < required:
            raise count_error(required, position)
    return {**dict(zip(parameters[required:], defaults)), **bound}


def with_argument_checks(method):
    """The method behind binding, conversions and exact-type tests, as its annotations ask for them."""
    parameters = method.__code__.co_varnames[:method.__code__.co_argcount]
    kinds = {name: re.match(r"(?:(Optional)\[)?(\w+)", text).groups()
             for name, text in method.__annotations__.items() if name != "return"}

    def checked(*args, **kwargs):
        values = bind(method.__name__, parameters, method.__defaults__ or (), args, kwargs)
        kept = {name: kind for name, (optional, kind) in kinds.items() if not (optional and values[name] is None)}
        for name, kind in kept.items():
            if kind == "bool":
                values[name] = bool(values[name])
            elif kind == "int" and type(values[name]) is not int:
                if not any(hasattr(type(values[name]), special) for special in ("__int__", "__index__", "__float__")):
                    raise wrong_type(name, int, values[name])
                values[name] = int(values[name])
        for name, kind in kept.items():
            if type(values[name]) is not BUILT_IN.get(kind, type(values[name])):
                raise wrong_type(name, BUILT_IN[kind], values[name])
        return method(**values)

    return checked


Checked = type("JSONDatatable", (JSONDatatable,), {
    "__qualname__": "Checked", "__module__": __name__,
    **{name: with_argument_checks(method) for name, method in vars(JSONDatatable).items() if callable(method)}})
