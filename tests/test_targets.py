"""What a file name may lead to: links, modes, owners, access control lists, devices, mounts."""

import contextlib
import ctypes
import errno
import fcntl
import itertools
import os
import pathlib
import resource
import shutil
import signal
import stat
import subprocess
import sys
import unittest

from fault_support import (
    ACCESS, CAN_LIST, DEFAULT, FAIL, LIBRARY, LISTED, OPERATIONS, PATH, FaultTest, SystemFault, access_list, disagreement,
    fresh, lack, listing, old_and_new, outcome, read, reset, saved)
from support import DatabaseTest, unique
from test_hostile_objects import misbehave


def lose_rights():
    os.chmod(".", 0o777)
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(65534)
        os.setuid(65534)
        ctypes.CDLL(None).prctl(4, 1)  # else the process may not look at its own descriptors any more


def targets(cases):
    """What is written as it is, what another name leads to as well, what the system limits, what is told to others."""
    lose_rights()  # a fault may not harm the machine's own devices
    content, before, _ = old_and_new("save", "plain")
    gone, pipe, seen, limits = open("gone", "w+b", 0), os.pipe(), [], resource.getrlimit(resource.RLIMIT_FSIZE)
    os.unlink("gone")
    os.mkfifo("fifo")
    fifo = os.open("fifo", os.O_RDONLY | os.O_NONBLOCK)
    for target, error_number, contents in (
            ("fifo", None, lambda: os.read(fifo, 10 ** 5)), ("/dev/null", None, None), ("/dev/full", errno.ENOSPC, None),
            (f"/proc/self/fd/{pipe[1]}", None, lambda: os.read(pipe[0], 10 ** 5)),
            (f"/proc/self/fd/{gone.fileno()}", None, gone.read), (pipe[1], None, lambda: os.read(pipe[0], 10 ** 5))):
        with cases(target):
            db, kind = fresh(), None if isinstance(target, int) else os.stat(target).st_mode
            db.filename = target
            _, error = outcome(db.save)
            assert error_number == getattr(error, "errno", None), error
            assert contents is None or contents() == content
            assert kind is None and outcome(os.fstat, target)[1] or os.stat(target).st_mode == kind
    with cases("hard link"):
        os.link(PATH, "twin")
        OPERATIONS["insert"](fresh())
        assert (read("twin"), os.stat("twin").st_nlink) == (content, 1)
    os.symlink(PATH, "link")
    for name in (PATH, "link"):
        with cases("limited size", name):
            resource.setrlimit(resource.RLIMIT_FSIZE, (len(read()) + 100, limits[1]))
            db, old, there = fresh(), read(), listing()
            db.filename = name
            _, error = outcome(db.insert, "t", {"o": "x" * (len(old) + 1000)})
            assert (error.errno, error.filename, read(), listing()) == (errno.EFBIG, name, old, there)
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
            assert saved(db) != old
    with cases("audit"):
        sys.addaudithook(lambda event, values: event == "open" and values[0] == PATH and seen.append(values) or (
            refused and values == refused[0] and misbehave(PermissionError)))
        refused = []
        for mode in "rw":
            open(PATH, mode, encoding="utf-8").close()
        fresh().save()
        fresh().load()
        assert seen[2:] == [seen[1], seen[0]], seen
        old, refused = read(), seen[1:2]
        assert isinstance(outcome(OPERATIONS["insert"], fresh())[1], PermissionError) and read() == old


def ordinary_user(cases):
    """Also: what was another group's may not be given to this one, nor what the others had to that group."""
    reset(b"")
    content = saved(fresh())
    modes = {"protected": 0o444, "sub/in a protected folder": 0o666, "narrow": 0o662, "wide": 0o646}
    for path, mode in modes.items():
        with open(path, "wb") as file:
            file.write(content)
        os.chmod(path, mode)
    os.mkdir("sticky", 0o777)
    shutil.copy("narrow", "sticky/theirs")
    os.chmod("sticky/theirs", 0o666)
    os.chmod("sticky", 0o1777)
    lose_rights()
    for path, mode in modes.items():
        with cases(path):
            db, before, had = fresh(), listing(), os.stat(path)
            db.filename = path
            _, error = outcome(OPERATIONS["insert"], db)
            assert listing() == before
            if "protected" in path:
                assert (type(error), error.filename, read(path)) == (PermissionError, path, content), error
                assert ("directory" in error.strerror) == ("folder" in path), error
                continue
            now = os.stat(path)
            assert error is None and read(path) != content, error
            both = mode >> 3 & mode & 0o007
            assert now.st_gid == had.st_gid and now.st_mode & 0o077 == mode & 0o077 or (
                now.st_mode & 0o077 == both << 3 | both), oct(now.st_mode)
    with cases("another's file in a sticky folder"):
        db, before = fresh(), listing()
        db.filename = "sticky/theirs"
        _, error = outcome(OPERATIONS["insert"], db)
        assert (error.errno, error.filename, listing()) == (errno.EPERM, "sticky/theirs", before), error
        assert "directory" in error.strerror, error
    with cases("a folder that may not be read"):
        os.mkdir("unreadable", 0o300)
        for shape in ("missing", "existing"):
            fault, db = SystemFault(FAIL, 0), fresh()
            db.filename = "unreadable/new.json"
            assert outcome(db.save, fault=fault)[1] is None and read(db.filename) == content
            after_renaming = fault.names[fault.names.index("renameat"):]
            assert after_renaming == ["renameat", "fsync", "close", "release"], (shape, after_renaming)
            os.chmod("unreadable", 0o300)


# Who uses the file of user 1001 and group 2001, by user, group and further groups.
PERSONS = {"owner": (1001, 3001, [2001]), "group": (1002, 2001, []), "named user": (1003, 3003, []),
           "named group": (1004, 2004, []), "shut out": (1005, 3005, []), "stranger": (1006, 3006, [])}
LISTS = {
    "named user": access_list(("owner", 6), ("user", 6, 1003), ("owning group", 0), ("mask", 6), ("others", 0)),
    "named group": access_list(("owner", 6), ("owning group", 0), ("group", 4, 2004), ("mask", 4), ("others", 0)),
    "mask": access_list(("owner", 6), ("user", 6, 1003), ("owning group", 6), ("mask", 4), ("others", 0)),
    "a person shut out": access_list(("owner", 6), ("user", 6, 1003), ("user", 0, 1005), ("owning group", 4),
                                     ("mask", 6), ("others", 4)),
    "all but one": access_list(("owner", 6), ("user", 6, 1003), ("owning group", 0), ("mask", 6), ("others", 6)),
}
GENEROUS = access_list(("owner", 7), ("user", 7, 1005), ("owning group", 7), ("group", 7, 2004), ("mask", 7), ("others", 7))
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
    """Whoever saves, and whatever the system doesn't grant: nobody else can do more with the file than before."""
    os.umask(0o077)
    content, *_ = old_and_new("save", "plain")
    for (name, rights), default, refused, saver in itertools.product(
            [*LISTS.items(), ("no list", 0o640), ("the group shut out", 0o604)], (None, GENEROUS), REFUSED,
            ("root", "owner", "named user")):
        with cases(name, default and "default list", refused, saver):
            reset(content)
            os.chmod(".", 0o777)
            os.chown(PATH, 1001, 2001)
            os.chmod(PATH, 0o600 if isinstance(rights, bytes) else rights)
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
                assert after == before and os.stat(PATH).st_uid == 1001, (before, after)


def lacking(cases):
    """What the system has no call for is done without it, and completely."""
    for shape, calls, errors in (
            ("plain", "unnamed", (errno.EISDIR, errno.ENOENT, errno.EINVAL)), ("plain", "linkat", (errno.ENOENT, errno.EPERM)),
            ("plain", "getrandom", (errno.ENOSYS, errno.EPERM, errno.EAGAIN)), ("plain", "faccessat", (errno.EPERM,)),
            ("private", "fchmod", (errno.EIO,)), ("listed", "getxattr", (errno.ENOENT, errno.EACCES)),
            ("owned", "fchown", (errno.EINVAL, errno.ENOSYS, errno.EOPNOTSUPP))):
        if shape == "listed" and not CAN_LIST or shape == "owned" and os.getuid() != 0:
            continue
        for number in errors:
            with cases(shape, calls, errno.errorcode[number]):
                _, (_, content, before, mode), (_, _, new, _) = old_and_new("insert", shape)
                reset(content, shape)
                lack(calls, number)
                _, error = outcome(OPERATIONS["insert"], fresh())
                lack()
                assert (error, read(), listing()) == (None, new, before), error
                now = stat.S_IMODE(os.stat(PATH).st_mode)
                assert now == mode or calls == "fchown" and now & ~mode == 0, oct(now)
                assert shape != "listed" or os.getxattr(PATH, ACCESS) == LISTED


def mounted(cases):
    """In a name space of mounts that ends with the process."""
    content, *_ = old_and_new("save", "plain")
    with cases("mounted by itself"):
        subprocess.run(["mount", "--bind", PATH, PATH], check=True)
        _, error = outcome(OPERATIONS["insert"], fresh())
        assert (error.errno, error.filename) == (errno.EBUSY, PATH), error
        assert (read(), listing()) == (content, [f"./{PATH}"])
    with cases("full disk"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", "sub"], check=True)
        os.chdir("sub")
        with open("ballast", "wb") as ballast:
            ballast.write(bytes(2 ** 15))
        db, error = fresh(), None
        while error is None:
            content = saved(db)
            _, error = outcome(db.insert, "t", {"o": "x" * 1000})
        assert (error.errno, error.filename) == (errno.ENOSPC, PATH), error
        assert (read(), listing()) == (content, ["./ballast", f"./{PATH}"]) and not disagreement(db)
        os.unlink("ballast")
        assert len(saved(db)) > len(content) + 1000
        os.chdir("..")


CAN_MOUNT = bool(shutil.which("unshare")) and not subprocess.run(["unshare", "-rm", "true"], capture_output=True).returncode


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
        for name in ("n" * 255, os.fsencode("é" * 127), pathlib.Path("p"), "new\nline", os.fsdecode(b"\xff")):
            with self.subTest(name):
                path = os.path.join(os.fsencode(self.folder) if isinstance(name, bytes) else self.folder, name)
                self.saved_to(pathlib.Path(path) if isinstance(name, pathlib.Path) else os.path.relpath(path))
                os.remove(path)
                self.assertEqual(os.listdir(self.folder), ["database.json"])

    def test_links_of_more_than_a_path(self):
        folders = [str(number) * 200 for number in range(9)]
        descriptors = [os.open(self.folder, os.O_RDONLY)]
        for folder in folders * 3:
            os.mkdir(folder, dir_fd=descriptors[-1])
            descriptors.append(os.open(folder, os.O_RDONLY, dir_fd=descriptors[-1]))
        os.symlink("/".join([*folders, "..", *folders[-1:], "end"]), "link", dir_fd=descriptors[18])
        with open(os.open("end", os.O_RDWR | os.O_CREAT, dir_fd=descriptors[-1]), "rb") as file:
            self.db.filename = self.at(*folders * 2, "link")
            self.db.save()
            self.assertEqual(file.read(), b"")  # replaced, not written
        self.assertEqual(self.read(self.db.filename), self.content)
        for descriptor in descriptors:
            self.assertEqual(set(os.listdir(descriptor)) - {*folders, "link", "end", "database.json"}, set())
            os.close(descriptor)

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
        names = ["", "here", "missing/x", "far", "loop", "database.json/x", "new/", "database.json/", "x" * 256, "nul\0", "\ud800"]
        for target in [*map(self.at, names), "", None, 1.5, -1, 9999, os.fsencode(self.at("missing", "x")),
                       pathlib.Path(self.at("missing", "x"))]:
            with self.subTest(target):
                with self.assertRaises(Exception) as opening:
                    open(target, "w", encoding="utf-8")
                self.db.filename = target
                with self.unchanged(type(opening.exception), *opening.exception.args) as caught:
                    self.db.save()
                self.assertEqual(getattr(caught.exception, "filename", 0), getattr(opening.exception, "filename", 0))

    def test_mode_and_owner(self):
        self.addCleanup(os.umask, os.umask(0o027))
        self.saved_to(self.at("new"))
        self.assertEqual(stat.S_IMODE(os.stat(self.at("new")).st_mode), 0o640)
        if os.getuid() == 0:
            os.chown(self.at("new"), 1, 2)
        os.chmod(self.at("new"), 0o604)
        before = os.stat(self.at("new"))
        self.saved_to(self.at("new"))
        self.assertEqual(os.stat(self.at("new"))[:1] + os.stat(self.at("new"))[4:6], before[:1] + before[4:6])


class TargetsUnderFaults(FaultTest):
    def test_targets(self):
        self.in_child(targets, least=10)

    @unittest.skipUnless(LIBRARY, "no library to preload was built")
    def test_lacking_calls(self):
        self.in_child(lacking)

    @unittest.skipUnless(LIBRARY, "no library to preload was built")
    @unittest.skipUnless(os.getuid() == 0, "only root can become another user")
    @unittest.skipUnless(CAN_LIST, "the file system has no access control lists")
    def test_access_rights(self):
        self.in_child(access_rights)

    @unittest.skipUnless(LIBRARY, "no library to preload was built")
    @unittest.skipUnless(os.getuid() == 0, "only root can become another user")
    def test_ordinary_user(self):
        self.in_child(ordinary_user, least=4)

    @unittest.skipUnless(CAN_MOUNT, "mounting is not permitted here")
    def test_mounts(self):
        self.in_child(mounted, least=2, through=("unshare", "-rm"))


if __name__ == "__main__":
    unittest.main()
