"""What a file name may lead to: links, modes, owners, access control lists, devices, mounts."""

import contextlib
import ctypes
import errno
import fcntl
import itertools
import os
import pathlib
import shutil
import signal
import stat
import subprocess
import sys
import unittest

from fault_support import (
    ACCESS, CAN_LIST, DEFAULT, FAIL, LIBRARY, LISTED, OPERATIONS, PATH, SHAPES, FaultTest, SystemFault,
    access_list, fresh, lack, listing, old_and_new, outcome, read, reset, saved)
from support import DatabaseTest, unique


def lose_rights():
    os.chmod(".", 0o777)
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(65534)
        os.setuid(65534)
        ctypes.CDLL(None).prctl(4, 1)  # else the process may not look at its own descriptors any more


def targets(cases):
    """What is written as it is, what has two names, what is told to others."""
    lose_rights()  # a fault may not harm the machine's own devices
    content, *_ = old_and_new("save", "plain")
    gone, (pipe, into_pipe) = open("gone", "w+b", 0), os.pipe()
    os.unlink("gone")
    os.mkfifo("fifo")
    fifo = os.open("fifo", os.O_RDONLY | os.O_NONBLOCK)
    for target, error_number, written in (
            ("fifo", None, lambda: os.read(fifo, 10 ** 5)), ("/dev/full", errno.ENOSPC, lambda: content),
            (f"/proc/self/fd/{into_pipe}", None, lambda: os.read(pipe, 10 ** 5)),
            (f"/proc/self/fd/{gone.fileno()}", None, gone.read), (into_pipe, None, lambda: os.read(pipe, 10 ** 5))):
        with cases(target):
            db, mode = fresh(), isinstance(target, str) and os.stat(target).st_mode
            db.filename = target
            _, error = outcome(db.save)
            assert (getattr(error, "errno", None), written()) == (error_number, content), error
            assert not mode or os.stat(target).st_mode == mode
    with cases("hard link"):
        os.link(PATH, "twin")
        OPERATIONS["insert"](fresh())
        assert (read("twin"), os.stat("twin").st_nlink) == (content, 1)
    with cases("audit"):
        seen, refused = [], []

        def hook(event, values):
            if event == "open" and values[0] == PATH:
                seen.append(values)
                if values in refused:
                    raise PermissionError

        sys.addaudithook(hook)
        open(PATH, "w", encoding="utf-8").close()
        fresh().save()
        assert seen == seen[:1] * 2, seen
        old, refused = read(), seen[:1]
        assert isinstance(outcome(OPERATIONS["insert"], fresh())[1], PermissionError) and read() == old


def ordinary_user(cases):
    """What may not be replaced stays as it is, and the error says whether file or folder refused."""
    reset(b"")
    content = saved(fresh())
    os.mkdir("sticky")
    for path, mode in (("protected", 0o444), ("sub/theirs", 0o666), ("sticky/theirs", 0o666)):
        shutil.copy(PATH, path)
        os.chmod(path, mode)
    os.chmod("sticky", 0o1777)
    lose_rights()
    for path, error_number, about_folder in (
            ("protected", errno.EACCES, False), ("sub/theirs", errno.EACCES, True),
            ("sticky/theirs", errno.EPERM, True)):
        with cases(path):
            db, there = fresh(), listing()
            db.filename = path
            _, error = outcome(OPERATIONS["insert"], db)
            assert (error.errno, error.filename) == (error_number, path), error
            assert (read(path), listing()) == (content, there)
            assert ("directory" in error.strerror) == about_folder, error
    os.mkdir("unreadable", 0o300)
    for state in ("a new file", "a file"):
        with cases(state, "in a folder that may not be read"):
            fault, db = SystemFault(FAIL), fresh()
            db.filename = "unreadable/new.json"
            assert outcome(db.save, fault=fault)[1] is None and read(db.filename) == content
            after_renaming = fault.names[fault.names.index("renameat"):]
            assert after_renaming == ["renameat", "fsync", "close", "release"], after_renaming


# Who uses the file of user 1001 and group 2001, by user, group and further groups.
PERSONS = {"owner": (1001, 3001, [2001]), "group": (1002, 2001, []), "named user": (1003, 3003, []),
           "named group": (1004, 2004, []), "shut out": (1005, 3005, []), "stranger": (1006, 3006, [])}
OWNER, NAMED, SHUT_OUT = ("owner", 6), ("user", 6, 1003), ("user", 0, 1005)
LISTS = {
    "named user": access_list(OWNER, NAMED, ("owning group", 0), ("mask", 6), ("others", 0)),
    "named group": access_list(OWNER, ("owning group", 0), ("group", 4, 2004), ("mask", 4), ("others", 0)),
    "mask": access_list(OWNER, NAMED, ("owning group", 6), ("mask", 4), ("others", 0)),
    "a person shut out": access_list(OWNER, NAMED, SHUT_OUT, ("owning group", 4), ("mask", 6), ("others", 4)),
    "all but one": access_list(OWNER, NAMED, ("owning group", 0), ("mask", 6), ("others", 6)),
    "no list": 0o640,
    "the group shut out": 0o604,
}
GENEROUS = access_list(
    ("owner", 7), ("user", 7, 1005), ("owning group", 7), ("group", 7, 2004), ("mask", 7), ("others", 7))
REFUSED = ("", "fsetxattr", "fremovexattr", "getxattr", "getxattr fgetxattr", "fchown", "fchown fsetxattr fchmod")


@contextlib.contextmanager
def acting_as(user, group, groups):
    os.setgroups(groups)
    os.setegid(group)
    os.seteuid(user)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups([])


def granted(path):
    """What each person can open the file for."""
    rights = {}
    for person, ids in PERSONS.items():
        with acting_as(*ids):
            rights[person] = {access for access in (os.O_RDONLY, os.O_WRONLY)
                              if outcome(lambda: os.close(os.open(path, access)))[1] is None}
    return rights


def access_rights(cases):
    """Whoever saves, and whatever the system doesn't grant: nobody else can do more with the file."""
    os.umask(0o077)
    content, *_ = old_and_new("save", "plain")
    for (name, rights), default, refused, saver in itertools.product(
            LISTS.items(), (b"", GENEROUS), REFUSED, ("root", "owner", "named user")):
        with cases(name, default and "default list", refused, saver):
            reset(content)
            os.chmod(".", 0o777)
            os.chown(PATH, 1001, 2001)
            os.chmod(PATH, rights if isinstance(rights, int) else 0o600)
            if isinstance(rights, bytes):
                os.setxattr(PATH, ACCESS, rights)
            before, db = granted(PATH), fresh()
            os.setxattr(".", DEFAULT, default) if default else outcome(os.removexattr, ".", DEFAULT)
            lack(refused, errno.EPERM)
            with acting_as(*PERSONS.get(saver, (0, 0, []))):
                _, error = outcome(OPERATIONS["insert"], db)
            lack()
            after = granted(PATH)
            if os.O_WRONLY not in before.get(saver, {os.O_WRONLY}):
                assert isinstance(error, PermissionError) and after == before, (error, before, after)
                continue
            assert error is None and read() != content, error
            gained = {person for person in PERSONS if person != saver and not after[person] <= before[person]}
            assert not gained, (gained, before, after)
            if saver != "named user" and refused in ("", "getxattr"):
                assert (after, os.stat(PATH).st_uid) == (before, 1001), before


# What the system may have no call for, in files of what shape, and the errors by which it says so.
LACKING = (
    ("plain", "unnamed", (errno.EISDIR, errno.ENOENT, errno.EINVAL)),
    ("plain", "linkat", (errno.ENOENT, errno.EPERM)),
    ("plain", "getrandom", (errno.ENOSYS, errno.EPERM, errno.EAGAIN)), ("plain", "faccessat", (errno.EPERM,)),
    ("private", "fchmod", (errno.EIO,)), ("listed", "getxattr", (errno.ENOENT, errno.EACCES)),
    ("owned", "fchown", (errno.EINVAL, errno.ENOSYS, errno.EOPNOTSUPP)))


def lacking(cases):
    """What the system has no call for is done without it, and completely."""
    for shape, calls, errors in LACKING:
        for number in errors if shape in SHAPES else ():
            with cases(shape, calls, errno.errorcode[number]):
                _, (_, content, before, mode), (_, _, new, _) = old_and_new("insert", shape)
                reset(content, shape)
                lack(calls, number)
                _, error = outcome(OPERATIONS["insert"], fresh())
                lack()
                assert (error, read(), listing()) == (None, new, before), error
                now = stat.S_IMODE(os.stat(PATH).st_mode)
                assert now == (0o600 if calls == "fchown" else mode), oct(now)
                assert shape != "listed" or os.getxattr(PATH, ACCESS) == LISTED


def mounted(cases):
    """In a name space of mounts that ends with the process."""
    content, *_ = old_and_new("save", "plain")
    with cases("mounted by itself"):
        subprocess.run(["mount", "--bind", PATH, PATH], check=True)
        _, error = outcome(OPERATIONS["insert"], fresh())
        assert (error.errno, error.filename) == (errno.EBUSY, PATH), error
        assert (read(), listing()) == (content, [f"./{PATH}"])


CAN_MOUNT = shutil.which("unshare") and not subprocess.call(["unshare", "-rm", "true"], stderr=subprocess.DEVNULL)


class Targets(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.table(unique("a"), rows=["é"])
        self.content = self.read()

    def saved_to(self, filename):
        self.db.filename = filename
        self.db.save()
        self.assertEqual(self.read(filename), self.content)

    def test_links_stay_links(self):
        os.mkdir(self.at("sub"))
        os.symlink("sub/second", self.at("first"))
        os.symlink("real.json", self.at("sub", "second"))
        for state in ("dangling", "existing"):
            with self.subTest(state):
                self.saved_to(self.at("first"))
                self.assertTrue(os.path.islink(self.at("first")) and os.path.islink(self.at("sub/second")))
                self.assertEqual(sorted(os.listdir(self.at("sub"))), ["real.json", "second"])
                self.write(b"old", self.at("sub/real.json"))

    def test_names(self):
        os.chdir(self.folder)
        self.addCleanup(os.chdir, "/")
        for name in ("n" * 255, os.fsencode("é" * 127), pathlib.Path("p"), "new\nline", os.fsdecode(b"\xff")):
            with self.subTest(name):
                self.saved_to(name)
                os.remove(name)
                self.assertEqual(os.listdir(), ["database.json"])

    def test_links_of_more_than_a_path(self):
        """Neither the path nor what its link says is too long, but both together are."""
        folder = self.at(*["d" * 200] * 18)
        os.makedirs(folder)
        os.symlink("./" * 1000 + "end", os.path.join(folder, "link"))
        self.saved_to(os.path.join(folder, "link"))
        self.assertEqual(sorted(os.listdir(folder)), ["end", "link"])

    def test_old_file_is_not_opened(self):
        self.addCleanup(signal.signal, signal.SIGIO, signal.signal(signal.SIGIO, signal.SIG_IGN))
        with open(self.path, "rb") as file:
            fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_RDLCK)
            self.db.save()
            self.assertEqual(fcntl.fcntl(file, fcntl.F_GETLEASE), fcntl.F_RDLCK)
            self.assertEqual(os.fstat(file.fileno()).st_nlink, 0)

    def test_impossible_targets_fail_as_opening_does(self):
        for target, link in (("loop", "loop"), ("missing/target", "far"), (".", "here")):
            os.symlink(target, self.at(link))
        paths = map(self.at, ("", "here", "missing/x", "far", "loop", "database.json/x", "new/", "x" * 256, "\0", "\ud800"))
        missing = self.at("missing", "x")
        for target in (*paths, "", None, 1.5, -1, 9999, os.fsencode(missing), pathlib.Path(missing)):
            with self.subTest(target):
                with self.assertRaises(Exception) as opening:
                    open(target, "w", encoding="utf-8")
                self.db.filename = target
                with self.unchanged(type(opening.exception), *opening.exception.args) as caught:
                    self.db.save()
                self.assertEqual(vars(caught.exception), vars(opening.exception))
                self.assertEqual(str(caught.exception), str(opening.exception))

    def test_mode_and_owner(self):
        self.addCleanup(os.umask, os.umask(0o027))
        self.saved_to(self.at("new"))
        self.assertEqual(stat.S_IMODE(os.stat(self.at("new")).st_mode), 0o640)
        if os.getuid() == 0:
            os.chown(self.at("new"), 1, 2)
        os.chmod(self.at("new"), 0o604)
        mode, _, _, _, *owner = os.stat(self.at("new"))[:6]
        self.saved_to(self.at("new"))
        now = os.stat(self.at("new"))
        self.assertEqual((now.st_mode, [now.st_uid, now.st_gid]), (mode, owner))


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class TargetsUnderFaults(FaultTest):
    def test_targets(self):
        self.in_child(targets, least=7)

    def test_lacking_calls(self):
        self.in_child(lacking, least=9)

    @unittest.skipUnless(os.getuid() == 0, "only root can become another user")
    @unittest.skipUnless(CAN_LIST, "the file system has no access control lists")
    def test_access_rights(self):
        self.in_child(access_rights, least=len(LISTS) * len(REFUSED) * 2 * 3)

    @unittest.skipUnless(os.getuid() == 0, "only root can become another user")
    def test_ordinary_user(self):
        self.in_child(ordinary_user, least=5)

    @unittest.skipUnless(CAN_MOUNT, "mounting is not permitted here")
    def test_mounts(self):
        self.in_child(mounted, through=("unshare", "-rm"))
