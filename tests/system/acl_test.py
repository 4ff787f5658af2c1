"""Rules of every kind from a policy file to packets, and fragments that stay together."""
import itertools
import json
import re
import socket
import struct

import system_case
import netlab
from netlab import ISP, SERVER

ACLS = """
acls:
  1501: {10: %s}
  3501: {10: %s}
"""
LISTS = """
lists:
  wan:
    10: {acl: 1501, next-hops: ["%s"]}
    20: {acl: 3501, next-hops: ["%s"]}
bindings:
  lan0: wan
"""


class AclCase(system_case.LabCase):
    numbers = itertools.count(1)

    def policy(self, rule4, rule6=None):
        lists = LISTS % (self.next_hop("upa"), self.next_hop("upa", 6))
        return ACLS % (json.dumps(rule4), json.dumps(rule6 or rule4)) + lists

    def udp(self, family, port, size, count=1, tos=None, number=0):
        """Sends datagrams of so many bytes to the server, which begin with a number."""
        sender = self.lab.socket("lan", socket.AF_INET if family == 4 else socket.AF_INET6)
        try:
            if tos is not None and family == 4:
                sender.setsockopt(socket.IPPROTO_IP, socket.IP_TOS, tos)
            if tos is not None and family == 6:
                sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_TCLASS, tos)
            for _ in range(count):
                sender.sendto(struct.pack("!I", number).ljust(size, b"\0"), (SERVER[family], port))
        finally:
            sender.close()

    def way(self, family, port=443, size=8, tos=None):
        """The uplink that one datagram takes; one that was on its way before is another."""
        arrivals = netlab.Arrivals(self.lab, family, port)
        number = next(self.numbers)

        def uplinks():
            return "+".join(packet[1] for packet in list(arrivals.packets) if packet[0] == number)

        try:
            self.udp(family, port, size, tos=tos, number=number)
            return self.daemon.until(uplinks, 3.0)
        finally:
            arrivals.close()


class Rules(AclCase):
    def test_options_of_a_rule_steer_packets_by_what_they_say(self):
        self.daemon.apply(self.policy("permit udp dscp ef length 100-200"))
        for family in (4, 6):
            self.assertTrue(self.daemon.until(lambda: self.way(family, size=100, tos=0xb8) == "upa"))
            self.assertEqual("upb", self.way(family, size=100, tos=0xb4))
            self.assertEqual("upb", self.way(family, size=20, tos=0xb8))

    def test_a_rule_is_shown_as_it_would_be_written_and_applying_it_again_changes_nothing(self):
        text = self.policy("permit 6 from 10.0.0.5 mask 0.255.255.0 flags !ack,syn dscp 46", "permit tcp established")
        self.daemon.apply(text)
        self.assertIn("permit tcp from 10.0.0.5 mask 0.255.255.0 to any flags syn,!ack dscp ef",
                      self.daemon.ctl("acl", "show", "1501").stdout)
        self.assertIn("othing to do", self.daemon.apply(text, "--dry-run").stdout)

    def test_a_single_rule_is_added_and_a_wrong_one_is_refused(self):
        self.daemon.apply(self.policy("permit udp to any port 443"))
        self.daemon.ctl("acl", "add", "1501", "5", "deny", "udp", "length", "100-200")
        self.assertTrue(self.daemon.until(lambda: self.way(4, size=8) == "upa"))
        self.assertEqual("upb", self.way(4, size=100))
        refused = self.daemon.ctl("acl", "add", "1501", "7", "permit", "udp", "established", check=False)
        self.assertNotEqual(0, refused.returncode)
        self.assertIn("word 3 'established': this option needs protocol tcp, not 'udp'", refused.stderr + refused.stdout)
        self.assertEqual("upb", self.way(4, size=100))


    def test_a_rule_that_the_kernel_cannot_match_is_refused_and_the_ones_before_stay(self):
        self.daemon.apply(self.policy("permit udp to any port 443"))
        for family in (4, 6):
            self.all_by("upa", family=family)
        before = self.daemon.ctl("show", "acls").stdout
        counted = self.daemon.ctl("--json", "show", "policy-counters").stdout
        streams = [netlab.Stream(self.lab, family) for family in (4, 6)]
        for words, reason in (((1501, 20, "permit", "udp", "fragments"), "node wan/10: ACL 1501 rule 20: fragments are"),
                              ((1501, 10, "permit", "udp", "fragments"), "node wan/10: ACL 1501 rule 10: fragments are"),
                              ((3501, 20, "permit", 51), "node wan/20: ACL 3501 rule 20: protocol 51 is")):
            refused = self.daemon.ctl("acl", "add", *words, check=False)
            self.assertEqual(1, refused.returncode, words)
            self.assertIn("the forwarding plane does not take it: " + reason, refused.stderr)
            self.assertIn("Nothing was changed", refused.stderr)
            self.assertEqual(before, self.daemon.ctl("show", "acls").stdout)
        self.assertEqual(0, self.daemon.ctl("check").returncode)
        self.stay_and_count(streams, counted)
        self.daemon.ctl("acl", "add", 1502, 10, "permit", "udp", "fragments")  # nobody uses it yet

    def stay_and_count(self, streams, counted):
        """No packet of the streams was disturbed, and the counters went on from `counted`."""
        for stream in streams:
            result = stream.stop()
            self.assertEqual((0, {"upa": result["sent"]}), (result["lost"], result["uplinks"]))
        packets = [[row["packets"] for row in json.loads(text)["counters"]] for text in (
            counted, self.daemon.ctl("--json", "show", "policy-counters").stdout)]
        self.assertTrue(all(a <= b for a, b in zip(*packets)), packets)
        self.assertLess(sum(packets[0]) + 100, sum(packets[1]))

    def test_a_refused_file_disturbs_no_packet_and_no_counter(self):
        self.daemon.apply(self.policy("permit udp to any port 443"))
        for family in (4, 6):
            self.all_by("upa", family=family)
        counted = self.daemon.ctl("--json", "show", "policy-counters").stdout
        streams = [netlab.Stream(self.lab, family) for family in (4, 6)]
        for _ in range(5):
            refused = self.daemon.apply(self.policy("permit udp fragments"), check=False)
            self.assertEqual(1, refused.returncode)
            self.assertIn("the forwarding plane refuses it:", refused.stderr)
            self.assertIn("Nothing was changed", refused.stderr)
        self.stay_and_count(streams, counted)


class FragmentCase(AclCase):
    def setUp(self):
        super().setUp()
        for up in ("upa", "upb"):
            netlab.run(["nft", "add table inet seen; add chain inet seen c { type filter hook prerouting priority -500; }; "
                        f"add rule inet seen c ip daddr {SERVER[4]} meta l4proto udp counter; "
                        f"add rule inet seen c ip6 daddr {SERVER[6]} meta l4proto udp counter"], ISP[up])
            self.addCleanup(lambda up=up: netlab.run("nft delete table inet seen", ISP[up], check=False))

    def seen(self, up):
        """Packets of both families that came by an uplink, each fragment for itself."""
        return sum(map(int, re.findall(r"packets (\d+)", netlab.run("nft list table inet seen", ISP[up]).stdout)))


class Fragments(FragmentCase):
    def test_all_fragments_of_a_datagram_take_the_way_of_its_ports(self):
        self.daemon.apply(self.policy("permit udp to any port 443"))
        for family in (4, 6):
            self.all_by("upa", family=family)
            before = self.seen("upa"), self.seen("upb")
            self.udp(family, 443, 6000)
            self.assertTrue(self.daemon.until(lambda: self.seen("upa") >= before[0] + 5))
            self.assertEqual(before[1], self.seen("upb"))

    def test_rules_for_fragments_are_refused_with_the_reason(self):
        done = self.daemon.apply(self.policy("permit udp fragments"), check=False)
        self.assertIn("host.defrag is on", done.stdout + done.stderr)


class WithoutReassembly(FragmentCase):
    options = ("host.neighbour-probe-ms=400", "host.defrag=off")

    def test_later_fragments_have_no_ports(self):
        self.daemon.apply(self.policy("permit udp to any port 443"))
        for family in (4, 6):
            self.all_by("upa", family=family)
            before = self.seen("upa"), self.seen("upb")
            self.udp(family, 443, 6000)
            self.assertTrue(self.daemon.until(lambda: self.seen("upb") >= before[1] + 4), "later ones go their own way")
            self.assertEqual(before[0] + 1, self.seen("upa"))

    def test_rules_for_fragments_match_the_later_ones(self):
        self.daemon.apply(self.policy("permit udp fragments"))
        for family in (4, 6):
            self.assertEqual("upb", self.way(family))
            before = self.seen("upa")
            self.udp(family, 443, 6000)
            self.assertTrue(self.daemon.until(lambda: self.seen("upa") >= before + 4), "rules for fragments match here")


if __name__ == "__main__":
    system_case.main()
