"""A small table database kept in one JSON file.

A method that changes something writes the whole file before it returns: a new file beside the old one, renamed over it
when it is complete. A refused change raises an exception, and nothing is changed then. If the write itself fails, the
change stays in memory and the file stays as it was. Each later change then fails too, until the cause is gone.

Argument types are exact: an instance of a subclass of `str`, `dict` or `list` raises TypeError.
"""

# The methods find json, os, re and datetime here at each call, so a test may replace them.
import json as json
import os as os
from typing import Dict, List, Optional, Any, Union
from dataclasses import dataclass, field
import re as re
from datetime import datetime as datetime

@dataclass
class Column:
    """One column of a table. The fields are not checked when the record is made."""

    name: str
    """The key of the column's value in row dictionaries."""
    data_type: str
    """"number", "boolean" and "date" convert the values; with any other string they are stored unchanged."""
    required: bool = True
    """Refuse an inserted row whose value is None once the default has been applied."""
    unique: bool = False
    """Refuse an inserted value that a row already holds, and keep an index for look-ups."""
    default: Any = None
    """Stored when a row has no entry for the column; an entry that is None stays None."""
    validation_pattern: Optional[str] = None
    """A regular expression that strings have to match from their start; not necessarily to their end."""

@dataclass
class Table:
    """One table with its contents. The database owns it: read it, change it through the database's methods."""

    name: str
    columns: List[Column]
    """The list that was given to create_table, not a copy."""
    rows: List[List[Any]] = field(default_factory=list)
    """One list per row, its values in column order. A row's position is its id; a deleted row holds only None."""
    indexes: Dict[str, Dict[Any, List[int]]] = field(default_factory=dict)
    """Column name to value to ids of the rows that hold it, edited in place. After a load it is what the file holds,
    until the first use rebuilds it from the rows."""

class JSONDatatable:
    """A database in one JSON file. Not to be used by several threads at once."""

    filename: Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]
    """Where save writes and load reads; may be assigned."""
    tables: Dict[str, Table]

    def __init__(self, filename: Union[str, bytes, os.PathLike[str], os.PathLike[bytes]] = 'database.json') -> None:
        """Open the database in this file.

        An existing file is loaded, and what load raises is raised. Otherwise the database is empty, and the first
        change makes the file.
        """

    def create_table(self, table_name: str, columns: List[Column]) -> bool:
        """Declare a table without rows. The result is True.

        The list of columns is kept, not copied, and not checked.

        Raises ValueError when there is a table of that name, AttributeError when an item of the list is no Column: the
        table is in memory then, and `del db.tables[table_name]` removes it.
        Writes the file. What save raises then leaves the change in memory, where it makes every later change fail too.
        """

    def insert(self, table_name: str, data: Dict[str, Any]) -> int:
        """Add a row, given as column name to value. The result is its row id, which it keeps until the next load.

        A column without an entry gets its default. Values are converted by the column's type. Keys that name no
        column are ignored. Each insert walks all rows for each unique column. A duplicate that comes from conversion
        or from a default is usually not refused.

        Refuses with ValueError when the table is unknown, or when a value is missing though required, can't be
        converted, doesn't match the pattern, or is held by another row though unique; with TypeError when a value of a
        unique column can't be hashed; with OverflowError for an infinite number; with re.error when the pattern is no
        regular expression.
        Writes the file. What save raises then leaves the change in memory, where it makes every later change fail too.
        ValueError and TypeError may be save's too.
        """

    def update(self, table_name: str, row_id: int, new_data: Dict[str, Any]) -> bool:
        """Replace the whole row. The result is True.

        A column without an entry gets its default, not its old value; to change single values, pass
        `{**db.get_row(table_name, row_id), ...}`, whose values are all converted and checked again. A required column
        may become None. A value of a unique column that one other row holds is usually not refused. A deleted row is
        live again afterwards.

        Refuses with IndexError when there is no such row id, otherwise as insert does.
        Writes the file. What save raises then leaves the change in memory, where it makes every later change fail too.
        ValueError and TypeError may be save's too.
        """

    def clear_table(self, table_name: str) -> bool:
        """Delete every row. The result is True.

        The table stays, and the rows keep their ids as deleted ones: the next insert goes on counting.

        Refuses with ValueError when the table is unknown, with TypeError when a value of a unique column can't be
        hashed, as a list that a load made of a tuple.
        Writes the file. What save raises then leaves the change in memory, where it makes every later change fail too.
        """

    def delete(self, table_name: str, row_id: int) -> bool:
        """Delete a row, or a deleted row again. The result is True.

        Its values become None, and no other row's id changes. The file leaves deleted rows out, so the next load gives
        smaller ids to the rows after it.

        Refuses with ValueError when the table is unknown, with IndexError when there is no such row id, with TypeError
        when a value of a unique column can't be hashed, as a list that a load made of a tuple.
        Writes the file. What save raises then leaves the change in memory, where it makes every later change fail too.
        """

    def select(self, table_name: str, conditions: Optional[Dict[str, Any]] = None, columns: Optional[List[str]] = None,
               limit: Optional[int] = None) -> List[Dict[str, Any]]:
        """The live rows whose values equal all conditions, as new dictionaries from column name to value.

        Conditions are not converted by the column's type. `columns` names the columns wanted; unknown names are
        ignored. `limit` is the most rows wanted; None and 0 mean all. Don't pass a negative one.

        One condition on a unique column is answered from its index: keys then come in the table's column order,
        rows in the order in which they got the value. Every other query scans: keys come in the order of `columns`,
        rows in that of their ids.

        Raises ValueError when the table is unknown, TypeError when a value looked up in an index can't be hashed,
        IndexError when a row that a load brought has too few values. Leaves the file alone.
        """

    def get_row(self, table_name: str, row_id: int) -> Dict[str, Any]:
        """The row of that id, as a new dictionary from column name to value.

        Raises ValueError when the table is unknown or the row deleted, IndexError when there is no such row id or the
        row has too few values. Leaves the file alone.
        """

    def _build_indexes(self, table_name: str) -> None:
        """Build the index of each unique column anew from the rows; drop every other index.

        To be called after `rows`, `columns` or a column's `unique` were changed directly.

        Raises KeyError when the table is unknown, TypeError when a value can't be hashed. What was built by then stays.
        Leaves the file alone.
        """

    def _build_index(self, table_name: str, column_name: str) -> None:
        """Build one column's index anew from the rows, whether the column is unique or not. It is kept from then on.

        Raises KeyError when the table is unknown, TypeError when a value can't be hashed. What was built by then stays.
        Leaves the file alone.
        """

    def _row_to_dict(self, table: Table, row: List[Any], columns: Optional[List[str]] = None) -> Dict[str, Any]:
        """A stored row as a new dictionary in table column order, of these columns or of all.

        Reading and the uniqueness test go through it: redefine it to change what rows look like.

        Raises IndexError when the row is too short. Leaves the file alone.
        """

    def _validate_row(self, table: Table, data: Dict[str, Any], update: bool = False) -> Dict[str, Any]:
        """One converted and checked value for each column of the table. Stores nothing.

        insert and update call it before they change anything: redefine it to add checks, and raise ValueError to
        refuse a row. `update` is true when update calls; None then passes in required columns.

        Raises what insert raises when it refuses a row. Leaves the file alone.
        """

    def _dict_to_row_id(self, table: Table, data: Dict[str, Any]) -> Optional[int]:
        """The id of a row that holds these values, or None.

        A unique column's value that is in the index decides alone; otherwise the first live row wins that holds all
        of them.

        Raises TypeError when a unique column's value can't be hashed. Leaves the file alone.
        """

    def _project_row(self, row_dict: Dict[str, Any], columns: Optional[List[str]]) -> Dict[str, Any]:
        """A copy of the dictionary, or a new one with these keys in this order, without those that it doesn't have.

        Leaves the file alone.
        """

    def save(self) -> None:
        """Write the whole database to `filename`. Every change calls it: redefine it to put off writing.

        Raises OSError when the file can't be written; UnicodeEncodeError, which is a ValueError, for a string that
        UTF-8 can't hold; ValueError for a list or dictionary that contains itself and for an integer of over 4,300
        digits; RecursionError for very deep nesting; TypeError for a dictionary stored as a value whose keys JSON
        doesn't know; AttributeError for an item of `columns` that is no Column; and what the str() of a value raises.
        Where both the path and a value are bad, the path's error is raised. The database in memory is as before then,
        and so is the file, unless the new one is in place and only its flushing to the disk failed.
        """

    def load(self) -> None:
        """Replace `tables` with what the file holds, if there is a file.

        Rows are numbered from 0 without the deleted ones. Dates come back as strings. Changes that were not written are
        dropped.

        Prints a line and raises when the file can't be read: OSError; json.JSONDecodeError or UnicodeDecodeError
        (both are ValueErrors) for a file that is no JSON; KeyError, AttributeError or TypeError for JSON of another
        shape.
        Leaves the file alone.
        """

    def display_table(self, table_name: str, limit: int = 10) -> None:
        """Print the live rows as aligned text, at most `limit` of them; 0 means all.

        An unknown table is reported by a printed line, not by an exception. Leaves the file alone.
        """
