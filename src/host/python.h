// The one include of Python.h, so that the macros that it asks for are defined in one place.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>
