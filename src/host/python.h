// The one include of the interpreter's headers, so that its required macros are set in one place.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>
