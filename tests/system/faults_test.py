"""System calls of the real process that fail, class by class, the 1st, 2nd, 3rd ... time: it lives, says what failed,
the next try heals, and the kernel is as desired afterwards."""
import errno
import itertools
import os
import unittest

import system_case
import faults
import netlab
import preload
from kill_storm import FILES

# function, error, on which descriptors
RUNNING = (
    ("sendto", "ENOBUFS", "netlink"), ("sendto", "EBUSY", "netlink"), ("sendto", "EINTR", "netlink"), ("sendto", "EPERM", "netlink"),
    ("recvfrom", "ENOBUFS", "netlink"), ("recvfrom", "EINTR", "netlink"),
    ("send", "SHORT", "unix"), ("send", "EINTR", "unix"), ("recv", "EINTR", "unix"), ("recv", "ECONNRESET", "unix"),
    ("accept4", "EMFILE", "any"), ("accept4", "EINTR", "any"), ("accept4", "ECONNABORTED", "any"),
    ("socket", "EMFILE", "any"), ("socket", "ENOBUFS", "any"),
    ("pwrite", "ENOSPC", "regular"), ("pwrite", "EIO", "regular"), ("pwrite", "SHORT", "regular"), ("pwrite", "EINTR", "regular"),
    ("fdatasync", "EIO", "regular"), ("open", "EMFILE", "any"),
    ("epoll_wait", "EINTR", "any"), ("read", "EINTR", "any"), ("write", "EINTR", "any"),
)
STARTING = RUNNING + (("bind", "EADDRINUSE", "any"), ("bind", "ENOMEM", "netlink"), ("open", "EACCES", "any"),
                      ("socket", "EACCES", "any"))
# Which calls of a class fail: this one behind so many that pass. PBR_FAULTS_ALL=N: each of the first N.
SKIPS = range(int(os.environ["PBR_FAULTS_ALL"])) if "PBR_FAULTS_ALL" in os.environ else (0, 1, 2, 4, 8, 16, 32)


class Running(system_case.LabCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.faults = faults.Faults()
        cls.addClassCleanup(cls.faults.close)

    def setUp(self):
        self.daemon = preload.Daemon(self.faults, options=self.options).start()
        self.addCleanup(self.daemon.close)
        self.addCleanup(self.mend_lab)
        self.addCleanup(self.flush)

    def check_clean(self, where):
        last = ""

        def question():
            nonlocal last
            done = self.daemon.ctl("check", check=False)
            last = done.stdout + done.stderr
            return done.returncode == 0

        self.assertTrue(self.daemon.until(question, 15), f"{where}: {last}" + "".join(self.daemon.errors[-10:]))

    def test_each_class_of_failure_while_a_policy_is_applied(self):
        names = itertools.cycle("ba")
        for name, error, kind in RUNNING:
            told = hit = 0
            for skip in SKIPS:
                text = FILES[next(names)]
                where = f"{name} {error} on {kind}, call {skip + 1}"
                log = len(self.daemon.errors)
                self.faults.set(name, error, skip, kind=kind)
                done = self.daemon.apply(text, check=False)
                happened = self.faults.clear()
                self.assertIsNone(self.daemon.process.poll(), f"{where}: the daemon died: " + "".join(self.daemon.errors[-9:]))
                if done.returncode != 0:
                    self.assertNotEqual("", done.stderr.strip(), where)
                again = self.daemon.apply(text, check=False)
                self.assertEqual(0, again.returncode, f"{where}: the next try: {again.stderr}" + "".join(self.daemon.errors[-9:]))
                self.check_clean(where)
                hit += happened
                told += done.returncode != 0 or len(self.daemon.errors) > log
                if not happened:
                    break
            print(f"{name} {error} on {kind}: {hit} calls failed, {told} times said so", flush=True)

    def test_a_failure_that_lasts_while_links_and_next_hops_change(self):
        for name, error, kind in (("sendto", "ENOBUFS", "netlink"), ("sendto", "EPERM", "netlink"), ("recvfrom", "ENOBUFS", "netlink"),
                                  ("pwrite", "ENOSPC", "regular"), ("pwrite", "EIO", "regular"), ("accept4", "EMFILE", "any")):
            self.daemon.apply(FILES["a"])
            self.all_by("upa")
            self.faults.set(name, error, 0, count=200, kind=kind)
            self.lab.link("upa", "down")
            log = len(self.daemon.errors)
            done = self.daemon.apply(FILES["b"], check=False)
            self.lab.link("upa", "up")
            self.assertGreater(self.faults.clear(), 0, f"{name} {error} never failed")
            said = done.stderr + "".join(self.daemon.errors[log:])
            if name in ("sendto", "pwrite"):
                self.assertRegex(said, os.strerror(getattr(errno, error)) + "|cannot be written|disk is full|disk I/O error")
            self.assertIsNone(self.daemon.process.poll(), f"{name} {error}: " + "".join(self.daemon.errors[-9:]))
            self.daemon.apply(FILES["a"])
            self.all_by("upa", seconds=15)
            self.check_clean(f"{name} {error} for a while")


class Starting(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.faults = faults.Faults()
        cls.addClassCleanup(cls.faults.close)
        cls.lab = netlab.Lab()
        cls.addClassCleanup(cls.lab.close)

    def test_each_class_of_failure_during_a_start_with_a_journal(self):
        daemon = preload.Daemon(self.faults)
        self.addCleanup(daemon.close)
        daemon.start()
        daemon.apply(FILES["a"])
        kept = daemon.ctl("export").stdout
        for name, error, kind in STARTING:
            hit = refused = 0
            for skip in SKIPS:
                where = f"{name} {error} on {kind}, call {skip + 1}"
                daemon.kill()
                self.faults.set(name, error, skip, kind=kind)
                try:
                    daemon.start()
                except netlab.Refused as why:
                    refused += 1
                    self.assertNotEqual("", "".join(daemon.errors), where)  # it says why
                    self.assertNotEqual("EINTR", error, f"{where}: {why}")
                happened = self.faults.clear()
                hit += happened
                if daemon.process.poll() is None:
                    daemon.kill()
                self.assertNotIn(daemon.process.returncode, (-6, -11), where + "".join(daemon.errors[-9:]))
                daemon.start()  # the next try
                self.assertEqual(kept, daemon.ctl("export").stdout, where)
                if not happened:
                    break
            print(f"{name} {error} on {kind}: {hit} calls failed, {refused} starts refused", flush=True)
        self.assertTrue(daemon.until(lambda: daemon.ctl("check", check=False).returncode == 0, 20), daemon.ctl("check", check=False).stdout)


if __name__ == "__main__":
    system_case.main()
