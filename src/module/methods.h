// The methods of JSONDatatable: the one table in which they are declared.
#pragma once

#include <span>

#include "host/function.h"

namespace jdb {

// In the order in which the class defines them.
std::span<const Method> methods();

}  // namespace jdb
