"""Routers that are alike, each between a sender and a sink of its own, so that what they do can be measured in turn:

    NAME-s --lan0 [NAME] upa--198.51.100.1  \\
    NAME-s --lan1 [NAME] upb--203.0.113.1    } NAME-k, drops what arrives and counts it by interface
                         upc--100.64.0.1    /

The routing table's way of every router is upb. All in namespaces of netlab, in a mount namespace of this process
(netlab.enter_private), so nothing is left behind however it ends.
"""
import json
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))
import netlab  # noqa: E402

LANS = {"lan0": ("10.0.0.10", "2001:db8:1::10"), "lan1": ("10.200.0.10", "2001:db8:2::10")}  # the sender's addresses
UPLINKS = netlab.UPLINKS  # uplink: (router IPv4, next hop IPv4, router IPv6, next hop IPv6)
BEHIND = {4: "192.0.2.10", 6: "2001:db8:ffff::10"}  # what lives behind the next hops and answers, for probes


class Broken(Exception):
    """What was to be measured did not work: a figure of it would tell nothing."""


def program(name):
    return os.path.join(netlab.build_folder(), name)


class Router:
    """One router, its sender and its sink."""

    def __init__(self, name):
        self.name, self.sender, self.sink = name, name + "-s", name + "-k"
        for ns in (self.name, self.sender, self.sink):
            netlab.run(["ip", "netns", "add", ns])
            for which in ("all", "default"):
                for setting in ("ipv4/conf/%s/rp_filter", "ipv6/conf/%s/accept_dad", "ipv6/conf/%s/accept_ra"):
                    netlab.sysctl(ns, setting % which, 0)
                netlab.sysctl(ns, f"ipv6/conf/{which}/keep_addr_on_down", 1)
            netlab.run("ip link set lo up", ns)
        for family in ("ipv4", "ipv6"):
            netlab.sysctl(self.name, f"{family}/conf/all/forwarding", 1)
        netlab.sysctl(self.sink, "ipv4/icmp_ratelimit", 0)
        for lan, (v4, v6) in LANS.items():
            self._link(self.sender, lan, (v4 + "/24", v6 + "/64"), (v4[:-2] + "1/24", v6[:-2] + "1/64"))
        for up, (r4, h4, r6, h6) in UPLINKS.items():
            self._link(self.sink, up, (h4 + "/24", h6 + "/64"), (r4 + "/24", r6 + "/64"))
        for family, address in BEHIND.items():
            netlab.run(f"ip -{family} addr add {address}/{32 if family == 4 else 128} dev lo", self.sink)
            netlab.run(f"ip -{family} route add default via {UPLINKS['upb'][1 if family == 4 else 3]}", self.name)
        netlab.run(["nft", "add table netdev sink; " + " ".join(
            f"add chain netdev sink {up} {{ type filter hook ingress device {up} priority 0; policy accept; }}; "
            f"add rule netdev sink {up} udp dport != 65000 drop;" for up in UPLINKS)], self.sink)
        self.know_neighbours()

    def _link(self, far, interface, far_addresses, own_addresses):
        netlab.run(f"ip link add {interface} netns {far} type veth peer name {interface} netns {self.name}")
        for ns, (v4, v6) in ((far, far_addresses), (self.name, own_addresses)):
            netlab.run(f"ip addr add {v4} dev {interface}", ns)
            netlab.run(f"ip -6 addr add {v6} dev {interface} nodad", ns)
            netlab.run(f"ip link set {interface} up", ns)

    def know_neighbours(self):
        """The router has seen its next hops, as one at work has."""
        for _, h4, _, h6 in UPLINKS.values():
            for address in (h4, h6):
                netlab.run(f"ping -c 1 -w 10 -i 0.2 -W 10 {address}", self.name)

    def load(self, lan, packet, seconds, cpu):
        """Sends `packet` (destination, port) for a while; what packet_load tells."""
        destination, port, source, source_port = packet
        source = source or LANS[lan][1 if ":" in destination else 0]
        words = [program("bench/packet_load"), f"/run/netns/{self.name}", lan, source, str(source_port),
                 destination, str(port), f"{seconds:g}", str(cpu), f"/run/netns/{self.sink}", *UPLINKS]
        done = subprocess.run(words, capture_output=True, text=True)
        if done.returncode:
            raise Broken(done.stderr.strip())
        return json.loads(done.stdout)

    # ---- ways to lose and to bring back an uplink ----
    def silence(self, up):
        """The next hop answers nothing any more, ARP and ND included, and nothing passes; its link stays up."""
        netlab.run(["nft", f"add table netdev cut; add chain netdev cut in {{ type filter hook ingress device {up} "
                    "priority -500; policy drop; }"], self.sink)

    def unsilence(self, _up):
        netlab.run("nft delete table netdev cut", self.sink)

    def link(self, up, state):
        netlab.run(f"ip link set {up} {state}", self.sink)

    def close(self):
        for ns in (self.name, self.sender, self.sink):
            netlab.run(["ip", "netns", "del", ns], check=False)
