"""Every system call of a save fails, stops half way or is the process's last."""

import errno
import itertools
import os
import signal
import stat
import unittest

from fault_support import (
    FAIL, KILL, LIBRARY, LONG, OPERATIONS, PATH, SHAPES, SHORTEN,
    WRITING, FaultTest, SystemFault, fresh, listing, old_and_new, outcome, read, reset, saved, sweep)


def plans(names):
    """Writing in pieces goes the same way in every shape."""
    return [(name, shape) for name, shape in itertools.product(names, SHAPES)
            if LONG or name != "insert much" or shape in ("plain", "linkat")]


def faults(number):
    for error in (errno.ENOSPC, errno.EEXIST, errno.EPERM):
        yield SystemFault(FAIL, number + 1, error=error)
    yield SystemFault(FAIL, number + 1, number + 3, errno.EINTR)
    if number == 0:
        yield SystemFault(SHORTEN)


def system_calls(cases, names):
    for name, shape in plans(names):
        sweep(cases, name, faults, shape=shape)


def flushes(cases):
    """What is on the disk when a call returns: the new file, before it takes the old one's place, also where
    it is a copy of one without a name; that it has a name; the folder after it has changed."""
    for name, shape in itertools.product(WRITING, ("plain", "linkat")):
        with cases(name, shape):
            old_and_new(name, shape)
            watched = SystemFault(FAIL, 10 ** 6)
            outcome(OPERATIONS[name], fresh(), fault=watched)
            last = {call: position for position, call in enumerate(watched.names)}
            renamed = last["renameat"]
            cases.assertIn("fsync", watched.names[max(last["write"], last.get("sendfile", 0)):renamed])
            cases.assertGreater(last["fsync"], last.get("linkat", 0))
            cases.assertIn("fsync-folder", watched.names[renamed:])


def killed_at(number, name):
    """Whether the operation gets as far as this call, which is then its process's last."""
    child = os.fork()
    if child == 0:
        SystemFault(KILL, number).arm()
        outcome(OPERATIONS[name], fresh())
        os._exit(0)
    return os.waitpid(child, 0)[1] == signal.SIGKILL


def kills(cases, names):
    """The file is the old or the new one. What else is left was never more accessible than the file. Where
    there are files without names, little is left: a new one gets its name right before the renaming."""
    os.umask(0o022)
    for name, shape in plans(names):
        content, old, new, _ = old_and_new(name, shape)
        killed, leaving, allowed = True, 0, old.mode or new.mode
        for number in itertools.takewhile(lambda _: killed, itertools.count(1)):
            with cases(name, shape, number):
                reset(content, shape)
                killed = killed_at(number, name)
                cases.assertIn(read(), (old.file, new.file))
                left = sorted(set(listing()) - {*old.listing, f"./{PATH}"})
                leaving += len(left)
                cases.assertLessEqual(len(left), killed)
                for path in left:
                    cases.assertRegex(path, r"^\./(sub/)?\.json_database-[0-9a-f]+\.tmp$")
                    mode = stat.S_IMODE(os.stat(path).st_mode)
                    cases.assertEqual(oct(mode | allowed), oct(allowed))
                    if old.file and mode & 0o077:
                        cases.assertEqual(os.stat(path)[4:6], os.stat(PATH)[4:6], "owner and group")
                cases.assertEqual(saved(fresh()), content)
                cases.assertEqual(listing(), sorted({*old.listing, f"./{PATH}", *left}))
        if shape not in ("missing", "unnamed", "linkat"):
            with cases(name, shape, "left"):
                cases.assertIn(leaving, (1, 2))


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class Disk(FaultTest):
    some = (*WRITING, "insert much") if LONG else ("insert", "insert much")

    def test_every_system_call(self):
        self.in_child(system_calls, self.some, least=2000 if LONG else 600)

    def test_flushes(self):
        self.in_child(flushes, least=2 * len(WRITING))

    def test_killed_at_every_system_call(self):
        self.in_child(kills, self.some, least=700 if LONG else 200)
