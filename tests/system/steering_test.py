"""Packets of matching traffic leave by the policy's next hop, in both families, whatever happens around it."""
import time

import system_case
import netlab
from netlab import UPLINKS

ACLS = """
acls:
  1501: {10: permit udp from 10.0.0.0/8 to any port 443}
  1502: {10: permit udp from 10.0.0.0/8 to any port 500-510}
  1503: {10: permit udp from 10.0.0.0/8 to any port 600}
  3501: {10: "permit udp from 2001:db8::/32 to any port 443"}
  3502: {10: "permit udp from 2001:db8::/32 to any port 500-510"}
"""


def hops(*uplinks, family=4):
    return "[" + ", ".join('"%s"' % UPLINKS[up][1 if family == 4 else 3] for up in uplinks) + "]"


def policy(nodes, bindings="lan0: wan", acls=ACLS, more=""):
    lines = "".join(f"    {index}: {{{text}}}\n" for index, text in nodes.items())
    bound = "".join(f"  {part}\n" for part in bindings.split(", ") if part)
    return f"{acls}lists:\n  wan:\n{lines}{more}bindings:\n{bound}" if bound else f"{acls}lists:\n  wan:\n{lines}{more}"


def both(*uplinks, **options):
    extra = "".join(f", {key}: {value}" for key, value in options.items())
    return {10: f"acl: 1501, next-hops: {hops(*uplinks)}{extra}",
            20: f"acl: 3501, next-hops: {hops(*uplinks, family=6)}{extra}"}


class LinksOnly(system_case.LabCase):
    options = ("host.neighbour-probe-ms=60000",)  # no confirmation of a neighbour falls due within a test

    def test_a_link_that_goes_down_is_noticed_at_once(self):
        self.daemon.apply(policy(both("upa", "upc")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        self.lab.link("upa", "down")
        for family in (4, 6):
            self.all_by("upc", family=family)
        self.lab.link("upa", "up")
        for family in (4, 6):
            self.all_by("upa", family=family)


class OneNextHop(system_case.LabCase):
    def test_matching_traffic_takes_the_next_hop_and_the_rest_the_routing_table(self):
        self.daemon.apply(policy(both("upa")))
        for family in (4, 6):
            self.all_by("upa", family=family)
            self.all_by("upb", family=family, port=53)
            self.all_by("upb", family=family, source_ns="lan2")

    def test_fails_over_to_the_second_choice_and_comes_back(self):
        self.daemon.apply(policy(both("upa", "upc")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        self.lab.silence("upa")
        for family in (4, 6):
            self.all_by("upc", family=family)
        self.lab.unsilence("upa")
        for family in (4, 6):
            self.all_by("upa", family=family)

    def test_with_nothing_usable_packets_are_routed_normally(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.lab.silence("upa")
        for family in (4, 6):
            self.all_by("upb", family=family)
        self.lab.unsilence("upa")
        for family in (4, 6):
            self.all_by("upa", family=family)

    def test_addresses_of_the_router_itself_stay_local(self):
        self.daemon.apply(policy(both("upa"), acls=ACLS.replace("10.0.0.0/8 to any port 443", "any to any")))
        self.all_by("upa")
        arrivals = netlab.Arrivals(self.lab, 4, 443, ns="rtr")
        netlab.send(self.lab, 4, 443, 5, destination="10.0.0.1")
        self.assertEqual(5, arrivals.wait(5))
        arrivals.close()

    def test_unbinding_takes_the_policy_away(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.daemon.ctl("unbind", "lan0")
        for family in (4, 6):
            self.assertEqual({"upb": 20}, self.by_uplink(family=family))


class ManyNodesAndInterfaces(system_case.LabCase):
    def test_a_deny_rule_goes_on_with_the_next_node(self):
        acls = """
acls:
  1501: {10: deny udp from 10.0.0.10/32 to any port 443, 20: permit udp from any to any}
  1502: {10: permit udp from any to any port 443}
"""
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: {hops('upa')}",
                                  20: f"acl: 1502, next-hops: {hops('upc')}"}, acls=acls))
        self.all_by("upc", port=443)
        self.all_by("upa", port=444)

    def test_the_first_matching_node_decides(self):
        acls = "acls:\n  1501: {10: permit udp from any to any port 443}\n  1502: {10: permit ip from any to any}\n"
        self.daemon.apply(policy({20: f"acl: 1502, next-hops: {hops('upc')}",
                                  10: f"acl: 1501, next-hops: {hops('upa')}"}, acls=acls))
        self.all_by("upa", port=443)
        self.all_by("upc", port=444)

    def test_one_list_on_two_interfaces(self):
        self.daemon.apply(policy(both("upa", "upc"), bindings="lan0: wan, lan1: wan"))
        for namespace in ("lan", "lan2"):
            for family in (4, 6):
                self.all_by("upa", family=family, source_ns=namespace)
        self.lab.silence("upa")
        for namespace in ("lan", "lan2"):
            self.all_by("upc", source_ns=namespace)
        self.daemon.ctl("unbind", "lan1")
        self.assertEqual({"upb": 20}, self.by_uplink(source_ns="lan2"))
        self.all_by("upc", source_ns="lan")
        self.lab.unsilence("upa")
        self.all_by("upa", source_ns="lan")
        self.assertEqual({"upb": 20}, self.by_uplink(source_ns="lan2"))

    def test_unbinding_one_of_two_while_a_change_waits_leaves_the_other_right(self):
        self.daemon.apply(policy(both("upa", "upc"), bindings="lan0: wan, lan1: wan"))
        self.all_by("upa")
        self.lab.link("upa", "down")
        self.daemon.ctl("unbind", "lan1")
        self.all_by("upc")
        self.assertEqual({"upb": 20}, self.by_uplink(source_ns="lan2"))

    def test_rebinding_after_the_peer_died_meanwhile(self):
        self.daemon.apply(policy(both("upa", "upc")))
        self.all_by("upa")
        self.daemon.ctl("unbind", "lan0")
        self.lab.link("upa", "down")
        self.daemon.ctl("bind", "lan0", "wan")
        self.all_by("upc")
        self.all_by("upc", family=6)
        self.lab.link("upa", "up")
        self.all_by("upa")

    def test_nodes_of_other_kinds_behind_a_next_hop_node_stay_through_every_change(self):
        self.lab.add_tunnel("upd")
        self.addCleanup(lambda: netlab.run("ip link del upd", "rtr", check=False))
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: {hops('upa', 'upc')}",
                                  20: "acl: 1502, interface: upd",
                                  30: "acl: 1503, priority: 5"}))
        for change, expected in ((None, "upa"), (lambda: self.lab.silence("upa"), "upc"),
                                 (lambda: self.lab.unsilence("upa"), "upa"),
                                 (lambda: self.lab.link("upa", "down"), "upc"),
                                 (lambda: self.lab.link("upa", "up"), "upa"),
                                 (lambda: self.daemon.ctl("bind", "lan1", "wan"), "upa"),
                                 (lambda: self.daemon.ctl("unbind", "lan1"), "upa")):
            if change:
                change()
            self.all_by(expected)
            self.assertEqual({"tunnel": 20}, self.by_uplink(port=505))
            self.assertEqual({5}, self.priorities(600))

    def priorities(self, port, family=4):
        arrivals = netlab.Arrivals(self.lab, family, port)
        netlab.send(self.lab, family, port, 10)
        arrivals.wait(10)
        arrivals.close()
        self.assertEqual({"upb": 10}, arrivals.by_uplink())
        return {packet[3] >> 5 for packet in arrivals.packets}


class WhatTheKernelCannotExpress(system_case.LabCase):
    def test_is_refused_with_its_reason_and_nothing_is_disturbed(self):
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: {hops('upa')}"}))
        self.all_by("upa")
        done = self.daemon.apply(policy({5: "acl: 1503, priority: 12",
                                         10: f"acl: 1501, next-hops: {hops('upc')}"}), check=False)
        self.assertEqual(1, done.returncode)
        self.assertIn("priority 12", done.stdout + done.stderr)
        self.all_by("upa")
        arrivals = netlab.Arrivals(self.lab, 4, 600)
        netlab.send(self.lab, 4, 600, 10)
        arrivals.wait(10)
        arrivals.close()
        self.assertEqual({("upb", 0)}, {(packet[1], packet[3]) for packet in arrivals.packets})

    def test_is_told_at_the_binding(self):
        self.daemon.ctl("acl", "add", 1503, 10, "permit udp from 10.0.0.0/8 to any port 600")
        self.daemon.ctl("list", "add", "wan")
        self.daemon.ctl("node", "add", "wan", 5, "--acl", 1503, "--priority", 12)
        done = self.daemon.ctl("bind", "lan1", "wan", check=False)
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)
        self.assertIn("priority 12", done.stdout + done.stderr)


class Ecmp(system_case.LabCase):
    def spread(self, family):
        return self.by_uplink(family=family, count=120, ports=60)

    def test_flows_spread_over_the_members_and_a_flow_stays_on_one(self):
        for family in (4, 6):  # flows of one pair of hosts differ in their ports only
            netlab.sysctl("rtr", f"ipv{family}/fib_multipath_hash_policy", 1)
        self.daemon.apply(policy(both("upa", "upb", "upc", ecmp="true")))
        for family in (4, 6):
            self.assertTrue(self.daemon.until(lambda f=family: set(self.spread(f)) == {"upa", "upb", "upc"}), self.spread(family))
            self.assertEqual(1, len(self.by_uplink(family=family, count=50, ports=1)))
        for dead, left in (("upa", {"upb", "upc"}), ("upc", {"upb"})):
            self.lab.silence(dead)
            for family in (4, 6):
                self.assertTrue(self.daemon.until(lambda f=family, want=left: set(self.spread(f)) == want and
                                                  sum(self.spread(f).values()) == 120), (left, self.spread(family)))
        for back, right in (("upc", {"upb", "upc"}), ("upa", {"upa", "upb", "upc"})):
            self.lab.unsilence(back)
            for family in (4, 6):
                self.assertTrue(self.daemon.until(lambda f=family, want=right: set(self.spread(f)) == want), (right, self.spread(family)))

    def test_when_the_last_member_is_lost_packets_are_routed_normally(self):
        self.daemon.apply(policy(both("upa", "upc", ecmp="true")))
        for family in (4, 6):
            self.assertTrue(self.daemon.until(lambda f=family: set(self.spread(f)) <= {"upa", "upc"} and self.spread(f)))
        self.lab.silence("upa")
        self.lab.silence("upc")
        for family in (4, 6):
            self.all_by("upb", family=family)
        self.lab.unsilence("upc")
        for family in (4, 6):
            self.all_by("upc", family=family)


class Vrf(system_case.LabCase):
    def test_next_hops_are_resolved_in_the_table_of_their_vrf(self):
        for table, up in (("77", "upc"),):
            netlab.run(f"ip route add 100.64.0.0/24 dev {up} table {table}", "rtr")
            netlab.run("ip route add 198.18.0.0/24 via 100.64.0.1 table 77", "rtr")
        self.addCleanup(lambda: netlab.run("ip route flush table 77", "rtr"))
        self.daemon.apply(policy({10: f"acl: 1501, vrf: 77, next-hops: {hops('upc')}",
                                  20: f"acl: 1502, vrf: 77, next-hops: {hops('upa')}"}))
        self.all_by("upc")
        self.all_by("upb", port=505)  # its next hop is not in the VRF's table: not usable there


class OthersAreLeftAlone(system_case.LabCase):
    def test_foreign_tables_rules_routes_and_marks_are_not_touched(self):
        netlab.run(["nft", "add table inet other; add chain inet other c { type filter hook prerouting priority mangle; }; "
                    "add rule inet other c meta mark set meta mark or 0x00000007"], "rtr")
        netlab.run("ip rule add pref 400 fwmark 0x55 lookup 99", "rtr")
        netlab.run("ip route add 203.0.113.77/32 dev upa table 99", "rtr")
        netlab.run("ip nexthop add id 7 via 198.51.100.1 dev upa", "rtr")
        self.addCleanup(lambda: [netlab.run(words, "rtr", check=False) for words in
                                 ("nft delete table inet other", "ip rule del pref 400", "ip route flush table 99",
                                  "ip nexthop del id 7")])

        def foreign():
            return [netlab.run(words, "rtr").stdout for words in
                    ("nft list table inet other", "ip rule list pref 400", "ip route show table 99", "ip nexthop show id 7",
                     "ip route show table main", "ip -6 route show table main")]

        before = foreign()
        self.daemon.apply(policy(both("upa", "upc")))
        self.all_by("upa")
        self.daemon.ctl("unbind", "lan0")
        self.daemon.apply(policy(both("upc", "upa")))
        self.all_by("upc")

        def flushed():
            """Whether a flush left nothing of ours; a report right behind it installs the bound list again."""
            self.daemon.ctl("device", "flush")
            return not ("policyroute" in netlab.run("nft list tables", "rtr").stdout or
                        "proto 206" in netlab.run("ip rule", "rtr").stdout or
                        netlab.run("ip nexthop show proto 206", "rtr").stdout)

        self.assertTrue(self.daemon.until(flushed))
        self.assertEqual(before, foreign())


class Detection(system_case.LabCase):
    def failover_time(self, cut):
        stream = netlab.Stream(self.lab, 4)
        time.sleep(0.3)
        begin = time.monotonic()
        cut()
        moved, _ = stream.wait_uplink("upc", 6)
        took = time.monotonic() - begin
        result = stream.stop()
        print(f"noticed after {took * 1000:.0f} ms, {result['lost']} packets lost at 1 ms spacing")
        self.assertTrue(moved)
        return took, result["lost"]

    def test_a_silent_neighbour_is_noticed_by_fast_confirmations(self):
        self.daemon.apply(policy(both("upa", "upc")))
        self.all_by("upa")
        took, _ = self.failover_time(lambda: self.lab.silence("upa"))
        self.assertLess(took, 3)  # half a second by the settings; the kernel alone takes half a minute


class DetectionWithKernelDefaults(system_case.LabCase):
    options = ()

    def setUp(self):
        for up in UPLINKS:
            netlab.sysctl("rtr", f"ipv4/neigh/{up}/retrans_time_ms", 1000)
        super().setUp()

    def test_a_silent_neighbour_is_noticed_by_slow_confirmations(self):
        self.daemon.apply(policy(both("upa", "upc")))
        self.all_by("upa")
        took, _ = Detection.failover_time(self, lambda: self.lab.silence("upa"))
        self.assertLess(took, 10)


if __name__ == "__main__":
    system_case.main()
