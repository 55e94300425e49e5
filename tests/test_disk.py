"""Every system call of a save fails, stops half way or is the process's last."""

import errno
import fcntl
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
            if LONG or name != "insert much" or shape == "plain"]


def faults(number):
    for error in (errno.ENOSPC, errno.EEXIST, errno.EPERM):
        yield SystemFault(FAIL, number + 1, error=error)
    yield SystemFault(FAIL, number + 1, number + 3, errno.EINTR)
    if number == 0:
        yield SystemFault(SHORTEN)


def system_calls(cases, names):
    for name, shape in plans(names):
        sweep(cases, name, faults, shape=shape)


def calls(name):
    """The system calls of an undisturbed operation."""
    old_and_new(name)
    watched = SystemFault(FAIL, 10 ** 6)
    outcome(OPERATIONS[name], fresh(), fault=watched)
    return watched.names


def flushes(cases):
    """What is on the disk when a call returns: the new file, before it takes the old one's place, with its
    access rights; the folder after it has changed."""
    for name in WRITING:
        with cases(name):
            names = calls(name)
            last = {call: position for position, call in enumerate(names)}
            cases.assertLess(max(last["write"], last["fchmod"]), last["fsync"])
            cases.assertLess(last["fsync"], last["renameat"])
            cases.assertIn("fsync-folder", names[last["renameat"]:])


def killed_at(number, name):
    """Whether the operation gets as far as this call, which is then its process's last."""
    child = os.fork()
    if child == 0:
        SystemFault(KILL, number).arm()
        outcome(OPERATIONS[name], fresh())
        os._exit(0)
    return os.waitpid(child, 0)[1] == signal.SIGKILL


def kills(cases, names):
    """The file is the old or the new one. What else is left was never more accessible than the file, and the
    next save over a file removes it where there are locks."""
    os.umask(0o022)
    for name, shape in plans(names):
        content, old, new, _ = old_and_new(name, shape)
        killed, allowed = True, old.mode or new.mode
        for number in itertools.takewhile(lambda _: killed, itertools.count(1)):
            with cases(name, shape, number):
                reset(content, shape)
                killed = killed_at(number, name)
                cases.assertIn(read(), (old.file, new.file))
                left = sorted(set(listing()) - {*old.listing, f"./{PATH}"})
                cases.assertLessEqual(len(left), killed)
                for path in left:
                    cases.assertRegex(path, r"^\./(sub/)?\.json_database-[0-9a-f]+\.tmp$")
                    mode = stat.S_IMODE(os.stat(path).st_mode)
                    cases.assertEqual(oct(mode | allowed), oct(allowed))
                    if old.file and mode & 0o077:
                        cases.assertEqual(os.stat(path)[4:6], os.stat(PATH)[4:6], "owner and group")
                cases.assertEqual(saved(fresh()), content)
                staying = left if shape in ("flock", "missing") else []
                cases.assertEqual(listing(), sorted({*old.listing, f"./{PATH}", *staying}))


def names_taken(cases):
    """What lies where the new file would be made, and is no left-over, stays as it is and leads nowhere."""
    def locked(name):
        descriptor = os.open(name, os.O_WRONLY | os.O_CREAT)
        fcntl.flock(descriptor, fcntl.LOCK_EX)

    content, _, new, _ = old_and_new("insert")
    reset(content)
    before = listing()
    killed_at(calls("insert").index("write"), "insert")
    name, = set(listing()) - set(before)
    for put in (locked, os.mkfifo, lambda name: os.link("sub/victim", name),
                lambda name: os.symlink("sub/victim", name)):
        reset(content)
        with open("sub/victim", "w", encoding="utf-8") as file:
            file.write("precious")
        put(name)
        there, before = os.lstat(name), listing()
        with cases(stat.filemode(there.st_mode)):
            outcome(OPERATIONS["insert"], fresh())
            cases.assertEqual(read(), new.file)
            cases.assertEqual(os.lstat(name)[:7], there[:7])
            cases.assertEqual((read("sub/victim"), listing()), (b"precious", before))


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class Disk(FaultTest):
    some = (*WRITING, "insert much") if LONG else ("insert", "insert much")

    def test_every_system_call(self):
        self.in_child(system_calls, self.some, least=2000 if LONG else 600)

    def test_flushes(self):
        self.in_child(flushes, least=len(WRITING))

    def test_killed_at_every_system_call(self):
        self.in_child(kills, self.some, least=500 if LONG else 150)

    def test_names_taken(self):
        self.in_child(names_taken, least=4)
