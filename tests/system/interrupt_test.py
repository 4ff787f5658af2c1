"""pbrctl apply broken off at any moment: the old policy or the new one holds whole, and packets never see a half."""
import contextlib
import os
import random
import signal
import subprocess
import tempfile
import time

import system_case
import netlab
from apply_test import ACLS, hops

NODES = 40 if "POLICYROUTE_EMULATOR" in os.environ else 300  # an apply of some hundred milliseconds
ROUNDS = 6


def large(priority, port):
    """Enough nodes that the steps last, and no next hop to wait for behind them; every node differs between two."""
    acls = "".join(f"  {1001 + i}: {{10: permit udp to any port {port + i}}}\n" for i in range(NODES))
    nodes = "".join(f"    {i + 1}: {{acl: {1001 + i}, priority: {priority}}}\n" for i in range(NODES))
    return "acls:\n" + acls + "lists:\n  large:\n" + nodes + "bindings: {lo: large}\n"


def running(command):
    """Whether a process runs `command`: a watcher has the line of the pbrctl that made it."""
    line = "\0".join(command).encode()
    for folder in os.listdir("/proc"):
        with contextlib.suppress(OSError):
            with open(f"/proc/{folder}/cmdline", "rb") as file:
                if file.read().rstrip(b"\0") == line:
                    return True
    return False


class AtAnyMoment(system_case.MemoryCase):
    options = (f"policyroute.maxnodenum={2 * NODES}",)

    def setUp(self):
        super().setUp()
        self.random = random.Random(os.environ.get("SEED", "7"))
        self.paths, self.exports = [], []
        for number, text in enumerate((large(3, 1000), large(4, 2000))):
            self.paths.append(os.path.join(self.daemon.root, f"{number}.yaml"))
            with open(self.paths[-1], "w") as file:
                file.write(text)
            begin = time.monotonic()
            self.daemon.ctl("apply", self.paths[-1])
            self.seconds = time.monotonic() - begin
            self.exports.append(self.daemon.ctl("export").stdout)
        self.daemon.ctl("apply", self.paths[0])

    @contextlib.contextmanager
    def apply_of_the_other(self, *words, **pipes):
        """pbrctl applies the policy that does not run, and some moment of it has come; at the end nobody undoes anything
        any more. Gives the process and the number of the policy."""
        wanted = 1 - self.exports.index(self.exported())
        command = [*self.daemon.program("pbrctl"), "--root", self.daemon.root, "apply", self.paths[wanted], *words]
        with subprocess.Popen(command, **pipes) as process:
            time.sleep(self.random.uniform(0, self.seconds))
            yield process, wanted
            process.wait(60)
        self.assertTrue(self.daemon.until(lambda: not running(command), 60))

    def broken_off(self, how):
        with tempfile.TemporaryFile("w+") as errors:
            with self.apply_of_the_other(stdout=subprocess.DEVNULL, stderr=errors) as (process, wanted):
                how(process)
            errors.seek(0)
            return wanted, process.returncode, errors.read()

    def exported(self):
        return self.daemon.ctl("export").stdout

    def test_an_interrupt_rolls_back_and_says_so(self):
        undone = 0
        for number in [signal.SIGINT, signal.SIGTERM] * 10 * ROUNDS:
            if undone == ROUNDS:
                break
            wanted, status, errors = self.broken_off(lambda process: process.send_signal(number))
            with self.subTest(signal=number.name, status=status, errors=errors):
                found = self.exports.index(self.exported())
                if status == 1:
                    undone += 1
                    self.assertIn(f"interrupted ({number.name}) before ", errors)
                    self.assertIn("\nNothing was changed", errors)
                if status == 0 and "interrupted" in errors:
                    self.assertIn(f"interrupted ({number.name}) too late: everything was done already", errors)
                self.assertIn(status, (0, 1, -number))
                if status in (0, 1):  # the signal itself ends it before the first step, or behind the last
                    self.assertEqual(wanted if status == 0 else 1 - wanted, found)
        self.assertGreater(undone, 0)

    def test_a_killed_pbrctl_leaves_nothing_half_made(self):
        for _ in range(2 * ROUNDS):
            self.broken_off(lambda process: process.kill())
            self.assertIn(self.exported(), self.exports)
            self.assertEqual(0, self.daemon.ctl("check").returncode)

    def test_a_terminal_that_goes_away_changes_nothing_of_it(self):
        for _ in range(ROUNDS):
            _, status, errors = self.broken_off(lambda process: process.send_signal(signal.SIGHUP))
            self.assertIn(self.exported(), self.exports, (status, errors))

    def test_nobody_reads_any_more_what_it_prints(self):
        for words in ([], ["--json"]) * ROUNDS:  # the plan before the steps, longer than the pipe; all of it at the end
            with self.apply_of_the_other(*words, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                         pipesize=4096) as (process, _):
                process.stdout.close()
                process.stderr.close()
            self.assertIn(process.returncode, (0, -signal.SIGPIPE))
            self.assertIn(self.exported(), self.exports)

    def test_what_is_left_when_its_watcher_is_killed_too_is_told_and_healed(self):
        def kill_both(process):
            children = netlab.run(["pgrep", "-P", str(process.pid)], check=False).stdout.split()
            for pid in [process.pid, *map(int, children)]:
                with contextlib.suppress(ProcessLookupError):  # the watcher has ended by itself
                    os.kill(pid, signal.SIGKILL)
        left = 0
        for _ in range(20 * ROUNDS):
            wanted, _, _ = self.broken_off(kill_both)
            if self.exported() not in self.exports:
                left += 1
                self.assertEqual(1, self.daemon.ctl("diff", self.paths[wanted], check=False).returncode)
            self.daemon.ctl("apply", self.paths[wanted])
            self.assertEqual(self.exports[wanted], self.exported())
            if left == ROUNDS:
                break
        self.assertGreater(left, 0)


class WithPackets(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", "policyroute.maxnodenum=600")

    def policy(self, up, port):
        """Port 443 by upa, always; port 505 by `up`; beside them many nodes, all of which differ by `port`."""
        more = "".join(f"  {1600 + i}: {{10: permit udp to any port {port + i}}}\n" for i in range(200))
        nodes = "".join(f"    {100 + i}: {{acl: {1600 + i}, next-hops: {hops(up, 4)}}}\n" for i in range(200))
        return ACLS + more + f"""lists:
  wan:
    10: {{acl: 1501, next-hops: {hops("upa", 4)}}}
    20: {{acl: 1502, next-hops: {hops(up, 4)}}}
    30: {{acl: 3501, next-hops: {hops("upa", 6)}}}
    40: {{acl: 3502, next-hops: {hops(up, 6)}}}
{nodes}bindings: {{lan0: wan}}
"""

    def test_no_packet_sees_the_half_that_a_killed_pbrctl_made(self):
        texts = [self.policy("upa", 1000), self.policy("upc", 3000)]
        begin = time.monotonic()
        self.daemon.apply(texts[0])
        seconds = time.monotonic() - begin
        self.all_by("upa")
        self.all_by("upa", port=505)
        before = self.daemon.ctl("export").stdout
        path = os.path.join(self.daemon.root, "second.yaml")
        with open(path, "w") as file:
            file.write(texts[1])
        streams = {port: netlab.Stream(self.lab, 4, port) for port in (443, 505)}
        time.sleep(0.3)
        undone = 0
        for share in (0.3, 0.5, 0.7):
            command = [*self.daemon.program("pbrctl"), "--root", self.daemon.root, "apply", path]
            with subprocess.Popen(command, stdout=subprocess.DEVNULL) as process:
                time.sleep(seconds * share)
                process.kill()
            self.assertTrue(self.daemon.until(lambda: not running(command), 30))
            undone += self.daemon.ctl("export").stdout == before
        time.sleep(0.3)
        for port, stream in streams.items():
            result = stream.stop()
            self.assertEqual(0, result["lost"], (port, result["lost_numbers"][:10]))
            # upb is the routing table's way: nobody was without the policy for a moment. One killed behind its last step
            # is undone too, and then the new way was the policy's for a while.
            self.assertLessEqual(set(result["uplinks"]), {"upa"} if port == 443 else {"upa", "upc"}, port)
            self.assertIn("upa" if undone == 3 or port == 443 else "upc", result["uplinks"], port)
        self.assertEqual([], self.daemon.json("show", "device")["held"])


if __name__ == "__main__":
    system_case.main()
