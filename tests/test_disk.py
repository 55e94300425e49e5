"""Every system call of a save fails, stops half way or is the process's last."""

import errno
import itertools
import os
import re
import signal
import stat
import unittest

from fault_support import (
    FAIL, INTERRUPT, KILL_AFTER, KILL_BEFORE, LIBRARY, LONG, OPERATIONS, PATH, PREDICT, SHAPES, SHORTEN,
    WRITING, FaultTest, SystemFault, fresh, listing, old_and_new, outcome, read, reset, saved, sweep)
from support import JSONDatatable


LEFT_OVER = r"\./(sub/)?\.json_database-[0-9a-f]+\.tmp"


def plans(names):
    """Writing in pieces goes the same way in every shape."""
    return [(name, shape) for name, shape in itertools.product(names, SHAPES)
            if LONG or name != "insert much" or shape in ("plain", "linkat")]


def system_calls(cases, names):
    for name, shape in plans(names):
        sweep(cases, name, lambda n: (
            *(SystemFault(FAIL, n + 1, error=error) for error in (errno.ENOSPC, errno.EEXIST, errno.EPERM)),
            *(SystemFault(action, n + 1, n + more) for action in (SHORTEN, INTERRUPT) for more in (1, 3))),
            shape=shape)


def flushes(cases):
    """What a call has written is on the disk when it returns: the new file before its rename, also where it is a
    copy of one without a name, then that the name is counted, then the folder."""
    for name, shape in itertools.product(WRITING, ("plain", "linkat")):
        with cases(name, shape):
            old_and_new(name, shape)
            watched = SystemFault(FAIL, 10 ** 6)
            outcome(OPERATIONS[name], fresh(), fault=watched)
            written = max(at for at, call in enumerate(watched.names) if call in ("write", "sendfile"))
            renamed = watched.names.index("renameat")
            assert "fsync" in watched.names[written:renamed], f"file not flushed: {watched.names}"
            assert watched.names[renamed + 1:renamed + 3] == ["fsync"] * 2, watched.names


def kills(cases, names):
    """Also: what is left behind was at no moment more accessible than the file, and where the system has files
    without names, something is left only by a kill between the naming and the renaming."""
    os.umask(0o022)
    for name, shape in plans(names):
        leaving = 0
        content, (_, old, before, _), (_, _, new, _) = old_and_new(name, shape)
        for step in itertools.count(2):
            number, action = step // 2, (KILL_BEFORE, KILL_AFTER)[step % 2]
            reset(content, shape)
            allowed = os.stat(PATH) if old else None
            child = os.fork()
            if child == 0:
                SystemFault(action, number).arm()
                outcome(OPERATIONS[name], fresh())
                os._exit(0)
            killed = os.waitpid(child, 0)[1] == signal.SIGKILL
            with cases(name, shape, number, action):
                assert read() in (old, new), f"file holds {read()}"
                left = sorted(set(listing()) - set(before) - {f"./{PATH}"})
                leaving += bool(left)
                assert len(left) <= killed and all(re.fullmatch(LEFT_OVER, path) for path in left), left
                for path in left:
                    status = os.stat(path)
                    mode, same = stat.S_IMODE(status.st_mode), allowed and status.st_uid == allowed.st_uid
                    assert mode & ~(stat.S_IMODE(allowed.st_mode) if allowed else 0o644) == 0, oct(mode)
                    if allowed and mode & 0o077:
                        assert same and status.st_gid == allowed.st_gid, status
                JSONDatatable(PATH)
                assert saved(fresh()) == content
                assert listing() == sorted({*before, f"./{PATH}", *left}), listing()
            if not killed:
                break
        with cases(name, shape, "left", leaving):
            assert leaving == 2 or leaving > 2 and shape in ("missing", "unnamed", "linkat"), leaving


def planted(cases):
    """Something lies where the new file would be made: it stays as it is and leads nowhere."""
    content, _, (_, _, new, _) = old_and_new("insert", "plain")
    name = f".json_database-{'0' * 16}.tmp"
    for plant in (lambda: os.symlink("sub/victim", name), lambda: os.symlink("sub/none", name),
                  lambda: os.link("sub/victim", name), lambda: os.mkfifo(name), lambda: os.mkdir(name)):
        for until, expected in ((1, (type(None), new)), (10 ** 6, (FileExistsError, content))):
            reset(content)
            with open("sub/victim", "w", encoding="utf-8") as file:
                file.write("precious")
            plant()
            there, before = os.lstat(name), listing()
            with cases(stat.filemode(there.st_mode), until):
                _, error = outcome(OPERATIONS["insert"], fresh(), fault=SystemFault(PREDICT, 1, until))
                assert (type(error), read()) == expected, error
                assert (read("sub/victim"), os.lstat(name)[:4], listing()) == (b"precious", there[:4], before)


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class Disk(FaultTest):
    some = (*WRITING, "insert much") if LONG else ("insert", "insert much")

    def test_every_system_call(self):
        self.in_child(system_calls, self.some, least=2000 if LONG else 600)

    def test_flushes(self):
        self.in_child(flushes, least=2 * len(WRITING))

    def test_killed_at_every_system_call(self):
        self.in_child(kills, self.some, least=700 if LONG else 200)

    def test_planted_names(self):
        self.in_child(planted, least=10)
