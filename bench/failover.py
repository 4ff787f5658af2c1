#!/usr/bin/env python3
"""From the kernel's report to the kernel's change: a next hop used by N nodes falls silent or loses its link,
the daemon moves all N to their second choice. Times are taken from the kernel's own notifications: the
neighbour or link message that tells, and the last message about a change of our objects.

    bench/failover.py [N ...]        default: 1 10 100 1000
"""
import os
import select
import socket
import statistics
import struct
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import netlab  # noqa: E402

ROUNDS = 5
NETLINK_ROUTE, NETLINK_NETFILTER, SOL_NETLINK, ADD_MEMBERSHIP = 0, 12, 270, 1
RTM_NEWLINK, RTM_NEWNEIGH, NUD_FAILED = 16, 28, 0x20
# What moves packets: new routes, rules and next hops; new nftables chains, rules and elements. (What is no
# longer used is removed later, when nothing refers to it any more.)
ADDS = {24, 32, 104}
NFT_ADDS = {0xA03, 0xA06, 0xA0C}


class Watch:
    """Time stamps of the kernel's notifications in the router."""

    def __init__(self, lab):
        with netlab.inside("rtr"):
            self.route = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_ROUTE)
            self.nft = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_NETFILTER)
            self.upa = socket.if_nametoindex("upa")
            for each in (self.route, self.nft):  # bind first: it clears the memberships
                each.bind((0, 0))
                each.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
            for group in (1, 3, 7, 8, 11, 19, 32):  # link, neigh, routes, rules, next hops
                self.route.setsockopt(SOL_NETLINK, ADD_MEMBERSHIP, group)
            self.nft.setsockopt(SOL_NETLINK, ADD_MEMBERSHIP, 7)

    def drain(self):
        while select.select([self.route, self.nft], [], [], 0)[0]:
            for each in select.select([self.route, self.nft], [], [], 0)[0]:
                each.recv(1 << 20)

    def measure(self, quiet=1.0, limit=8.0):
        """Result: (report time, time of the last change) once nothing of ours changed for `quiet` seconds."""
        report = last = None
        end = time.monotonic() + limit
        while time.monotonic() < end and (last is None or time.monotonic() < last + quiet):
            ready = select.select([self.route, self.nft], [], [], 0.05)[0]
            now = time.monotonic()
            for each in ready:
                data = each.recv(1 << 20)
                for kind, body in messages(data):
                    if each is self.route and report is None and self.tells(kind, body):
                        report = now
                    elif report is not None and kind in (NFT_ADDS if each is self.nft else ADDS):
                        last = now
        return report, last

    def tells(self, kind, body):
        if kind == RTM_NEWNEIGH:
            family, index, state = struct.unpack_from("=BxxxiH", body)
            return family == socket.AF_INET and index == self.upa and state & NUD_FAILED
        if kind == RTM_NEWLINK:
            _, _, index, flags, _ = struct.unpack_from("=BxHiII", body)
            return index == self.upa and not flags & 0x10000
        return False


def messages(data):
    offset = 0
    while offset + 16 <= len(data):
        length, kind = struct.unpack_from("=IH", data, offset)
        if length < 16:
            return
        yield kind, data[offset + 16:offset + length]
        offset += (length + 3) & ~3


def policy(count):
    """`count` nodes, one ACL each (port 1000 + number), all on the same two next hops."""
    acls = "".join(f"  {1001 + n}: {{10: permit udp from any to any port {1000 + n}}}\n" for n in range(count))
    nodes = "".join(f"    {n + 1}: {{acl: {1001 + n}, next-hops: [198.51.100.1, 100.64.0.1]}}\n" for n in range(count))
    return f"acls:\n{acls}lists:\n  wan:\n{nodes}bindings:\n  lan0: wan\n"


def main():
    sizes = [int(word) for word in sys.argv[1:]] or [1, 10, 100, 1000]
    lab = netlab.Lab()
    netlab.sysctl("rtr", "ipv4/neigh/upa/retrans_time_ms", 100)
    print("| nodes on the next hop | apply of the file, s | silent: report to last change, ms | link down: the same, ms |")
    print("|---|---|---|---|")
    for size in sizes:
        daemon = netlab.Daemon(options=["host.neighbour-probe-ms=400", "host.log=stderr",
                                        f"policyroute.maxnodenum={max(128, size)}"]).start()
        try:
            begin = time.monotonic()
            daemon.apply(policy(size))
            applied = time.monotonic() - begin
            lasting = lambda up: all_by(lab, 1000 + size - 1, up)
            assert daemon.until(lambda: lasting("upa"), 15), "the policy does not work"
            times = {}
            for name, cut, mend in (("silent", lambda: lab.silence("upa"), lambda: lab.unsilence("upa")),
                                    ("down", lambda: lab.link("upa", "down"), lambda: lab.link("upa", "up"))):
                times[name] = []
                for _ in range(ROUNDS):
                    watch = Watch(lab)
                    time.sleep(1.2)  # an update run passes; then nothing of ours changes any more
                    watch.drain()
                    cut()
                    report, last = watch.measure()
                    assert report is not None and last is not None, f"{name}: nothing was changed"
                    assert lasting("upc"), f"{name}: packets do not take the second choice"
                    times[name].append((last - report) * 1000)
                    mend()
                    assert daemon.until(lambda: lasting("upa"), 15), f"{name}: did not come back"
            print(f"| {size} | {applied:.2f} | " + " | ".join(
                f"{statistics.median(each):.1f} ({min(each):.1f} to {max(each):.1f})" for each in times.values()) + " |",
                flush=True)
            daemon.ctl("device", "flush")
        finally:
            daemon.close()


def all_by(lab, port, up):
    arrivals = netlab.Arrivals(lab, 4, port)
    netlab.send(lab, 4, port, 5)
    arrivals.wait(5, 0.3)
    arrivals.close()
    return arrivals.by_uplink() == {up: 5}


if __name__ == "__main__":
    netlab.enter_private()
    main()
