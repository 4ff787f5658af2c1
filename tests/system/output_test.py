"""Writes that write less than they were given, in the daemon and in what reads it: nothing is lost and nothing is said
twice; an output that cannot be written is told and is no success."""
import os
import subprocess
import tempfile
import unittest

import system_case
import faults
import netlab
import preload

LISTS = 60
POLICY = "acls:\n  1501: {10: permit udp}\nlists:\n" + "".join(f"  l{n:02}:\n    10: {{acl: {1501 + n}, priority: 3}}\n" for n in range(1, LISTS)) + \
    "  wan:\n    10: {acl: 1501, next-hops: [192.0.2.1]}\n"
POLICY = POLICY.replace("lists:", "".join(f"  {1501 + n}: {{10: permit udp to any port {n}}}\n" for n in range(1, LISTS)) + "lists:")


class HalfWrites(unittest.TestCase):
    """Each write of the daemon does half of what it was asked for, all the time."""

    def setUp(self):
        if "POLICYROUTE_EMULATOR" in os.environ:
            self.skipTest("an emulated program loads no object of this machine")
        self.faults = faults.Faults()
        self.addCleanup(self.faults.close)
        self.daemon = preload.Daemon(self.faults, ns=None, device="memory").start()
        self.addCleanup(self.daemon.close)
        self.addCleanup(lambda: self.assertIsNone(self.daemon.process.poll(), "".join(self.daemon.errors[-20:])))

    def halve(self, *names):
        for name, kind in names:
            self.faults.set(name, "SHORT", count=10 ** 9, kind=kind)

    def test_answers_of_both_sockets_arrive_whole(self):
        self.daemon.apply(POLICY)
        expected = [self.daemon.ctl(*words).stdout for words in (("export",), ("--json", "show", "lists"), ("show", "acls"))]
        self.halve(("send", "unix"), ("sendto", "unix"))
        seen = [self.daemon.ctl(*words).stdout for words in (("export",), ("--json", "show", "lists"), ("show", "acls"))]
        self.assertGreater(self.faults.clear(), 100)
        self.assertEqual(expected, seen)

    def test_what_is_read_in_pieces_is_read_whole(self):
        self.halve(("recv", "unix"), ("read", "regular"))
        self.daemon.apply(POLICY)
        self.assertGreater(self.faults.clear(), 100)
        self.assertEqual(LISTS, len(self.daemon.json("show", "lists")))

    def test_the_journal_holds_what_was_set(self):
        self.halve(("pwrite", "regular"), ("write", "regular"))
        self.daemon.apply(POLICY)
        self.daemon.ctl("list", "add", "last")
        self.assertGreater(self.faults.clear(), 100)
        kept = self.daemon.ctl("export").stdout
        self.assertIn("last", kept)
        self.assertEqual("", self.daemon.json("show", "journal").get("failing") or "")
        self.daemon.kill()
        self.halve(("pwrite", "regular"), ("read", "regular"))
        self.daemon.start()  # its options and its journal in pieces too
        self.faults.clear()
        self.assertEqual(kept, self.daemon.ctl("export").stdout)

    def test_lines_of_the_log_are_whole(self):
        self.halve(("write", "any"))
        self.daemon.apply(POLICY)
        self.daemon.ctl("list", "add", "x" * 17, check=False)
        self.daemon.ctl("debug", "set", "hw,event")
        self.daemon.ctl("list", "add", "last")
        self.faults.clear()
        self.daemon.ctl("debug", "set", "none", check=False)
        for line in self.daemon.errors:
            self.assertRegex(line, r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} |policyrouted: )", self.daemon.errors)

    def test_shell_reports_are_whole(self):
        self.daemon.apply(POLICY)
        expected = self.daemon.ctl("shell", "pbrInfoShow").stdout
        self.halve(("write", "any"), ("send", "unix"))
        seen = self.daemon.ctl("shell", "pbrInfoShow").stdout
        self.faults.clear()
        self.assertEqual(expected, seen)


class FullDisk(system_case.MemoryCase):
    """What pbrctl prints goes to a file that has no room, or to a pipe that is slow or closed."""

    def setUp(self):
        super().setUp()
        self.daemon.apply(POLICY)

    def to(self, output, *words):
        command = self.daemon.program("pbrctl") + ["--root", self.daemon.root, *words]
        return subprocess.run(command, stdout=output, stderr=subprocess.PIPE, text=True, timeout=60, check=False)

    def test_a_report_on_a_full_disk_is_no_success(self):
        for words in (("export",), ("show", "lists"), ("--json", "show", "lists"), ("--version",), ("shell", "pbrInfoShow")):
            with open("/dev/full", "w") as full:
                done = self.to(full, *words)
            self.assertEqual(1, done.returncode, words)
            self.assertRegex(done.stderr, r"^pbrctl: the output could not be written(: No space left on device)?\n$")

    def test_an_export_to_a_small_file_system_says_that_it_is_not_whole(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(os.rmdir, folder)
        netlab.run(["mount", "-t", "tmpfs", "-o", "size=4k", "none", folder])
        self.addCleanup(netlab.run, ["umount", folder])
        self.assertGreater(len(self.daemon.ctl("export").stdout), 4096)
        with open(folder + "/policy.yaml", "w") as file:
            done = self.to(file, "export")
        self.assertEqual(1, done.returncode)
        self.assertIn("the output could not be written", done.stderr)

    def test_an_export_through_a_slow_pipe_is_whole(self):
        expected = self.daemon.ctl("export").stdout
        command = self.daemon.program("pbrctl") + ["--root", self.daemon.root, "export"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, pipesize=4096) as export:
            read = b""
            while part := os.read(export.stdout.fileno(), 100):
                read += part
            self.assertEqual(0, export.wait(10))
        self.assertEqual(expected, read.decode())


if __name__ == "__main__":
    system_case.main()
