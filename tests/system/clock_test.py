"""The machine's clock is set, forward and back by hours, while the real process works: time ranges follow at once, and
nothing else notices: probes, next hops, a confirmation's deadline, the journal."""
import datetime
import subprocess
import unittest

import system_case
import netlab
import preload
import steps

HOUR = 3600
FAR = (3 * HOUR, -3 * HOUR, -5 * HOUR, 8 * HOUR, -3 * HOUR)  # there, back, before, after, and where it was


def between(first, last):
    """A daily period from so many hours from now to so many."""
    now = datetime.datetime.now()
    at = [now + datetime.timedelta(hours=hours) for hours in (first, last)]
    return ["--from", f"{at[0]:%H:%M}", "--to", f"{at[1]:%H:%M}"]


class StepsCase(unittest.TestCase):
    device = "memory"

    def setUp(self):
        self.clock = steps.Clock()
        self.addCleanup(self.clock.close)
        self.daemon = preload.Daemon(self.clock, ns=None, device="memory").start()
        self.addCleanup(self.daemon.close)
        self.addCleanup(lambda: self.assertIsNone(self.daemon.process.poll(), "".join(self.daemon.errors[-20:])))

    def active(self):
        return {row["id"]: row["active"] for row in self.daemon.json("show", "time-ranges")}

    def until_active(self, expected):
        self.assertTrue(self.daemon.until(lambda: self.active() == expected, 5), (self.clock.ahead, expected, self.active()))


class Memory(StepsCase):
    FIRST = "acls:\n  1501: {10: permit udp}\nlists:\n  wan:\n    10: {acl: 1501, next-hops: [192.0.2.1]}\n"
    SECOND = FIRST.replace("192.0.2.1", "192.0.2.9")

    def test_ranges_are_those_of_the_new_time_right_after_a_step(self):
        self.daemon.ctl("acl", "add", 1501, 10, "permit", "ip")
        self.daemon.ctl("list", "add", "wan")
        self.daemon.ctl("node", "add", "wan", 10, "--acl", 1501, "--time-range", 7)
        self.daemon.ctl("time-range", "add", 7, *between(-1, 1))
        self.daemon.ctl("time-range", "add", 8, *between(2, 4))
        self.daemon.ctl("debug", "set", "event")
        self.until_active({7: True, 8: False})
        for ahead, expected in ((3, {7: False, 8: True}), (0, {7: True, 8: False}), (-5, {7: False, 8: False}),
                                (3, {7: False, 8: True}), (24, {7: True, 8: False}), (0, {7: True, 8: False})):
            self.clock.step(ahead * HOUR - self.clock.ahead)
            self.until_active(expected)
            told = "start" if expected[7] else "stop"
            self.assertTrue(self.daemon.until(lambda: self.latest() in (None, told)), (ahead, self.latest()))
        self.assertEqual("start", self.latest())

    def latest(self):
        """What the node was told of its range last: start, stop, or nothing yet."""
        words = [line.split("node 10 timerange 7 ")[1].split()[0] for line in self.daemon.errors if "node 10 timerange 7 " in line]
        return next((word for word in reversed(words) if word in ("start", "stop")), None)

    def test_a_range_that_begins_in_a_second_begins_although_the_clock_was_set_before(self):
        self.clock.step(-7 * HOUR)
        start = datetime.datetime.now() - datetime.timedelta(hours=7) + datetime.timedelta(seconds=2)
        self.daemon.ctl("time-range", "add", 7, "--start", f"{start:%Y-%m-%d %H:%M:%S}")
        self.assertEqual({7: False}, self.active())
        self.until_active({7: True})

    def test_a_confirmation_has_the_time_that_was_asked_for_whatever_the_clock_shows(self):
        self.daemon.apply(self.FIRST)
        before = self.daemon.ctl("export").stdout
        for seconds in (2 * HOUR, -9 * HOUR):
            self.daemon.apply(self.SECOND, "--confirm", "30")
            self.clock.step(seconds)
            self.daemon.ctl("show", "lists")
            waits = self.daemon.json("confirm", "--show")
            self.assertEqual("waiting", waits["state"])
            self.assertNotEqual(before, self.daemon.ctl("export").stdout)
            self.daemon.ctl("confirm", "--rollback")
            self.assertTrue(self.daemon.until(lambda: self.daemon.ctl("export").stdout == before, 10))
            self.assertTrue(self.daemon.until(lambda: not self.daemon.json("confirm", "--show")["pending"], 10))
        for seconds in (2 * HOUR, -9 * HOUR):
            self.daemon.apply(self.SECOND, "--confirm", "1")
            self.clock.step(seconds)
            self.assertTrue(self.daemon.until(lambda: self.daemon.ctl("export").stdout == before, 15))
            self.assertTrue(self.daemon.until(lambda: not self.daemon.json("confirm", "--show")["pending"], 10))

    def test_the_journal_brings_back_what_was_set_before_and_after_steps(self):
        self.daemon.ctl("time-range", "add", 7, *between(-1, 1))
        self.daemon.ctl("time-range", 7, "off")
        self.daemon.ctl("acl", "add", 1501, 10, "permit", "ip")
        for number, seconds in enumerate(FAR):
            self.daemon.ctl("list", "add", f"l{number}")
            self.clock.step(seconds)
            self.daemon.ctl("acl", "add", 1501, 20 + number, "permit", "udp")
            kept = self.daemon.ctl("export").stdout
            self.daemon.kill()
            self.clock.step(seconds // 3)
            self.daemon.start()
            self.clock.step(-(seconds // 3))
            self.assertEqual(kept, self.daemon.ctl("export").stdout)
            self.assertEqual(({7: False}, number + 1), (self.active(), len(self.daemon.json("show", "lists"))))
        self.daemon.ctl("time-range", 7, "auto")
        self.until_active({7: True})


class Packets(StepsCase):
    def setUp(self):
        if not system_case.knows_kernel():
            self.skipTest("this build has no kernel device")
        self.lab = netlab.Lab()
        self.addCleanup(self.lab.close)
        self.lab.answer_uplinks()
        self.clock = steps.Clock()
        self.addCleanup(self.clock.close)
        self.daemon = preload.Daemon(self.clock, options=("host.neighbour-probe-ms=400",)).start()
        self.addCleanup(self.daemon.close)

    def test_probes_and_next_hops_do_not_notice_a_step(self):
        hops = {up: self.lab.uplinks[up][1] for up in ("upa", "upc")}
        self.daemon.apply(f"""acls:
  1501: {{10: permit udp to any port 443}}
probes:
  ops/a: {{icmp: {netlab.SERVER[4]}, via: {hops["upa"]}, interval: 500ms, timeout: 400ms, down-after: 3}}
lists:
  wan:
    10: {{acl: 1501, next-hops: [{{address: {hops["upa"]}, probe: ops/a}}, {hops["upc"]}]}}
bindings: {{lan0: wan}}
""")
        self.assertTrue(self.daemon.until(lambda: system_case.by_uplink(self.lab) == {"upa": 20}, 10))
        command = ["nsenter", "--net=/run/netns/rtr"] + self.daemon.program("pbrctl") + ["--root", self.daemon.root, "watch"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as watch:
            for seconds in FAR:
                self.clock.step(seconds)
                answers = self.asked()
                self.assertTrue(self.daemon.until(lambda: self.asked() >= answers + 3, 10), "the probe asks no more")
                self.assertEqual({"upa": 20}, system_case.by_uplink(self.lab))
                self.assertEqual("passing", self.probe()["status"])
                self.assertEqual(["up"] * len(self.daemon.json("show", "next-hops")),
                                 [hop["reachable"] for hop in self.daemon.json("show", "next-hops")])
            self.lab.cut_behind("upa")  # and it still fails when it must
            self.addCleanup(self.lab.mend_behind, "upa")
            self.assertTrue(self.daemon.until(lambda: system_case.by_uplink(self.lab) == {"upc": 20}, 15), self.probe())
            watch.terminate()
            lines = watch.stdout.read().splitlines()
        told = [line for line in lines if "ops/a" in line]
        self.assertEqual(1, len(told), lines)  # the failure behind the last step, and none before
        self.assertEqual(0, self.daemon.ctl("check", check=False).returncode)
        self.assertIsNone(self.daemon.process.poll())

    def probe(self):
        return self.daemon.json("show", "probes")[0]

    def asked(self):
        return self.probe()["statistics"]["sent"]


if __name__ == "__main__":
    system_case.main()
