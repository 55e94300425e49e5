"""What the sources may include, and how they call the interpreter.

Includes run one way: module, then the four topics side by side, then tables, then cpython310, then host.
"""

import pathlib
import re
import unittest

SOURCES = pathlib.Path(__file__).resolve().parent.parent / "src"
BELOW = {"host": set(), "cpython310": {"host"}, "tables": {"cpython310", "host"}}
BELOW.update(dict.fromkeys(("display", "query", "persistence", "store"), {"tables", "cpython310", "host"}))
BELOW["module"] = set(BELOW)

# Functions of the C API that run no Python code whatever they are given, as far as they are used here.
HARMLESS = re.compile(r"""Py_(TYPE|SIZE|SET_SIZE|X?INCREF|LeaveRecursiveCall|GetVersion)
    | Py\w+_(Check|CheckExact|AS_\w+|GET_\w+|SET_ITEM|IS_\w+|HasFeature|IsSubtype|IsValid|NARGS)
    | PyUnicode_(KIND|DATA|[124]BYTE_DATA|New|READY|Compare(WithASCIIString)?|AsUTF8|FromFormatV?|Intern\w+)
    | PyLong_(From(Ssize_t|LongLong)|AsUnsignedLong|AsSsize_t|AsLongLongAndOverflow) | PyNumber_AsSsize_t
    | PyFloat_FromDouble | PyLong_(As|From)VoidPtr | PyBytes_FromStringAndSize
    | PyMem_(Calloc|RawRealloc|RawFree) | PyList_(Append|Insert) | _?PyDict_Next | PyFunction_GetDefaults
    | PyModule_GetDict | PyCapsule_GetPointer | PyErr_(Occurred|ExceptionMatches|Fetch)
    | PyException_SetTraceback | PyGC_(En|Dis)able | PyObject_GC_(Track|IsTracked) | _PyObject_GetDictPtr
    | _PyType_Lookup | PySys_GetObject | PyThreadState_Get | PyEval_GetBuiltins
    | PyInterpreterState_Get(Dict)? | PyModuleDef_Init | PyInit_\w+""", re.VERBOSE)
OWN_WAY = {"exit.h", "ref.h", "system_call.h"}  # these see to it by themselves
# What only this version promises: private functions and types, and how objects are laid out in memory.
VERSIONS_OWN = re.compile(r"""\b(_Py\w+ | PyASCIIObject | PyCompactUnicodeObject | longintrepr | ob_digit
    | (dk|me)_\w+ | ma_(version_tag|keys|values|used) | tp_version_tag | tp_vectorcall_offset
    | Py_TPFLAGS_VALID_VERSION_TAG | exc_(info|state))\b""", re.VERBOSE)


def sources():
    """(path below src, text without comments and words of messages) of each."""
    for file in sorted(SOURCES.glob("**/*.[ch]*")):
        text = re.sub(r"//.*|(?<!include )\"[^\"\n]*\"", "", file.read_text())
        yield file.relative_to(SOURCES), text


class Layout(unittest.TestCase):
    def test_a_thread_may_rest_where_python_code_may_run(self):
        """Such calls go through python(), and stand in no catch block."""
        wrong = []
        for file, text in sources():
            wrong += [f"{file}: {name}" for name in re.findall(r"\b(_?Py[A-Z]?\w*_\w+)\(", text)
                      if not HARMLESS.fullmatch(name) and file.name not in OWN_WAY]
            # These two call no function of the interpreter within the block.
            wrong += [file] if "catch (" in text and file.name not in ("error.h", "exit.h") else []
        self.assertEqual(wrong, [])

    def test_what_one_version_promises_is_used_in_one_folder(self):
        used = {file: VERSIONS_OWN.search(text) for file, text in sources()}
        found = {str(file): match[0] for file, match in used.items() if match}
        self.assertGreater(len(found), 3)
        self.assertEqual([file for file in found.items() if not file[0].startswith("cpython310/")], [])

    def test_arrows(self):
        wrong = []
        for file, text in sources():
            folder = file.parent.name
            for quote, target in re.findall(r'#\s*include\s+([<"])([^>"]+)', text):
                inner, _, header = target.rpartition("/")
                if quote == '"' or inner in BELOW:
                    # The operations of `store` don't include each other either.
                    own = inner == folder and (inner != "store" or header == f"{file.stem}.h")
                    allowed = own or inner in BELOW[folder]
                else:
                    allowed = header != "Python.h" or str(file) == "host/python.h"
                if not allowed:
                    wrong.append(f"{file} -> {target}")
        self.assertEqual(wrong, [])
