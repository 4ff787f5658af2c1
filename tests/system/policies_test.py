"""Every kind of policy tried with packets, IPv4 and IPv6 alike, in one table that is printed at the end.

Each row is a measurement: so many packets were sent, there they arrived. A row that is not as its policy says fails its
test, and the table says what was wanted. What `apply` said is done must be so at once; rows after an event (settle=EVENT)
are measured until they are as wanted, with a bound.
"""
import itertools
import json
import os
import sys
import unittest

import system_case
import netlab
import packet_table as pt
import races
from packet_table import by, exactly, nothing, spread

TABLE = pt.Table()
EVENT = 5.0      # seconds in which an event must have done its work
NORMAL = "upb"   # the routing table's way
WEB = "permit udp to any port 443"
VRF = 1077
VRF_HOP = {4: "198.19.0.1/24", 6: "2001:db8:97::1/64"}  # on a network that only the VRF's table knows
VRF_NET = {4: "198.19.0.0/24", 6: "2001:db8:97::/64"}
ROUTER = {4: "10.0.0.1", 6: "2001:db8:1::1"}  # the router's address on lan0
SMALL_MTU = 1300


class PolicyCase(system_case.LabCase):
    wide = True

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.lab.answer_uplinks()
        for family in (4, 6):  # flows of one pair of hosts differ in their ports only
            netlab.sysctl("rtr", f"ipv{family}/fib_multipath_hash_policy", 1)
        for ns in ("rtr", *cls.lab.isp.values()):  # every packet gets its error
            netlab.sysctl(ns, "ipv4/icmp_ratelimit", 0)
            netlab.sysctl(ns, "ipv6/icmp/ratelimit", 0)

    def setUp(self):
        super().setUp()
        self.wrong = []

    def tearDown(self):
        self.assertEqual([], self.wrong)

    # ---- policies ----
    def via(self, *uplinks, probe=None, **more):
        """What a node does: next hops in order, the first with a probe if `probe` names it; for either family."""
        def action(family):
            hops = [self.next_hop(up, family) for up in uplinks]
            if probe is not None:
                hops[0] = {"address": hops[0], "probe": f"{probe}{family}"}
            return {"next-hops": hops, **more}
        return action

    def apply(self, lists, bindings, **sections):
        """lists: {name: [(rules, action), ...]}, both also as functions of the family. Each node is made for IPv4 and
        for IPv6."""
        acls, made, numbers = {}, {}, {4: itertools.count(1001), 6: itertools.count(3001)}
        for name, nodes in lists.items():
            made[name] = {}
            for place, (rules, action) in enumerate(nodes, 1):
                for family in (4, 6):
                    chosen = rules(family) if callable(rules) else rules
                    number = next(numbers[family])
                    acls[number] = {10 * at: rule for at, rule in enumerate([chosen] if isinstance(chosen, str) else chosen, 1)}
                    made[name][10 * place + (1000 if family == 6 else 0)] = {
                        "acl": number, **(action(family) if callable(action) else action)}
        self.daemon.apply(json.dumps({"acls": acls, "lists": made, "bindings": bindings, **sections}))

    # ---- rows ----
    def row(self, policy, family, wanted, measure, sent, settle):
        """Measures until it is as wanted, once without `settle`, and notes the last measurement."""
        seen = None

        def question():
            nonlocal seen
            counts, packets = measure()
            seen = counts, wanted(counts, packets, sent)
            return seen[1] is None

        self.daemon.until(question, settle)
        TABLE.add(policy, family, sent, *seen)
        if seen[1] is not None:
            self.wrong.append((policy, pt.FAMILIES[family], pt.places(seen[0]), seen[1]))

    def rows(self, policy, wanted, count=20, settle=0, port=443, receiver="srv", sources=("lan",), tos=None, **options):
        """One row a family: `count` datagrams from each of the sources, with this TOS if one is given; `options` (of
        netlab.send) may be functions of the family. Where it matters the places name source and TOS, too."""
        for family in (4, 6):
            chosen = {key: value(family) if callable(value) else value for key, value in options.items()}

            if tos is not None:
                chosen["setopts"] = [(*pt.TOS[family], tos)]

            def measure():
                places, packets, wait = {}, [], 0.3 if settle or wanted is nothing else 3.0
                for source in sources:
                    _, seen = pt.arrived(self.lab, family, count, port=port, ns=receiver, wait=wait, send=lambda: netlab.send(
                        self.lab, family, port, count, source_ns=source, **chosen))
                    origin = f" from {self.lab.lans[source][0]}" if len(sources) > 1 else ""
                    for packet in seen:
                        place = packet[1] + (f" with TOS {packet[3]:#04x}" if tos is not None else "") + origin
                        places[place] = places.get(place, 0) + 1
                    packets += seen
                return places, packets

            self.row(policy, family, wanted, measure, count * len(sources), settle)

    def error_rows(self, policy, wanted, setopts, size=4, count=5):
        """One row a family: datagrams for which an ICMP error comes back and of which nothing arrives."""
        for family in (4, 6):
            def measure():
                found = {}
                counts, packets = pt.arrived(self.lab, family, 1, wait=0.1, send=lambda: found.update(pt.errors(
                    self.lab, family, count, size=size, setopts=[setopts(family)])))
                return {**counts, **found}, packets

            self.row(policy, family, by(wanted(family)), measure, count, 0)


class NextHops(PolicyCase):
    def test_one_next_hop(self):
        self.apply({"wan": [(WEB, self.via("upa"))]}, {"lan0": "wan"})
        self.rows("one next hop", by("upa"))
        self.rows("traffic that matches no node", by(NORMAL), port=53)
        self.rows("traffic of an interface without policy", by(NORMAL), sources=("lan2",))
        self.lab.silence("upa")
        self.rows("one next hop: it is dead", by(NORMAL), settle=EVENT)
        self.lab.unsilence("upa")
        self.rows("one next hop: it is back", by("upa"), settle=EVENT)

    def test_backup(self):
        self.apply({"wan": [(WEB, self.via("upa", "upc"))]}, {"lan0": "wan"})
        self.rows("backup: both live", by("upa"))
        self.lab.silence("upa")
        self.rows("backup: the first is dead", by("upc"), settle=EVENT)
        self.lab.link("upc", "down")
        self.rows("backup: the second's link is down, too", by(NORMAL), settle=EVENT)
        self.lab.link("upc", "up")
        self.rows("backup: the second is back", by("upc"), settle=EVENT)
        self.lab.unsilence("upa")
        self.rows("backup: the first is back", by("upa"), settle=EVENT)

    def test_probe(self):
        probes = {f"ops/a{family}": {"icmp": netlab.SERVER[family], "via": "next-hop", "interval": "100ms", "timeout": "80ms"}
                  for family in (4, 6)}
        self.apply({"wan": [(WEB, self.via("upa", "upc", probe="ops/a"))]}, {"lan0": "wan"}, probes=probes)
        self.rows("probe: passing", by("upa"))
        self.addCleanup(self.lab.mend_behind, "upa")
        self.lab.cut_behind("upa")
        self.rows("probe: failing, its next hop answers", by("upc"), settle=EVENT)
        for hop in self.daemon.json("show", "next-hops"):
            self.assertEqual("up", hop["reachable"], hop)
        self.lab.mend_behind("upa")
        self.rows("probe: passing again", by("upa"), settle=EVENT)

    def test_vrf(self):
        for family in (4, 6):
            netlab.run(f"ip -{family} addr add {VRF_HOP[family]} dev eth0" + (" nodad" if family == 6 else ""), "ispc")
            netlab.run(f"ip -{family} route add {VRF_NET[family]} dev upc table {VRF}", "rtr")
            self.addCleanup(netlab.run, f"ip -{family} route flush table {VRF}", "rtr", check=False)
            self.addCleanup(netlab.run, f"ip -{family} addr del {VRF_HOP[family]} dev eth0", "ispc", check=False)

        def hop(vrf):
            return lambda family: {"vrf": vrf, "next-hops": [VRF_HOP[family].split("/")[0]]}

        self.apply({"wan": [(WEB, hop(VRF))]}, {"lan0": "wan"})
        self.rows("VRF: the next hop is known in its table", by("upc"))
        self.apply({"wan": [(WEB, hop(0))]}, {"lan0": "wan"})
        self.rows("VRF: the same next hop without VRF", by(NORMAL))

    def test_otherwise_drop(self):
        self.apply({"wan": [(WEB, self.via("upa", otherwise="drop"))]}, {"lan0": "wan"})
        self.rows("otherwise drop: the next hop lives", by("upa"))
        self.lab.silence("upa")
        self.rows("otherwise drop: it is dead", nothing, settle=EVENT)
        self.rows("otherwise drop: traffic that matches no node", by(NORMAL), port=53)
        self.lab.unsilence("upa")
        self.rows("otherwise drop: it is back", by("upa"), settle=EVENT)


class Ecmp(PolicyCase):
    def try_legs(self, *legs):
        """All legs; the first falls silent, the last loses its link; each comes back."""
        name, flows = f"ECMP of {len(legs)}", {"count": 256, "ports": 64}
        self.apply({"wan": [(WEB, self.via(*legs, ecmp=True))]}, {"lan0": "wan"})
        self.rows(f"{name}: all live, 64 flows", spread(*legs), **flows)
        self.rows(f"{name}: one flow", pt.by_one_of(*legs), count=50)
        self.lab.silence(legs[0])
        self.rows(f"{name}: one is dead", spread(*legs[1:]), settle=EVENT, **flows)
        self.lab.unsilence(legs[0])
        self.rows(f"{name}: it is back", spread(*legs), settle=EVENT, **flows)
        self.lab.link(legs[-1], "down")
        self.rows(f"{name}: another's link is down", spread(*legs[:-1]), settle=EVENT, **flows)
        self.lab.link(legs[-1], "up")
        self.rows(f"{name}: its link is up", spread(*legs), settle=EVENT, **flows)

    def test_of_two(self):
        self.try_legs("upa", "upc")

    def test_of_three(self):
        self.try_legs("upa", "upc", "upd")

    def test_of_four(self):
        self.try_legs("upa", "upb", "upc", "upd")


class OtherActions(PolicyCase):
    def test_out_of_an_interface(self):
        self.lab.add_tunnel("p2p")
        self.addCleanup(netlab.run, "ip link del p2p", "rtr", check=False)
        self.apply({"wan": [(WEB, {"interface": "p2p"})]}, {"lan0": "wan"})
        self.rows("out of an interface", by("tunnel"))
        netlab.run("ip link set p2p down", "rtr")
        self.rows("out of an interface: it is down", by(NORMAL), settle=EVENT)
        netlab.run("ip link set p2p up", "rtr")
        self.rows("out of an interface: it is up", by("tunnel"), settle=EVENT)

    def test_priority(self):
        self.apply({"wan": [(WEB, {"priority": 5}), ("permit udp to any port 444", self.via("upa", priority=3))]},
                   {"lan0": "wan"})
        # Bits below the precedence stay as they were sent.
        self.rows("priority 5 only, sent with TOS 0x2a", by(NORMAL + " with TOS 0xaa"), tos=0x2a)
        self.rows("priority 3 and a next hop, sent with TOS 0x2a", by("upa with TOS 0x6a"), tos=0x2a, port=444)
        self.rows("priority: traffic that matches no node", by(NORMAL + " with TOS 0x2a"), tos=0x2a, port=53)

    def test_time_range(self):
        ranges = {"time-ranges": {7: {"days": "daily"}}}
        timed = (WEB, self.via("upa", **{"time-range": 7}))
        self.apply({"wan": [timed, (WEB, self.via("upc"))]}, {"lan0": "wan"}, **ranges)
        self.rows("time range: active", by("upa"))
        self.daemon.ctl("time-range", 7, "off")
        self.rows("time range: not active, a later node matches", by("upc"), settle=EVENT)
        self.daemon.ctl("time-range", 7, "on")
        self.rows("time range: active again", by("upa"), settle=EVENT)
        self.apply({"wan": [timed]}, {"lan0": "wan"}, **ranges)
        self.daemon.ctl("time-range", 7, "off")
        self.rows("time range: not active, no later node", by(NORMAL), settle=EVENT)


class Matching(PolicyCase):
    def test_deny(self):
        deny = (["deny udp to any port 443", "permit udp"], self.via("upa"))
        self.apply({"wan": [deny, (WEB, self.via("upc"))]}, {"lan0": "wan"})
        self.rows("deny: a later node matches", by("upc"))
        self.rows("deny: the rest", by("upa"), port=444)
        self.apply({"wan": [deny]}, {"lan0": "wan"})
        self.rows("deny: no later node", by(NORMAL))
        self.apply({"wan": [(lambda family: [f"deny udp from {netlab.LAN[family]} to any port 443", WEB], self.via("upa"))]},
                   {"lan0": "wan", "lan1": "wan"})
        self.rows("deny one host: that host", by(NORMAL))
        self.rows("deny one host: another host", by("upa"), sources=("lan2",))

    def test_two_lists_on_two_interfaces(self):
        self.apply({"one": [(WEB, self.via("upa"))], "two": [(WEB, self.via("upc"))]}, {"lan0": "one", "lan1": "two"})
        self.rows("two lists on two interfaces", exactly({"upa from lan0": 20, "upc from lan1": 20}), sources=("lan", "lan2"))
        self.daemon.ctl("unbind", "lan0")
        self.rows("two lists: lan0 is unbound", exactly({NORMAL + " from lan0": 20, "upc from lan1": 20}),
                  sources=("lan", "lan2"))

    def test_one_list_on_three_interfaces(self):
        def at(up0, up1, up2):
            return exactly({f"{up0} from lan0": 20, f"{up1} from lan1": 20, f"{up2} from lan2": 20})

        three = {"sources": ("lan", "lan2", "lan3")}
        self.apply({"wan": [(WEB, self.via("upa", "upc"))]}, {"lan0": "wan", "lan1": "wan", "lan2": "wan"})
        self.rows("one list on three interfaces", at("upa", "upa", "upa"), **three)
        self.lab.silence("upa")
        self.rows("one list: its first next hop is dead", at("upc", "upc", "upc"), settle=EVENT, **three)
        self.daemon.ctl("unbind", "lan1")
        self.rows("one list: lan1 is unbound", at("upc", NORMAL, "upc"), **three)
        self.lab.unsilence("upa")
        self.rows("one list: the next hop is back", at("upa", NORMAL, "upa"), settle=EVENT, **three)

    def test_the_routers_own_addresses(self):
        self.apply({"wan": [("permit ip", self.via("upa"))]}, {"lan0": "wan"})
        self.rows("every packet matched", by("upa"))
        # Were they steered, they would come in by upa in the end.
        self.rows("to the router's own address", by("lan0"), receiver="rtr", destination=ROUTER.get)
        self.rows("to the router's address on an uplink", by("lan0"), receiver="rtr",
                  destination=lambda family: self.lab.uplinks["upa"][0 if family == 4 else 2])

    def test_source_mac_on_an_interface_without_ethernet(self):
        if not os.access("/dev/net/tun", os.W_OK):
            self.skipTest("no tun device can be made here")
        tun = pt.Tun("rtr", "tun0")
        self.addCleanup(tun.close)
        packets = {4: pt.datagram(4, "10.9.0.10", 0), 6: pt.datagram(6, "2001:db8:9::10", 0, options=True)}
        # Besides a host's MAC those that the packets' own bytes show where their Ethernet source would be.
        macs = [pt.mac_of("lan", "eth0")] + [packet[6:12].hex(":") for packet in packets.values()]

        def tun_rows(policy, wanted):
            for family in (4, 6):
                def measure():
                    return pt.arrived(self.lab, family, 20, send=lambda: [tun.write(packets[family]) for _ in range(20)])

                self.row(policy, family, wanted, measure, 20, 0)

        both = {"lan0": "wan", "tun0": "wan"}
        self.apply({"wan": [([f"{WEB} source-mac {mac}" for mac in macs], self.via("upa"))]}, both)
        self.rows("permit a source MAC: from that host", by("upa"))
        tun_rows("permit a source MAC: from a tun device", by(NORMAL))
        self.apply({"wan": [([f"deny udp source-mac {mac}" for mac in macs] + [WEB], self.via("upa"))]}, both)
        self.rows("deny a source MAC, permit the rest: from that host", by(NORMAL))
        tun_rows("deny a source MAC, permit the rest: from a tun device", by("upa"))


class SizesAndHops(PolicyCase):
    def setUp(self):
        super().setUp()
        self.apply({"wan": [(WEB, self.via("upa"))]}, {"lan0": "wan"})
        for family in (4, 6):  # and hosts and routers know each other
            self.all_by("upa", family=family)

    def small_uplink(self):
        """The uplink's MTU is smaller than the LAN's; what the LAN's host learns of it is forgotten with the test."""
        netlab.run(f"ip link set upa mtu {SMALL_MTU}", "rtr")
        self.addCleanup(netlab.run, "ip link set upa mtu 1500", "rtr")
        for family in (4, 6):
            self.addCleanup(netlab.run, f"ip -{family} route flush cache", "lan")

    def fragment_rows(self, policy, send, later):
        """One row a family: one datagram, how its parts came by the uplinks, and whether it arrived whole. send(family)
        sends it, `later` is the number of its later fragments."""
        counters = pt.FragmentCounters(self.lab)
        self.addCleanup(counters.close)
        for family in (4, 6):
            def measure():
                counts, packets = pt.arrived(self.lab, family, 1, send=lambda: send(family))
                return {**{f"{up} whole datagram": count for up, count in counts.items()}, **counters.seen()}, packets

            wanted = {"upa whole datagram": 1, "upa first": 1, "upa later": later}
            self.row(policy, family, exactly(wanted), measure, 1, 0)
        counters.close()

    def test_hop_limit_exceeded(self):
        self.error_rows("hop limit 1", lambda family: f"time exceeded from {ROUTER[family]}",
                        lambda family: (*pt.HOPS[family], 1))
        self.error_rows("hop limit 2", lambda family: f"time exceeded from {self.next_hop('upa', family)}",
                        lambda family: (*pt.HOPS[family], 2))

    def test_packet_too_big(self):
        self.small_uplink()
        told = {4: "fragmentation needed", 6: "packet too big"}
        self.error_rows(f"1400 bytes, not to be fragmented, MTU {SMALL_MTU}",
                        lambda family: f"{told[family]} (MTU {SMALL_MTU}) from {ROUTER[family]}", pt.MTU_PROBE.get, size=1400)
        # IPv4 is cut by the router; the IPv6 host knows the path's MTU now and cuts by itself.
        self.fragment_rows(f"1400 bytes, may be fragmented, MTU {SMALL_MTU}", lambda family: netlab.send(
            self.lab, family, 443, 1, size=1400, setopts=[pt.MTU_DONT[family]]), 1)

    def test_fragments(self):
        self.fragment_rows("6000 bytes in fragments, matched by port",
                           lambda family: netlab.send(self.lab, family, 443, 1, size=6000), 4)
        self.fragment_rows("3000 bytes in fragments, the last one first", lambda family: pt.send_raw(
            family, reversed(pt.fragments(family, netlab.LAN[family], 77, 3000))), 2)
        self.small_uplink()
        # As they came they fit; together they are larger than the uplink takes, and leave as they came.
        self.fragment_rows(f"3000 bytes in small fragments, MTU {SMALL_MTU}", lambda family: pt.send_raw(
            family, pt.fragments(family, netlab.LAN[family], 78, 3000)), 2)


def load_tests(loader, tests, pattern):
    """In the order of this file, which is that of the table."""
    return unittest.TestSuite(case(name) for case in (NextHops, Ecmp, OtherActions, Matching, SizesAndHops)
                              for name in vars(case) if name.startswith("test_"))


def main():
    netlab.enter_private()
    program = races.main()
    one_sided = TABLE.one_sided()
    print("\n" + TABLE.text(), flush=True)
    if one_sided:
        print("tried with one family only: " + ", ".join(one_sided), file=sys.stderr)
    sys.exit(0 if program.result.wasSuccessful() and not one_sided else 1)


if __name__ == "__main__":
    main()
