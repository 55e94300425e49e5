// The methods of JSONDatatable, all declared in one table.
#pragma once

#include <span>

#include "host/function.h"

namespace jdb {

// The table's rows, in the order in which the class defines the methods.
std::span<const Method> methods();

}  // namespace jdb
