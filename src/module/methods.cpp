// To add a method, add a row. The signature is written as in a `def` statement; host/signature.h says what an
// annotation asks of an argument.
#include "module/methods.h"

#include "display/display.h"
#include "persistence/load.h"
#include "persistence/save.h"
#include "query/convert.h"
#include "query/select.h"
#include "store/create.h"
#include "store/insert.h"
#include "store/remove.h"
#include "store/update.h"
#include "store/validate.h"

namespace jdb {

std::span<const Method> methods() {
    static constexpr Method table[] = {
        method<store::initialise>("__init__(self, filename='database.json')"),
        method<store::create_table>("create_table(self, table_name: str, columns: List[Column])",
                                    "Create a new table with specified column definitions"),
        method<store::insert>("insert(self, table_name: str, data: Dict[str, Any]) -> int",
                              "Insert a new row into the table (accepts dict but stores as list)"),
        method<store::update>("update(self, table_name: str, row_id: int, new_data: Dict[str, Any]) -> bool",
                              "Update an existing row"),
        method<store::clear_table>("clear_table(self, table_name: str) -> bool"),
        method<store::delete_row>("delete(self, table_name: str, row_id: int) -> bool",
                                  "Delete a row from the table (soft delete with None values)"),
        method<query::select>("select(self, table_name: str, conditions: Optional[Dict[str, Any]] = None, "
                              "columns: Optional[List[str]] = None, limit: Optional[int] = None) "
                              "-> List[Dict[str, Any]]",
                              "Query rows from the table with optional filtering (returns dicts)"),
        method<query::get_row>("get_row(self, table_name: str, row_id: int) -> Dict[str, Any]",
                               "Get a single row as a dictionary"),
        method<store::build_indexes>("_build_indexes(self, table_name: str)", "Build indexes for all indexed columns"),
        method<store::build_index>("_build_index(self, table_name: str, column_name: str)",
                                   "Build an index for a specific column"),
        method<query::row_to_dict>("_row_to_dict(self, table: Table, row: List[Any], "
                                   "columns: Optional[List[str]] = None) -> Dict[str, Any]",
                                   "Convert list-based row to dictionary"),
        method<store::validate_row>("_validate_row(self, table: Table, data: Dict[str, Any], update: bool = False) "
                                    "-> Dict[str, Any]",
                                    "Validate row data against column definitions"),
        method<query::dict_to_row_id>("_dict_to_row_id(self, table: Table, data: Dict[str, Any]) -> Optional[int]",
                                      "Try to find the row ID for a dictionary representation"),
        method<query::project_row>("_project_row(self, row_dict: Dict[str, Any], columns: Optional[List[str]]) "
                                   "-> Dict[str, Any]",
                                   "Select specific columns from a row dictionary"),
        method<persistence::save>("save(self)", "Save the entire database to JSON file (optimized format)"),
        method<persistence::load>("load(self)", "Load the database from JSON file (optimized format)"),
        method<display::display_table>("display_table(self, table_name: str, limit: int = 10)",
                                       "Display table contents in a readable format"),
    };
    return table;
}

}  // namespace jdb
