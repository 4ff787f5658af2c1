"""pbrctl explain, watch and show policy-counters on a running daemon."""
import json
import subprocess
import threading
import unittest

import system_case

POLICY = """
acls:
  1501: {10: deny udp from any to any port 6000, 20: permit udp from any to any port 5000-6999}
lists:
  wan:
    10: {acl: 1501, next-hops: [198.51.100.1, 203.0.113.1]}
bindings:
  lo: wan
"""


class Watcher:
    """A running `pbrctl watch --json`; what it printed so far is in `events`."""

    def __init__(self, daemon):
        self.events = []
        self.process = subprocess.Popen([*daemon.program("pbrctl"), "--root", daemon.root, "watch", "--json"],
                                        stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self.read)
        self.thread.start()

    def read(self):
        for line in self.process.stdout:
            self.events.append(json.loads(line))

    def of(self, kind):
        return [event for event in list(self.events) if event["event"] == kind]

    def close(self):
        self.process.terminate()
        self.process.wait()
        self.thread.join()
        self.process.stdout.close()


class OnADesk(system_case.MemoryCase):
    options = ("host.next-hop-via-gateway=off",)  # else this machine's default route may lead to the next hops

    def explain(self, *words):
        return self.daemon.ctl("explain", "--in", "lo", "--src", "10.0.0.1", "--dst", "192.0.2.9", *words).stdout

    def test_explains_by_the_policy(self):
        self.assertEqual("not policy, routed as usual: no list is bound to the interface\n",
                         self.explain().split("note:")[0])
        self.daemon.apply(POLICY)
        text = self.explain("--proto", "udp", "--dport", "5000")
        self.assertIn("list wan node 10: ACL 1501 rule 20: permit udp from any to any port 5000-6999\n", text)
        self.assertIn("note: the memory device forwards nothing", text)
        self.assertIn("next hop 1 198.51.100.1: not used: ", text)
        text = self.explain("--proto", "udp", "--dport", "6000", "--verbose")
        self.assertIn("  rule 10 deny udp from any to any port 6000: match\n", text)
        self.assertIn("routed as usual: no node matches it\n", text)
        self.assertIn("it cannot be told: ACL 1501 rule 10: it asks for the protocol", self.explain())

    @unittest.skipUnless(system_case.knows_kernel(), "this build does not know kinds of links")
    def test_an_interface_without_ethernet_has_no_source_mac_whatever_is_told(self):
        self.daemon.apply(POLICY.replace("deny udp from any to any port 6000", "permit udp source-mac 02:00:5e:00:53:01"))
        for told in ((), ("--source-mac", "02:00:5e:00:53:01")):
            text = self.explain("--proto", "udp", "--dport", "53", "--verbose", *told)
            self.assertIn("miss: it has no source MAC: it does not come in over Ethernet", text)
            self.assertIn("routed as usual: no node matches it\n", text)

    def test_a_device_that_forwards_nothing_tells_no_cost(self):
        self.assertEqual("note: this device forwards nothing and costs no packet anything\n",
                         self.daemon.ctl("explain", "--cost", "lo").stdout)

    def test_a_cost_is_asked_of_an_interface_and_not_of_a_packet(self):
        for words in (("--cost", "nosuch0"), ("--cost", "--in", "lo"), ("--cost", "--verbose"), ("lo",), ("--in", "lo")):
            with self.subTest(words=words):
                refused = self.daemon.ctl("explain", *words, check=False)
                self.assertEqual((2, ""), (refused.returncode, refused.stdout))
                self.assertIn("pbrctl: ", refused.stderr)

    def test_refuses_what_is_no_packet(self):
        for words, status in ((("--src", "10.0.0.1", "--dst", "2001:db8::1"), 1), (("--src", "x", "--dst", "10.0.0.1"), 1),
                              (("--src", "10.0.0.1", "--dst", "10.0.0.2", "--proto", "tpc"), 2),
                              (("--src", "10.0.0.1", "--dst", "10.0.0.2", "--source-mac", " 2:+1:0x:5e:00:53"), 1)):
            with self.subTest(words=words):
                refused = self.daemon.ctl("explain", "--in", "lo", *words, check=False)
                self.assertEqual(status, refused.returncode, refused.stderr)
        self.assertEqual(2, self.daemon.ctl("explain", "--in", "nosuch0", "--src", "10.0.0.1", "--dst", "10.0.0.2",
                                            check=False).returncode)

    def test_counts_nothing_and_says_so(self):
        self.assertEqual("this device forwards nothing and counts no packets\n",
                         self.daemon.ctl("show", "policy-counters").stdout)
        self.assertEqual(1, self.daemon.ctl("counters", "clear", check=False).returncode)

    def test_watch_tells_acls_time_ranges_and_decisions(self):
        watcher = Watcher(self.daemon)
        self.addCleanup(watcher.close)

        def begun():  # its first event shows that it watches
            self.daemon.ctl("time-range", "9", "on")
            self.daemon.ctl("time-range", "9", "off")
            return watcher.of("time-range")
        self.assertTrue(self.daemon.until(begun))
        self.daemon.apply(POLICY)
        self.assertTrue(self.daemon.until(lambda: watcher.of("decision")), watcher.events)
        self.assertEqual(["permit udp from any to any port 5000-6999"],
                         [event["ruleText"] for event in watcher.of("acl") if event["rule"] == 20])
        decision = watcher.of("decision")[0]
        self.assertEqual(("wan", 10, "not bound"), (decision["list"], decision["node"], decision["old"]))
        self.daemon.ctl("acl", "del", "1501", "10")
        self.assertTrue(self.daemon.until(lambda: [e for e in watcher.of("acl") if e["change"] == "rule gone"]))
        self.assertRegex(watcher.events[0]["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")

    def test_a_watcher_that_does_not_read_holds_nobody_up(self):
        watcher = subprocess.Popen([*self.daemon.program("pbrctl"), "--root", self.daemon.root, "watch", "--json"],
                                   stdout=subprocess.PIPE)
        self.addCleanup(watcher.stdout.close)
        self.addCleanup(watcher.wait)
        self.addCleanup(watcher.kill)
        rules = {str(number): f"permit tcp from any to any port {number}" for number in range(1, 4001)}
        for _ in range(2):
            self.manage({"op": "acl.replace", "acl": 1501, "rules": rules})
            self.manage({"op": "acl.replace", "acl": 1501, "rules": {}})
        events = []
        while not [event for event in events if event["event"] == "lost"]:
            line = watcher.stdout.readline()
            self.assertTrue(line, "the watcher ended")
            events.append(json.loads(line))
        self.assertGreater(events[-1]["count"], 0)


class InTheLab(system_case.LabCase):
    def test_explain_and_counters_follow_the_packets(self):
        hops = [self.next_hop("upa"), self.next_hop("upb")]
        self.daemon.apply(f"""
acls: {{1501: {{10: permit udp from any to any}}}}
lists: {{wan: {{10: {{acl: 1501, next-hops: [{hops[0]}, {hops[1]}]}}}}}}
bindings: {{lan0: wan}}
""")
        self.all_by("upa")
        before = self.daemon.json("show", "policy-counters")["counters"][0]["packets"]
        self.assertEqual({"upa": 20}, {up: n for up, n in self.by_uplink(count=20).items() if n})
        after = self.daemon.json("show", "policy-counters")["counters"][0]
        self.assertEqual((before + 20, before + 20), (after["packets"], after["rules"][0]["packets"]))
        said = self.daemon.json("explain", "--in", "lan0", "--src", "10.0.0.2", "--dst", "198.18.0.1", "--proto", "udp")
        self.assertEqual(("policy", hops[0]), (said["verdict"], said["paths"][0]["gateway"]))
        self.assertIn("comes first", said["hops"][1]["why"])
        self.daemon.ctl("counters", "clear")
        self.assertEqual(0, self.daemon.json("show", "policy-counters")["counters"][0]["packets"])


PORTS = ", ".join(f"{n}: permit udp from any to any port {n}" for n in range(10, 40))
COSTS = f"""
acls:
  1501: {{{PORTS}, 50: permit tcp from 10.0.0.0/8 to any flags syn}}
  3501: {{10: "permit udp from 2001:db8::/32 to any port 443"}}
lists:
  wan:
    10: {{acl: 1501, next-hops: [198.51.100.1]}}
    20: {{acl: 3501, next-hops: ["2001:db8:a::1"]}}
"""


class Costs(system_case.LabCase):
    def cost(self, *words, check=True):
        return self.daemon.ctl("explain", "--cost", *words, check=check)

    def test_told_by_interface_with_the_rules_that_no_map_holds(self):
        self.daemon.apply(COSTS + "bindings: {lan0: wan}\n")
        self.assertTrue(self.daemon.until(lambda: "decisions: 1;" in self.cost().stdout), self.cost().stdout)
        self.assertEqual("""lan0, IPv4, list wan: at most 1 look-up and 1 rule one by one
  map of single keys (dport): 30 rules in 30 elements
  one by one: 1 rule: too few rules of its form stand together
    node 10 rule 50: permit tcp from 10.0.0.0/8 to any flags syn
  decisions: 1; at most 1 routing rule for a packet that is steered, 1 for any other of this IP version, on any interface
lan0, IPv6, list wan: at most 0 look-ups and 1 rule one by one
  no maps: no map comes out of its rules
  one by one: 1 rule: too few rules of its form stand together
    node 20 rule 10: permit udp from 2001:db8::/32 to any port 443
  decisions: 1; at most 1 routing rule for a packet that is steered, 1 for any other of this IP version, on any interface
""", self.cost("lan0").stdout)
        told = json.loads(self.daemon.ctl("--json", "explain", "--cost", "lan0").stdout)["costs"]
        self.assertEqual([("lan0", 4, 1, 1), ("lan0", 6, 0, 1)],
                         [(each["interface"], each["ipVersion"], each["mostLookUps"], each["mostRules"]) for each in told])
        self.assertEqual({"decisions": 1, "steered": 1, "unsteered": 1}, told[0]["routingRules"])

    def test_an_interface_that_is_not_bound_costs_its_packets_no_comparison(self):
        self.daemon.apply(COSTS + "bindings: {lan0: wan}\n")
        refused = self.cost("lan1", check=False)
        self.assertEqual((1, ""), (refused.returncode, refused.stdout))
        self.assertIn("no list is bound to interface lan1", refused.stderr)
        self.assertNotIn("lan1", self.cost().stdout)

    def test_told_for_each_interface_that_a_list_is_bound_to(self):
        self.daemon.apply(COSTS + "bindings: {lan0: wan, lan1: wan}\n")
        self.assertEqual(["lan0, IPv4", "lan1, IPv4", "lan0, IPv6", "lan1, IPv6"],
                         [line.split(", list")[0] for line in self.cost().stdout.splitlines() if line.startswith("lan")])

    def test_without_a_policy_nothing_is_paid(self):
        self.assertEqual("no list is bound to an interface\n", self.cost().stdout)


if __name__ == "__main__":
    system_case.main()
