"""What a file name may lead to: links, modes, owners, access control lists, devices, mounts."""

import contextlib
import errno
import fcntl
import itertools
import os
import pathlib
import shutil
import signal
import stat
import subprocess
import unittest

from fault_support import (
    ACCESS, CAN_LIST, DEFAULT, FAIL, LIBRARY, OPERATIONS, PATH, Fault, FaultTest, SystemFault,
    access_list, fresh, library, listing, old_and_new, outcome, read, reset)
from support import DatabaseTest, run_python, unique


def inserted(path, fault=Fault()):
    """The error, if any, of an insert into the database at that path."""
    db = fresh()
    db.filename = path
    return outcome(OPERATIONS["insert"], db, fault=fault)[1]


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


def ordinary_user(cases):
    """What may not be replaced stays as it is, and the error says whether file or folder refused."""
    content, *_ = old_and_new("save")
    for folder, mode in ((".", 0o777), ("sticky", 0o1777), ("unreadable", 0o333)):
        os.makedirs(folder, exist_ok=True)
        os.chmod(folder, mode)
    for path, mode in (("protected", 0o444), ("sub/theirs", 0o666), ("sticky/theirs", 0o666)):
        shutil.copy(PATH, path)
        os.chmod(path, mode)
    there = listing()
    for path, error_number, about_folder in (
            ("protected", errno.EACCES, False), ("sub/theirs", errno.EACCES, True),
            ("sticky/theirs", errno.EPERM, True)):
        with cases(path), acting_as(1001, 1001, []):
            error = inserted(path)
            cases.assertEqual((error.errno, error.filename), (error_number, path))
            cases.assertEqual("directory" in error.strerror, about_folder, error)
            cases.assertEqual(read(path), content)
            cases.assertEqual(listing(), there)
    for state in ("a new file", "a file"):
        with cases(state, "in a folder that may not be read"), acting_as(1001, 1001, []):
            fault = SystemFault(FAIL)
            cases.assertIsNone(inserted("unreadable/new.json", fault))
            cases.assertIn("syncfs", fault.names[fault.names.index("renameat"):])


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
REFUSED = {
    "": 0, "fsetxattr": errno.EOPNOTSUPP, "fremovexattr": errno.EPERM, "getxattr": errno.ENOENT,
    "getxattr fgetxattr": errno.EACCES, "fchown": errno.ENOSYS, "fchown fsetxattr fchmod": errno.EINVAL}


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
    content, *_ = old_and_new("save")
    for (name, rights), default, refused, saver in itertools.product(
            LISTS.items(), (b"", GENEROUS), REFUSED, ("root", "owner", "named user")):
        with cases(name, default and "default list", refused, saver):
            reset(content)
            os.chmod(".", 0o777)
            os.chown(PATH, 1001, 2001)
            os.chmod(PATH, rights if isinstance(rights, int) else 0o600)
            if isinstance(rights, bytes):
                os.setxattr(PATH, ACCESS, rights)
            before = granted(PATH)
            os.setxattr(".", DEFAULT, default) if default else outcome(os.removexattr, ".", DEFAULT)
            library.fault_lack(refused.encode(), REFUSED[refused])
            with acting_as(*PERSONS.get(saver, (0, 0, []))):
                error = inserted(PATH)
            library.fault_lack(b"", 0)
            after = granted(PATH)
            if os.O_WRONLY not in before.get(saver, {os.O_WRONLY}):
                cases.assertIsInstance(error, PermissionError)
                cases.assertEqual(after, before)
                continue
            cases.assertIsNone(error)
            cases.assertNotEqual(read(), content)
            for person in PERSONS.keys() - {saver}:
                cases.assertLessEqual(after[person], before[person], person)
            if saver != "named user" and refused in ("", "getxattr"):
                cases.assertEqual(after, before)
                cases.assertEqual(os.stat(PATH).st_uid, 1001)


def mounted(cases):
    """In a name space of mounts that ends with the process."""
    content, old, *_ = old_and_new("save")
    with cases("mounted by itself"):
        subprocess.run(["mount", "--bind", PATH, PATH], check=True)
        error = inserted(PATH)
        cases.assertEqual((error.errno, error.filename), (errno.EBUSY, PATH))
        cases.assertEqual((read(), listing()), (content, old.listing))


CAN_MOUNT = shutil.which("unshare") and not subprocess.call("unshare -rm true 2>/dev/null", shell=True)


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
                self.assertEqual(os.readlink(self.at("first")), "sub/second")
                self.assertEqual(os.readlink(self.at("sub/second")), "real.json")
                self.assertEqual(sorted(os.listdir(self.at("sub"))), ["real.json", "second"])
                self.write(b"old", self.at("sub/real.json"))

    def test_links_of_more_than_a_path(self):
        """Neither the path nor what its link says is too long, but both together are."""
        folder = self.at(*["d" * 200] * 18)
        os.makedirs(folder)
        os.symlink("./" * 1000 + "n" * 255, os.path.join(folder, "link"))
        self.saved_to(os.fsencode(os.path.join(folder, "link")))
        self.assertEqual(sorted(os.listdir(folder)), ["link", "n" * 255])

    def test_special_files(self):
        """What is no regular file, or has no name, is opened and written."""
        os.mkfifo(self.at("fifo"))
        fifo = os.open(self.at("fifo"), os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, fifo)
        self.db.filename = self.at("fifo")
        self.db.save()
        self.assertEqual(os.read(fifo, 10 ** 5), self.content)
        with open(self.at("gone"), "wb") as gone:
            os.unlink(gone.name)
            self.saved_to(f"/proc/self/fd/{gone.fileno()}")
        self.assertEqual(sorted(os.listdir(self.folder)), ["database.json", "fifo"])
        reader, self.db.filename = os.pipe()
        os.close(reader)
        self.assertRaises(BrokenPipeError, self.db.save)

    def test_old_file_is_not_opened(self):
        self.addCleanup(signal.signal, signal.SIGIO, signal.signal(signal.SIGIO, signal.SIG_IGN))
        with open(self.path, "rb") as file:
            fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_RDLCK)
            self.db.save()
            self.assertEqual(fcntl.fcntl(file, fcntl.F_GETLEASE), fcntl.F_RDLCK)
            self.assertEqual(os.fstat(file.fileno()).st_nlink, 0)

    def test_audit(self):
        """A hook is told of a save what it is told when the file is opened otherwise, and may refuse it."""
        self.assertEqual(run_python("""
            import sys
            from talvern_client.utils.json_database import JSONDatatable
            def hook(event, values):
                if event == "open" and values[0] == "database.json":
                    seen.append(values)
                    assert len(seen) < 3
            db, seen = JSONDatatable("database.json"), []
            sys.addaudithook(hook)
            open("database.json", "w").close()
            db.save()
            try:
                db.save()
            except AssertionError:
                print(len(seen), len(set(seen)))
        """, self.folder), ["3 1"])

    def test_impossible_targets_fail_as_opening_does(self):
        for target, link in (("loop", "loop"), ("missing/target", "far"), (".", "here")):
            os.symlink(target, self.at(link))
        paths = ("", "here", "missing/x", "far", "loop", "database.json/x", "new/", "x" * 256, "\0", "\ud800")
        encoded = os.fsencode(self.at("missing", "x"))
        for target in (*map(self.at, paths), "", None, 1.5, -1, 9999, encoded, pathlib.Path("missing", "x")):
            with self.subTest(target):
                with self.assertRaises(Exception) as opening:
                    open(target, "w", encoding="utf-8")
                self.db.filename = target
                with self.unchanged(type(opening.exception), *opening.exception.args) as caught:
                    self.db.save()
                self.assertEqual(str(caught.exception), str(opening.exception))

    def test_mode(self):
        self.addCleanup(os.umask, os.umask(0o027))
        for mode in (0o640, 0o604):  # that of a first file, and one that it was given
            self.saved_to(self.at("new"))
            self.assertEqual(oct(os.stat(self.at("new")).st_mode), oct(stat.S_IFREG | mode))
            os.chmod(self.at("new"), 0o604)


@unittest.skipUnless(LIBRARY, "no library to preload was built")
class TargetsUnderFaults(FaultTest):
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
