"""Probes decide which next hop is used: what lies behind a neighbour counts, and not only the neighbour."""
import errno
import json
import socket

import system_case
import netlab
from netlab import SERVER

class ProbedNextHops(system_case.LabCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.lab.answer_uplinks()

    def add_probes(self, **options):
        words = [word for key, value in options.items() for word in ("--" + key.replace("_", "-"), value)]
        for family, name in ((4, "a4"), (6, "a6")):
            self.daemon.ctl("probe", "add", "ops/" + name, "icmp", SERVER[family], "--via", self.next_hop("upa", family),
                            "--interval", "100ms", "--timeout", "80ms", *words)

    def steer(self):
        """upa while its probe passes, else upc; the routing table says upb."""
        for family, acl, name, prefix in ((4, 1501, "wan4", "10.0.0.0/8"), (6, 3501, "wan6", "2001:db8::/32")):
            probe = f"ops/a{family}"
            self.daemon.ctl("acl", "add", acl, 10, "permit", "udp", "from", prefix, "to", "any", "port", 443)
            self.daemon.ctl("list", "add", name)
            self.daemon.ctl("node", "add", name, 10, "--acl", acl)
            self.daemon.ctl("next-hop", "add", name, 10, self.next_hop("upa", family), "--probe", probe)
            self.daemon.ctl("next-hop", "add", name, 10, self.next_hop("upc", family))
        self.daemon.ctl("bind", "lan0", "wan4")
        self.daemon.ctl("bind", "lan1", "wan6")

    def all_by_families(self, up, seconds=5.0):
        self.all_by(up, seconds=seconds)
        self.all_by(up, family=6, source_ns="lan2", seconds=seconds)

    def state(self, name):
        return next(probe for probe in self.daemon.json("show", "probes") if probe["test"] == name)

    def until_state(self, name, status, seconds=5.0):
        self.assertTrue(self.daemon.until(lambda: self.state(name)["status"] == status, seconds), self.state(name))

    def test_traffic_leaves_a_next_hop_behind_which_nothing_lives_and_comes_back(self):
        self.add_probes(down_after="3")
        self.steer()
        self.all_by_families("upa")
        self.addCleanup(self.lab.mend_behind, "upa")
        self.lab.cut_behind("upa")
        self.all_by_families("upc")
        for hop in self.daemon.json("show", "next-hops"):
            self.assertEqual("up", hop["reachable"], hop)  # the neighbours have been alive all the time
        for name in ("a4", "a6"):
            probe = self.state(name)
            self.assertEqual("failing", probe["status"])
            self.assertNotEqual("", probe["error"])
        self.lab.mend_behind("upa")
        self.all_by_families("upa")

    def test_a_probe_that_is_removed_or_was_never_made_lets_nothing_pass(self):
        self.add_probes()
        self.steer()
        self.all_by_families("upa")
        self.daemon.ctl("probe", "del", "ops/a4")
        self.all_by("upc")
        self.all_by("upa", family=6, source_ns="lan2")
        self.add_probes()
        self.all_by_families("upa")

    def test_the_probe_of_a_dead_link_fails_and_passes_again(self):
        self.add_probes()
        self.until_state("a4", "passing")
        self.until_state("a6", "passing")
        self.lab.link("upa", "down")
        for name in ("a4", "a6"):
            self.until_state(name, "failing", 2)
        self.lab.link("upa", "up")
        for name in ("a4", "a6"):
            self.until_state(name, "passing")

    def test_after_a_restart_a_probe_asks_through_its_next_hop_at_once(self):
        self.daemon.options.append("host.adopt-wait-ms=60000")
        self.add_probes()
        self.steer()
        self.all_by_families("upa")
        streams = [netlab.Stream(self.lab, 4), netlab.Stream(self.lab, 6, source_ns="lan2")]
        self.daemon.kill()
        self.daemon.start()
        self.until_state("a4", "passing")
        self.until_state("a6", "passing")
        self.assertTrue(self.daemon.until(lambda: self.daemon.json("show", "device")["state"] == "live", 10))
        for stream in streams:
            self.assertTrue(stream.wait_uplink("upa", 2)[0])
        for stream in streams:
            result = stream.stop()
            self.assertEqual((0, {"upa"}), (result["lost"], set(result["uplinks"])))
        self.assertEqual([], [line for line in self.daemon.errors if "is failing" in line])

    def rules(self):
        return [line for family in (4, 6) for line in
                netlab.run(f"ip -{family} rule show", "rtr").stdout.splitlines() if "proto 207" in line]

    def test_flush_leaves_the_probes_ways_and_a_new_start_removes_those_of_a_killed_run(self):
        self.add_probes()
        self.until_state("a4", "passing")
        self.assertEqual(4, len(self.rules()))
        self.daemon.ctl("device", "flush")
        self.assertEqual(4, len(self.rules()))
        self.until_state("a4", "passing")
        self.daemon.kill()
        self.assertEqual(4, len(self.rules()))
        self.daemon.options.append("host.journal=off")  # else they come back, and their ways with them
        self.daemon.start()
        self.assertTrue(self.daemon.until(lambda: not self.rules()), self.rules())

    def test_decisions_and_probes_keep_out_of_each_others_numbers(self):
        self.daemon.kill()
        self.daemon.options.append("host.mark-mask=0xc0000000")  # ids 1 to 3
        self.daemon.start()
        self.add_probes()
        self.steer()
        self.all_by_families("upa")
        # What the run before left with the other mask is kept until the policy is said to be complete.
        self.daemon.ctl("device", "settle")
        # The decision has either number below the probe's: the first may have been the other next hop's.
        expected = [[first, "0xc0000000", "0xc0000000"] for first in ("0x40000000", "0x80000000")]
        self.assertTrue(self.daemon.until(lambda: self.marks() in expected, 10), self.marks())
        self.all_by_families("upa")
        self.until_state("a4", "passing")

    def marks(self):
        return sorted(line.split("fwmark ")[1].split("/")[0] for line in
                      netlab.run("ip -4 rule show", "rtr").stdout.splitlines() if "fwmark" in line)


class TheOperatorsSide(system_case.MemoryCase):
    def ctl(self, *words, check=True):
        return self.daemon.ctl(*words, check=check)

    def test_a_probe_is_shown_with_what_it_asks_and_what_it_found(self):
        server = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(server.close)
        port = server.getsockname()[1]
        self.ctl("probe", "add", "ops/web", "tcp", "127.0.0.1", "--port", port, "--interval", "50ms", "--timeout", "50ms")
        self.assertTrue(self.daemon.until(lambda: self.daemon.json("show", "probes")[0]["status"] == "passing"))
        probe = self.daemon.json("show", "probes")[0]
        self.assertEqual({"kind": "tcp", "target": "127.0.0.1", "port": port, "vrf": 0, "intervalMs": 50, "timeoutMs": 50,
                          "downAfter": 3, "upAfter": 1}, probe["config"])
        self.assertGreater(probe["statistics"]["received"], 0)
        text = self.ctl("show", "probes").stdout
        self.assertRegex(text, r"(?m)^PROBE +STATUS +ASKS +WAY")
        self.assertRegex(text, rf"(?m)^ops/web +passing +tcp 127.0.0.1 port {port} ")
        server.close()
        self.assertTrue(self.daemon.until(lambda: self.daemon.json("show", "probes")[0]["status"] == "failing"))
        # An emulator hands the machine's own number on for it.
        refused = f"Unknown error {errno.ECONNREFUSED}" if self.daemon.emulator else "connection refused"
        self.assertEqual(refused, self.daemon.json("show", "probes")[0]["error"])
        self.ctl("probe", "clear")
        self.ctl("probe", "del", "ops/web")
        self.assertEqual([], self.daemon.json("show", "probes"))
        self.assertEqual("no probes\n", self.ctl("show", "probes").stdout)

    def test_what_is_wrong_is_said_and_nothing_is_changed(self):
        for words, wanted in (
                (("add", "nameless", "icmp", "192.0.2.1"), "give ADMINISTRATOR/TEST"),
                (("add", "a/" + "b" * 33, "icmp", "192.0.2.1"), "give ADMINISTRATOR/TEST"),
                (("add", "a/b", "smtp", "192.0.2.1"), "smtp not in {icmp,tcp,udp,http}"),
                (("add", "a/b", "icmp", "host.example"), "is no IPv4 or IPv6 address"),
                (("add", "a/b", "tcp", "192.0.2.1"), "needs --port"),
                (("add", "a/b", "icmp", "192.0.2.1", "--interval", "soon"), "is no duration"),
                (("add", "a/b", "icmp", "192.0.2.1", "--interval", "49ms"), "is no duration from 50ms to 60m"),
                (("add", "a/b", "icmp", "192.0.2.1", "--timeout", "2s"), "longer than the interval"),
                (("add", "a/b", "icmp", "192.0.2.1", "--via", "2001:db8::1"), "must be an IPv4 address"),
                (("del", "a/b"), "there is no probe a/b"),
                (("clear", "a/b"), "there is no probe a/b")):
            done = self.ctl("probe", *words, check=False)
            self.assertIn(done.returncode, (1, 2), words)
            self.assertIn(wanted, done.stderr, words)
        self.assertEqual([], self.daemon.json("show", "probes"))

    def test_replacing_all_is_all_or_nothing(self):
        good = {"kind": "icmp", "target": "127.0.0.1"}
        answer = self.manage({"op": "probe.replaceAll", "probes": {"ops/a": good, "ops/b": good}})
        self.assertEqual((2, 0, 0, 0), tuple(answer[key] for key in ("made", "changed", "removed", "kept")))
        with socket.socket(socket.AF_UNIX) as mgmt:
            mgmt.settimeout(10)
            mgmt.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
            stream = mgmt.makefile("rw")
            for wrong, wanted in (({"ops/c": good, "ops/d": {"kind": "icmp", "target": "::"}}, "probe ops/d: member \"target\""),
                                  ({"ops/c": good, "ops": good}, "the name must be ADMINISTRATOR/TEST"),
                                  ({"ops/c": 5}, "must be an object"), ([], "must be an object")):
                stream.write(json.dumps({"op": "probe.replaceAll", "probes": wrong}) + "\n")
                stream.flush()
                reply = json.loads(stream.readline())
                self.assertFalse(reply["ok"], wrong)
                self.assertIn(wanted, reply["error"])
        self.assertEqual(["a", "b"], [probe["test"] for probe in self.daemon.json("show", "probes")])
        answer = self.manage({"op": "probe.replaceAll", "probes": {"ops/b": good, "ops/e": dict(good, downAfter=5)}})
        self.assertEqual((1, 0, 1, 1), tuple(answer[key] for key in ("made", "changed", "removed", "kept")))
        exported = {f"{probe['admin']}/{probe['test']}": probe["config"] for probe in self.daemon.json("show", "probes")}
        answer = self.manage({"op": "probe.replaceAll", "probes": exported})
        self.assertEqual((0, 0, 0, 2), tuple(answer[key] for key in ("made", "changed", "removed", "kept")))


if __name__ == "__main__":
    system_case.main()
