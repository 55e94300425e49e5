"""The database as a plain Python program: the operations' steps one after the other, nothing cleverer.

The baseline called "literal". It makes a dictionary of a row wherever a row is looked at, and writes with
json.dump straight into the database file, unflushed, so it spares itself what a safe file costs. The tests' model
is this program too, with what the module does besides (tests/model.py).
"""

from __future__ import annotations

import json
import os
import re
from dataclasses import dataclass, field
from datetime import datetime
from typing import Any, Dict, List, Optional


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

    def _build_indexes(self, table_name: str):
        table = self.tables[table_name]
        table.indexes = {}
        for column in table.columns:
            if column.unique:
                self._build_index(table_name, column.name)

    def _build_index(self, table_name: str, column_name: str):
        table = self.tables[table_name]
        table.indexes[column_name] = {}
        for row_id, row in enumerate(table.rows):
            if all(value is None for value in row):
                continue
            value = None
            for i, column in enumerate(table.columns):
                if column.name == column_name:
                    value = row[i]
            if value not in table.indexes[column_name]:
                table.indexes[column_name][value] = []
            table.indexes[column_name][value].append(row_id)

    def _validate_row(self, table: Table, data: Dict[str, Any], update: bool = False) -> Dict[str, Any]:
        validated = {}
        for column in table.columns:
            value = data.get(column.name, column.default)
            if column.required and value is None and not update:
                raise ValueError(f"Column '{column.name}' is required")
            if value is not None:
                try:
                    if column.data_type == "number":
                        value = float(value) if "." in str(value) else int(value)
                    elif column.data_type == "boolean":
                        value = bool(value)
                    elif column.data_type == "date" and isinstance(value, str):
                        value = datetime.strptime(value, "%Y-%m-%d").date()
                except (ValueError, TypeError):
                    raise ValueError(f"Invalid {column.data_type} value for column '{column.name}'")
                if column.validation_pattern and isinstance(value, str):
                    if not re.match(column.validation_pattern, value):
                        raise ValueError(f"Value for column '{column.name}' doesn't match validation pattern")
            validated[column.name] = value
            if value is not None and column.unique:
                for row in table.rows:
                    if all(stored is None for stored in row):
                        continue
                    if self._row_to_dict(table, row).get(column.name) == value:
                        row_id = self._dict_to_row_id(table, data)
                        if row_id is not None and (not update or row != table.rows[row_id]):
                            raise ValueError(f"Duplicate value for unique column '{column.name}'")
        return validated

    def _add_to_indexes(self, table, row_id, row):
        for idx, column in enumerate(table.columns):
            if column.name in table.indexes:
                column_index = table.indexes[column.name]
                if row[idx] not in column_index:
                    column_index[row[idx]] = []
                column_index[row[idx]].append(row_id)

    def _withdraw_from_indexes(self, table, row_id, row):
        for idx, column in enumerate(table.columns):
            if column.name in table.indexes:
                column_index = table.indexes[column.name]
                if row[idx] in column_index and row_id in column_index[row[idx]]:
                    column_index[row[idx]].remove(row_id)
                    if not column_index[row[idx]]:
                        del column_index[row[idx]]

    def insert(self, table_name: str, data: Dict[str, Any]) -> int:
        if table_name not in self.tables:
            raise ValueError(f"Table '{table_name}' does not exist")
        row_id = self._append_row(self.tables[table_name], data)
        self.save()
        return row_id

    def _append_row(self, table, data):
        validated = self._validate_row(table, data)
        row = [validated[column.name] for column in table.columns]
        row_id = len(table.rows)
        table.rows.append(row)
        self._add_to_indexes(table, row_id, row)
        return row_id

    def update(self, table_name: str, row_id: int, new_data: Dict[str, Any]) -> bool:
        if table_name not in self.tables:
            raise ValueError(f"Table '{table_name}' does not exist")
        table = self.tables[table_name]
        if row_id < 0 or row_id >= len(table.rows):
            raise IndexError(f"Row index {row_id} out of range")
        self._replace_row(table, row_id, new_data)
        self.save()
        return True

    def _replace_row(self, table, row_id, new_data):
        self._withdraw_from_indexes(table, row_id, table.rows[row_id])
        validated = self._validate_row(table, new_data, update=True)
        row = [validated[column.name] for column in table.columns]
        table.rows[row_id] = row
        self._add_to_indexes(table, row_id, row)

    def clear_table(self, table_name: str) -> bool:
        if table_name not in self.tables:
            raise ValueError(f"Table '{table_name}' does not exist")
        table = self.tables[table_name]
        for row_id in range(len(table.rows)):
            self._clear_row(table, row_id)
        self.save()
        return True

    def delete(self, table_name: str, row_id: int) -> bool:
        if table_name not in self.tables:
            raise ValueError(f"Table '{table_name}' does not exist")
        table = self.tables[table_name]
        if row_id < 0 or row_id >= len(table.rows):
            raise IndexError("Row index out of range")
        self._clear_row(table, row_id)
        self.save()
        return True

    def _clear_row(self, table, row_id):
        self._withdraw_from_indexes(table, row_id, table.rows[row_id])
        table.rows[row_id] = [None] * len(table.columns)

    def _row_to_dict(self, table: Table, row: List[Any], columns: Optional[List[str]] = None) -> Dict[str, Any]:
        row_dict = {}
        for i, column in enumerate(table.columns):
            if columns is None or column.name in columns:
                row_dict[column.name] = row[i]
        return row_dict

    def _project_row(self, row_dict: Dict[str, Any], columns: Optional[List[str]]) -> Dict[str, Any]:
        if columns is None:
            return row_dict.copy()
        return {name: row_dict[name] for name in columns if name in row_dict}

    def _dict_to_row_id(self, table: Table, data: Dict[str, Any]) -> Optional[int]:
        if not table.rows:
            return None
        for column in table.columns:
            if column.unique and column.name in data:
                column_index = table.indexes.get(column.name, {})
                if data[column.name] in column_index:
                    return column_index[data[column.name]][0]
        for row_id, row in enumerate(table.rows):
            if all(value is None for value in row):
                continue
            for key, value in data.items():
                col_idx = next((i for i, column in enumerate(table.columns) if column.name == key), None)
                if col_idx is None or row[col_idx] != value:
                    break
            else:
                return row_id
        return None

    def select(self, table_name: str, conditions: Optional[Dict[str, Any]] = None,
               columns: Optional[List[str]] = None, limit: Optional[int] = None) -> List[Dict[str, Any]]:
        if table_name not in self.tables:
            raise ValueError(f"Table '{table_name}' does not exist")
        table = self.tables[table_name]
        results = []
        if conditions and len(conditions) == 1:
            name, value = next(iter(conditions.items()))
            if name in table.indexes:
                for row_id in table.indexes[name].get(value, []):
                    row = table.rows[row_id]
                    if all(stored is None for stored in row):
                        continue
                    results.append(self._row_to_dict(table, row, columns))
                return results[:limit] if limit else results
        for row in table.rows:
            if all(value is None for value in row):
                continue
            row_dict = self._row_to_dict(table, row)
            if conditions:
                matches = True
                for name, value in conditions.items():
                    if row_dict.get(name) != value:
                        matches = False
                        break
                if not matches:
                    continue
            results.append(self._project_row(row_dict, columns))
            if limit and len(results) >= limit:
                break
        return results

    def get_row(self, table_name: str, row_id: int) -> Dict[str, Any]:
        if table_name not in self.tables:
            raise ValueError(f"Table '{table_name}' does not exist")
        table = self.tables[table_name]
        if row_id < 0 or row_id >= len(table.rows):
            raise IndexError(f"Row index ({row_id}) out of range")
        row = table.rows[row_id]
        if all(value is None for value in row):
            raise ValueError("Row has been deleted")
        return self._row_to_dict(table, row)

    def save(self):
        tables = {table_name: self._written_table(table) for table_name, table in self.tables.items()}
        with open(self.filename, "w", encoding="utf-8") as file:
            json.dump({"tables": tables}, file, indent=None, ensure_ascii=False, default=str)

    def _written_table(self, table):
        return {
            "name": table.name,
            "columns": [
                {
                    "name": column.name,
                    "data_type": column.data_type,
                    "required": column.required,
                    "unique": column.unique,
                    "default": column.default,
                    "validation_pattern": column.validation_pattern,
                }
                for column in table.columns
            ],
            "rows": [row for row in table.rows if any(value is not None for value in row)],
            "indexes": table.indexes,
        }

    def load(self):
        if not os.path.exists(self.filename):
            return
        try:
            with open(self.filename, "r", encoding="utf-8") as file:
                document = json.load(file)
                self.tables = {}
                for table_name, table in document.get("tables", {}).items():
                    self.tables[table_name] = self._read_table(table)
        except Exception as error:
            print("Error loading database: " + str(error))
            raise

    def _read_table(self, table):
        columns = [
            Column(
                name=column["name"],
                data_type=column["data_type"],
                required=column.get("required", True),
                unique=column.get("unique", False),
                default=column.get("default"),
                validation_pattern=column.get("validation_pattern"),
            )
            for column in table["columns"]
        ]
        return Table(name=table["name"], columns=columns, rows=table["rows"], indexes=table.get("indexes", {}))

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
        widths = {name: len(name) for name in columns}
        for row in rows:
            for key, value in row.items():
                widths[key] = max(widths[key], len(str(value)))
        header = " | ".join(name.ljust(widths[name]) for name in columns)
        print("\n" + header)
        print("-" * len(header))
        for row in rows:
            print(" | ".join(str(row.get(name, "")).ljust(widths[name]) for name in columns))
        total = len([row for row in table.rows if any(value is not None for value in row)])
        print(f"\nShowing {len(rows)} of {total} rows\n")
