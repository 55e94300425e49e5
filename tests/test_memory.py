"""The database without memory: every allocation fails in turn, and nothing leaks."""

import ctypes
import gc
import importlib.util
import itertools
import os
import sys
import threading
import unittest

from fault_support import (
    LIBRARY, LONG, NO_MALLOC, OPERATIONS, SANITIZED, FaultTest, NoMemory, SystemFault, fresh,
    outcome, reset, saved, sweep)
from support import JSONDatatable


def allocations(cases, stride):
    for name in OPERATIONS:
        sweep(cases, name, lambda n: (NoMemory(n, 0), NoMemory(n, n + 1)), stride)


def outer_allocations(cases):
    with cases("a thread's first call and error"):
        db, got, fault = fresh(), [], SystemFault(NO_MALLOC, 1, 10 ** 6)
        thread = threading.Thread(target=lambda: got.extend(outcome(db.get_row, "t", 2, fault=fault)[0]))
        thread.start()
        thread.join()
        cases.assertIn(got[0], (ValueError, MemoryError))
    for name in OPERATIONS:
        sweep(cases, name, lambda n: (SystemFault(NO_MALLOC, n + 1, 10 ** 6), SystemFault(NO_MALLOC, n + 1)))


ERRORS = {
    "unhashable": lambda db: db.insert("t", {"s": [1], "k": 8}),
    "refused document": lambda db: db.insert("t", {"o": {(1,): 2}}),
    "folder": lambda db: setattr(db, "filename", "sub") or db.save(),
}


class Mallinfo(ctypes.Structure):
    _fields_ = [("counts", ctypes.c_size_t * 10)]


def held():
    """Blocks of the interpreter and bytes outside of it that are in use."""
    gc.collect()
    native = None if SANITIZED else getattr(ctypes.CDLL(None), "mallinfo2", None)
    if native:
        native.restype = Mallinfo
    return sys.getallocatedblocks(), native().counts[7] if native else 0


def leaks(cases, times):
    reset(b"")
    saved(fresh())
    for name, operation in {**OPERATIONS, **ERRORS}.items():
        with cases(name):
            descriptors, growths = os.listdir("/proc/self/fd"), []
            for _ in range(3):  # what is kept for good settles in one round or another, a leak in none
                before = held()
                for _ in range(times):
                    outcome(operation, fresh())
                growths.append([now - then for now, then in zip(held(), before)])
            blocks, size = map(min, zip(*growths))
            cases.assertLess(blocks, times / 4)
            cases.assertLess(size, 500 + times * 8)
            cases.assertEqual(os.listdir("/proc/self/fd"), descriptors)
    values = "t", {"k": object()}, ["s"], 10 ** 20
    for method in vars(JSONDatatable):
        with cases("arguments", method):
            counts = list(map(sys.getrefcount, values))
            for arguments in itertools.product((*values, None), repeat=3):
                for count in range(4):
                    outcome(getattr(fresh(), method), *arguments[:count])
            del arguments
            gc.collect()
            cases.assertEqual(list(map(sys.getrefcount, values)), counts)


class Memory(FaultTest):
    @unittest.skipUnless(importlib.util.find_spec("_testcapi"), "the interpreter has no _testcapi")
    def test_every_allocation(self):
        self.in_child(allocations, 1 if LONG else 13, least=800 if LONG else 70)

    @unittest.skipIf(SANITIZED, "the sanitizer has a malloc of its own")
    @unittest.skipUnless(LIBRARY, "no library to preload was built")
    def test_every_outer_allocation(self):
        self.in_child(outer_allocations, least=400)

    def test_leaks(self):
        self.in_child(leaks, 2000 if LONG else 200, least=40)
