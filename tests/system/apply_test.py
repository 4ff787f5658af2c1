"""pbrctl apply on a running daemon: packets see one change, a refusal leaves all as it was, and what is not
confirmed in time is undone."""
import fcntl
import json
import os
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import time

import system_case
import netlab
from netlab import UPLINKS

ACLS = """
acls:
  1501: {10: permit udp from 10.0.0.0/8 to any port 443}
  1502: {10: permit udp from 10.0.0.0/8 to any port 505}
  3501: {10: "permit udp from 2001:db8::/32 to any port 443"}
  3502: {10: "permit udp from 2001:db8::/32 to any port 505"}
"""


def hops(up, family):
    return '["%s"]' % UPLINKS[up][1 if family == 4 else 3]


def policy(untouched, changed, more=""):
    """Nodes of port 443 by `untouched` and of port 505 by `changed`, in both families."""
    return f"""{ACLS}lists:
  wan:
    10: {{acl: 1501, next-hops: {hops(untouched, 4)}}}
    20: {{acl: 1502, next-hops: {hops(changed, 4)}}}
    30: {{acl: 3501, next-hops: {hops(untouched, 6)}}}
    40: {{acl: 3502, next-hops: {hops(changed, 6)}}}
{more}bindings:
  lan0: wan
"""


class EditsOfABoundList(system_case.LabCase):
    def streams(self):
        made = {(family, port): netlab.Stream(self.lab, family, port) for family in (4, 6) for port in (443, 505)}
        time.sleep(0.3)
        return made

    def test_no_packet_is_lost_and_none_takes_another_way(self):
        self.daemon.apply(policy("upa", "upa"))
        for family in (4, 6):
            for port in (443, 505):
                self.all_by("upa", family=family, port=port)
        streams = self.streams()
        self.daemon.apply(policy("upa", "upc"))
        time.sleep(0.5)
        self.daemon.apply(policy("upa", "upa", more="    50: {acl: 1503, priority: 3}\n").replace(
            "acls:\n", "acls:\n  1503: {10: permit udp to any port 777}\n"))
        time.sleep(0.5)
        for (family, port), stream in streams.items():
            with self.subTest(family=family, port=port):
                result = stream.stop()
                self.assertEqual(0, result["lost"], result["lost_numbers"][:10])
                # upb is the routing table's way: nobody was without the policy for a moment.
                self.assertEqual({"upa"} if port == 443 else {"upa", "upc"}, set(result["uplinks"]))

    def test_rules_of_a_bound_list_change_in_one_step(self):
        self.daemon.apply(policy("upa", "upa"))
        self.all_by("upa")
        self.all_by("upa", port=505)
        streams = self.streams()
        # Port 443 goes from one node to the other: both ACLs and both nodes change.
        self.daemon.apply(policy("upa", "upc").replace("port 443", "port 1").replace("port 505", "port 443"))
        time.sleep(0.5)
        results = {key: stream.stop() for key, stream in streams.items()}
        for family in (4, 6):
            self.assertEqual(0, results[family, 443]["lost"])
            self.assertEqual({"upa", "upc"}, set(results[family, 443]["uplinks"]))
            self.assertEqual({"upa", "upb"}, set(results[family, 505]["uplinks"]))

    def test_what_the_kernel_refuses_changes_nothing_and_loses_no_packet(self):
        self.daemon.apply(policy("upa", "upa"))
        self.all_by("upa")
        self.all_by("upa", port=505)
        before = self.daemon.ctl("export").stdout
        streams = self.streams()
        # The kernel has three bits of precedence: 12 does not fit.
        refused = self.daemon.apply(policy("upa", "upc", more="    50: {acl: 1503, priority: 12}\n").replace(
            "acls:\n", "acls:\n  1503: {10: permit udp to any port 777}\n"), check=False)
        time.sleep(0.5)
        results = {key: stream.stop() for key, stream in streams.items()}
        self.assertEqual(1, refused.returncode, refused.stdout)
        self.assertIn("policy.yaml:14: node wan/50: ", refused.stderr)
        self.assertIn("priority 12", refused.stderr)
        self.assertIn("\nNothing was changed", refused.stderr)
        self.assertEqual(before, self.daemon.ctl("export").stdout)
        for (family, port), result in results.items():
            self.assertEqual(0, result["lost"], (family, port))
        self.assertEqual({"upa"}, set(results[4, 443]["uplinks"]) | set(results[6, 443]["uplinks"]))
        self.all_by("upa", port=505)

    def test_the_running_policy_applied_again_plans_nothing(self):
        self.daemon.apply(policy("upa", "upc"))
        exported = self.daemon.ctl("export").stdout
        self.assertEqual("nothing to do\n", self.daemon.apply(exported).stdout)
        self.assertEqual(0, self.daemon.ctl("diff", "-", stdin=exported).returncode)


class MemoryApply(system_case.MemoryCase):
    FIRST = "acls:\n  1501: {10: permit udp}\nlists:\n  wan:\n    10: {acl: 1501, next-hops: [192.0.2.1]}\nbindings: {lo: wan}\n"
    SECOND = """acls:
  1501: {10: permit udp to any port 53}
  3501: {10: permit ip}
probes:
  ops/a: {icmp: 192.0.2.9, interval: 50ms}
time-ranges:
  7: {days: mon-fri, from: "08:00", to: "18:00"}
lists:
  wan:
    10: {acl: 1501, next-hops: [{address: 192.0.2.9, probe: ops/a}], time-range: 7}
  v6:
    10: {acl: 3501, ecmp: true, next-hops: ["2001:db8::1", "2001:db8::2"]}
bindings: {lo: wan}
"""

    def exported(self):
        return self.daemon.ctl("export").stdout

    def waits(self):
        return self.daemon.json("confirm", "--show")

    def apply_and_wait(self, seconds):
        """FIRST runs and SECOND is applied with a confirmation; result: what is exported of FIRST."""
        self.daemon.apply(self.FIRST)
        before = self.exported()
        self.daemon.apply(self.SECOND, "--confirm", str(seconds))
        self.assertEqual("waiting", self.waits()["state"])
        return before

    def gone(self, pid):
        return self.daemon.until(lambda: not os.path.exists(f"/proc/{pid}"), 10)


class WholeOrNotAtAll(MemoryApply):
    def test_a_step_that_the_daemon_refuses_leaves_everything(self):
        self.daemon.apply(self.FIRST)
        before = self.exported()
        text = self.bound(48, rules=200)
        refused = self.paused(text, lambda: self.record_without_list(9999))
        self.assertEqual(1, refused.returncode, refused.stdout)
        line = 1 + text.split("\n").index("  unit:9047: l3")
        self.assertIn(f"policy.yaml:{line}: refused at step ", refused.stderr)
        self.assertIn("bind unit:9047: l3", refused.stderr)
        self.assertIn("\nNothing was changed: ", refused.stderr)
        self.assertEqual(before, self.exported())

    def bound(self, count, rules=1):
        """SECOND with `count` interfaces bound, and as long as `rules` make it."""
        acl = "".join(f"    {number}: permit tcp to any port {number}\n" for number in range(1, rules + 1))
        interfaces = "".join(f"  unit:{9000 + i}: l{i // 15}\n" for i in range(count))
        lists = "".join(f"  l{i}: {{}}\n" for i in range((count + 14) // 15))
        return self.SECOND.replace("probes:", "  1999:\n" + acl + "probes:").replace("bindings: {lo: wan}\n", lists + "bindings:\n" + interfaces)

    def paused(self, text, meanwhile):
        """An apply that cannot go on, because nobody reads its plan, until `meanwhile` is done."""
        path = os.path.join(self.daemon.root, "policy.yaml")
        with open(path, "w") as file:
            file.write(text)
        command = [*self.daemon.program("pbrctl"), "--root", self.daemon.root, "apply", path]
        with tempfile.TemporaryFile("w+") as errors, subprocess.Popen(command, text=True, stdout=subprocess.PIPE,
                                                                      stderr=errors, pipesize=4096) as process:
            def waiting():
                return struct.unpack("i", fcntl.ioctl(process.stdout, termios.FIONREAD, b"\0" * 4))[0]
            self.assertTrue(self.daemon.until(lambda: waiting() > 0 or process.poll() is not None))
            self.assertIsNone(process.poll())
            meanwhile()
            out = process.communicate(timeout=60)[0]
            errors.seek(0)
            return subprocess.CompletedProcess(command, process.returncode, out, errors.read())

    def record_without_list(self, unit):
        made = self.client.call(16, key=struct.pack("=I", unit), field=1, number=1)
        self.assertEqual(0, made[0], made)

    def test_more_interfaces_than_the_daemon_holds_are_refused_at_their_line(self):
        self.daemon.apply(self.FIRST)
        before = self.exported()
        text = self.bound(49)
        refused = self.daemon.apply(text, check=False)
        self.assertEqual(1, refused.returncode, refused.stdout)
        line = 1 + text.split("\n").index("  unit:9048: l3")
        self.assertIn(f"policy.yaml:{line}: the policy has 49 interfaces, the daemon holds 48: raise policyroute.maxifnum",
                      refused.stderr)
        self.assertIn("Nothing was changed. ", refused.stderr)
        self.assertEqual(before, self.exported())
        self.daemon.apply(self.bound(48))
        self.daemon.apply(self.bound(1).replace("unit:9000", "unit:9900"))
        self.record_without_list(9999)
        refused = self.daemon.apply(self.bound(48), check=False)
        self.assertIn("the policy has 49 interfaces (1 of them without a list), the daemon holds 48", refused.stderr)

    def test_what_the_daemon_does_not_hold_is_refused_before(self):
        lists = "".join(f"  l{i}: {{}}\n" for i in range(65))
        refused = self.daemon.apply("lists:\n" + lists, check=False)
        self.assertEqual(1, refused.returncode, refused.stderr)
        self.assertIn("the policy has 65 lists, the daemon holds 64", refused.stderr)
        self.assertIn("Nothing was changed", refused.stderr)
        self.assertEqual("lists: {}\n", self.exported())

    def test_what_was_made_by_single_changes_goes_and_comes_back(self):
        self.daemon.apply(self.FIRST)
        before = self.exported()
        self.manage({"op": "timerange.define", "id": 9, "days": "daily"})
        self.daemon.ctl("list", "add", "mine")
        self.daemon.ctl("acl", "create", 1999)
        self.daemon.ctl("node", "add", "mine", 10, "--acl", 1999, "--priority", 3, "--time-range", 9)
        with_mine = self.exported()
        self.daemon.apply(self.SECOND)
        self.daemon.apply(with_mine)
        self.assertEqual(with_mine, self.exported())
        self.daemon.apply(before)
        self.assertEqual(before, self.exported())

    def test_every_section_goes_there_and_back(self):
        self.daemon.apply(self.FIRST)
        before = self.exported()
        self.daemon.apply(self.SECOND)
        after = self.exported()
        self.assertIn("ops/a: {icmp: 192.0.2.9, interval: 50ms, timeout: 50ms", after)
        self.assertIn('7: {days: mon-fri, from: "08:00", to: "18:00"}', after)
        self.assertEqual("nothing to do\n", self.daemon.apply(self.SECOND).stdout)
        self.assertEqual("nothing to do\n", self.daemon.apply(after).stdout)
        self.daemon.apply(before)
        self.assertEqual(before, self.exported())

    def test_two_applies_at_once_do_not_mix(self):
        texts = [self.FIRST, self.SECOND]
        exports = []
        for text in texts:
            self.daemon.apply(text)
            exports.append(self.exported())
        paths = []
        for number, text in enumerate(texts):
            paths.append(os.path.join(self.daemon.root, f"{number}.yaml"))
            with open(paths[-1], "w") as file:
                file.write(text)
        command = [*self.daemon.program("pbrctl"), "--root", self.daemon.root, "apply"]
        for _ in range(10):
            running = [subprocess.Popen(command + [path], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
                       for path in paths * 2]
            for process in running:
                errors = process.communicate(timeout=60)[1]
                if process.returncode != 0:
                    self.assertIn("another change of the policy is under way: process ", errors)
            self.assertIn(self.exported(), exports)


class OneChangeAtATime(MemoryApply):
    def setUp(self):
        super().setUp()
        self.other = socket.socket(socket.AF_UNIX)
        self.addCleanup(self.other.close)
        self.other.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
        self.lines = self.other.makefile()
        self.addCleanup(self.lines.close)

    def ask(self, **request):
        self.other.sendall(json.dumps(request).encode() + b"\n")
        answer = json.loads(self.lines.readline())
        self.assertTrue(answer["ok"], answer)

    def start(self, *words):
        """pbrctl, once it says that it waits."""
        process = subprocess.Popen([*self.daemon.program("pbrctl"), "--root", self.daemon.root, *words], text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        return process, process.stderr.readline()

    def test_a_single_change_waits_for_an_apply(self):
        self.ask(op="apply.lock", pid=4711, file="other.yaml")
        process, line = self.start("list", "add", "mine")
        self.assertEqual("waiting, 5 s at most: process 4711 applies other.yaml\n", line)
        self.assertNotIn("mine", self.exported())
        self.ask(op="apply.unlock")
        self.assertEqual(0, process.wait(10), process.stderr.read())
        self.assertIn("mine", self.exported())

    def test_it_is_refused_when_that_lasts_and_raw_frames_are_not(self):
        self.ask(op="apply.lock", pid=4711, file="other.yaml")
        process, _ = self.start("list", "add", "mine")
        self.assertEqual(1, process.wait(30))
        self.assertEqual("pbrctl: another change of the policy is under way: process 4711 applies other.yaml; try again "
                         "when it has ended. Nothing was changed\n", process.stderr.read())
        self.assertNotIn("mine", self.exported())
        self.daemon.ctl("raw", "list-set", "--key", "list:raw", "--field", 1, "--number", 2)
        self.assertIn("raw", self.exported())

    def test_an_apply_waits_for_a_single_change(self):
        self.ask(op="apply.lock", pid=4711, command="node set")
        path = os.path.join(self.daemon.root, "first.yaml")
        with open(path, "w") as file:
            file.write(self.FIRST)
        process, line = self.start("apply", path)
        self.assertEqual("waiting, 5 s at most: process 4711 runs 'pbrctl node set'\n", line)
        self.other.shutdown(socket.SHUT_RDWR)  # its end gives the right back
        self.assertEqual(0, process.wait(10), process.stderr.read())
        self.assertIn("lo: wan", self.exported())

    def test_while_an_apply_waits_for_its_confirmation_single_changes_are_refused_at_once(self):
        before = self.apply_and_wait(600)
        refused = self.daemon.ctl("list", "add", "mine", check=False)
        self.assertEqual(1, refused.returncode)
        self.assertNotIn("waiting,", refused.stderr)
        self.assertIn("waits for its confirmation, ", refused.stderr)
        pid = self.waits()["pid"]
        self.daemon.ctl("confirm", "--rollback")
        self.assertTrue(self.gone(pid))
        self.assertEqual(before, self.exported())
        self.daemon.ctl("list", "add", "mine")


class Confirmed(MemoryApply):
    def test_without_a_confirmation_it_is_undone(self):
        before = self.apply_and_wait(2)
        self.assertNotEqual(before, self.exported())
        pid = self.waits()["pid"]
        self.assertTrue(self.daemon.until(lambda: self.exported() == before, 10))
        self.assertTrue(self.gone(pid))
        self.assertEqual({"pending": False}, self.waits())

    def test_confirmed_in_time_it_stays(self):
        seconds = 10 if self.daemon.emulator else 2  # emulated programs take a while to start
        before = self.apply_and_wait(seconds)
        after, pid = self.exported(), self.waits()["pid"]
        self.daemon.ctl("confirm")
        self.assertTrue(self.gone(pid))
        time.sleep(seconds + 0.2)
        self.assertEqual(after, self.exported())
        self.assertNotEqual(before, after)
        late = self.daemon.ctl("confirm", check=False)
        self.assertEqual(1, late.returncode)
        self.assertIn("nothing waits for a confirmation", late.stderr)

    def test_it_can_be_undone_at_once(self):
        before = self.apply_and_wait(600)
        pid = self.waits()["pid"]
        self.daemon.ctl("confirm", "--rollback")
        self.assertTrue(self.gone(pid))
        self.assertEqual(before, self.exported())

    def test_meanwhile_nothing_else_is_applied(self):
        self.apply_and_wait(600)
        pid = self.waits()["pid"]
        for options in ((), ("--confirm", "5")):
            refused = self.daemon.apply(self.FIRST, *options, check=False)
            self.assertEqual(1, refused.returncode)
            self.assertIn("waits for its confirmation, ", refused.stderr)
            self.assertIn("Nothing was changed", refused.stderr)
        self.daemon.apply(self.FIRST, "--dry-run")
        self.daemon.ctl("confirm")
        self.assertTrue(self.gone(pid))
        self.daemon.apply(self.FIRST)

    def test_a_refused_file_leaves_no_watcher(self):
        self.daemon.apply(self.FIRST)
        refused = self.daemon.apply("lists: {wan: {10: {acl: 1}}}\n", "--confirm", "600", check=False)
        self.assertEqual(1, refused.returncode)
        self.assertEqual({"pending": False}, self.waits())
        self.assertIn("nothing to do", self.daemon.apply(self.FIRST, "--confirm", "600").stdout)
        self.assertEqual({"pending": False}, self.waits())

    def test_a_pbrctl_that_is_killed_is_cleaned_up_after(self):
        self.daemon.apply(self.FIRST)
        before = self.exported()
        path = os.path.join(self.daemon.root, "large.yaml")
        with open(path, "w") as file:
            acls = "".join(f"  {1100 + i}: {{10: permit udp to any port {i + 1}}}\n" for i in range(100))
            nodes = "".join(f"    {i + 1}: {{acl: {1100 + i}, next-hops: [192.0.2.7]}}\n" for i in range(100))
            file.write("acls:\n" + acls + "lists:\n  large:\n" + nodes)
        process = subprocess.Popen([*self.daemon.program("pbrctl"), "--root", self.daemon.root, "apply", path,
                                    "--confirm", "1"], stdout=subprocess.DEVNULL)
        self.assertTrue(self.daemon.until(lambda: "large" in self.daemon.ctl("show", "lists").stdout, 10))
        process.send_signal(signal.SIGKILL)
        process.wait()
        # In the middle: at once. Behind the last step: after the second.
        self.assertTrue(self.daemon.until(lambda: self.exported() == before and not self.waits()["pending"], 15))

    def test_a_daemon_that_was_started_again_is_rolled_back_too(self):
        before = self.apply_and_wait(4)
        pid = self.waits()["pid"]
        self.daemon.kill()
        self.daemon.start()
        self.assertTrue(self.daemon.until(lambda: self.waits()["pending"], 3))
        self.assertTrue(self.gone(pid))
        self.assertEqual(before, self.exported())


if __name__ == "__main__":
    system_case.main()
