"""A table of policies tried with packets, and what its rows are measured with: where datagrams arrived, which ICMP
errors came back to their sender, how a packet was cut into fragments, packets that come in by a tun device.

A *place* is where packets ended: an uplink, an interface, or the text of an ICMP error. A measurement counts packets by
place; an expectation (by, nothing, spread) says what is wrong with a measurement, or nothing.
"""
import contextlib
import fcntl
import json
import os
import select
import socket
import struct

import netlab
from netlab import SERVER, inside, run

FAMILIES = {4: "IPv4", 6: "IPv6"}
AF = {4: socket.AF_INET, 6: socket.AF_INET6}
TOS = {4: (socket.IPPROTO_IP, socket.IP_TOS), 6: (socket.IPPROTO_IPV6, socket.IPV6_TCLASS)}
HOPS = {4: (socket.IPPROTO_IP, socket.IP_TTL), 6: (socket.IPPROTO_IPV6, socket.IPV6_UNICAST_HOPS)}
# What the sender knows of the path's MTU is ignored, so that each packet meets it anew; IPv4 sets "don't fragment".
MTU_PROBE = {4: (socket.IPPROTO_IP, 10, 3), 6: (socket.IPPROTO_IPV6, 23, 3)}
MTU_DONT = {4: (socket.IPPROTO_IP, 10, 0), 6: (socket.IPPROTO_IPV6, 23, 0)}  # may be fragmented
RECEIVE_ERRORS = {4: (socket.IPPROTO_IP, 11), 6: (socket.IPPROTO_IPV6, 25)}
ERRORS = {  # (origin, type, code) of an error that came back: its name
    (2, 11, 0): "time exceeded", (3, 3, 0): "time exceeded",
    (2, 3, 4): "fragmentation needed", (3, 2, 0): "packet too big"}


class Table:
    """The rows in the order in which they were measured."""

    def __init__(self):
        self.rows = []  # (policy, family, packets sent, where they arrived, what is wrong or None)

    def add(self, policy, family, sent, counts, wrong):
        self.rows.append((policy, FAMILIES[family], str(sent), places(counts),
                          "ok" if wrong is None else "WRONG: " + wrong))

    def one_sided(self):
        """The policies that were tried with one family only."""
        families = {}
        for policy, family, *_ in self.rows:
            families.setdefault(policy, set()).add(family)
        return [policy for policy, seen in families.items() if len(seen) != len(FAMILIES)]

    def text(self):
        rows = [("policy", "family", "sent", "arrived", "verdict")] + self.rows
        widths = [max(len(row[column]) for row in rows) for column in range(5)]
        lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows]
        return "\n".join([lines[0], "|" + "|".join("-" * (width + 2) for width in widths) + "|"] + lines[1:])


def places(counts):
    return ", ".join(f"{place} {count}" for place, count in sorted(counts.items())) or "nowhere"


# ---- expectations: (counts by place, packets at the server, how many were sent) -> what is wrong, or None ----
def exactly(wanted):
    return lambda counts, packets, sent: None if counts == wanted else "wanted " + places(wanted)


def by(place):
    """All packets, and nothing else, at one place."""
    return lambda counts, packets, sent: exactly({place: sent})(counts, packets, sent)


nothing = exactly({})


def spread(*legs):
    """All packets arrive, over all these uplinks and no other, and each flow keeps to one."""
    def wrong(counts, packets, sent):
        if set(counts) != set(legs) or sum(counts.values()) != sent:
            return f"wanted {sent} over {', '.join(legs)}"
        ways = {}
        for packet in packets:
            ways.setdefault(packet[4][1], set()).add(packet[1])
        torn = sum(len(each) > 1 for each in ways.values())
        return f"{torn} of {len(ways)} flows took several ways" if torn else None
    return wrong


def by_one_of(*legs):
    """All packets by one of these uplinks, whichever it is."""
    def wrong(counts, packets, sent):
        return None if list(counts.values()) == [sent] and set(counts) <= set(legs) else \
            f"wanted {sent} by one of {', '.join(legs)}"
    return wrong


# ---- measurements: counts by place, and the packets that a receiver saw ----
def arrived(lab, family, count, send, port=443, ns="srv", wait=1.0):
    """What send() made arrive at the port: the interfaces by which it came to `ns`. Waits `wait` seconds at most."""
    arrivals = netlab.Arrivals(lab, family, port, ns=ns)
    try:
        send()
        arrivals.wait(count, wait)
        return arrivals.by_uplink(), list(arrivals.packets)
    finally:
        arrivals.close()


def error_text(family, data):
    """An entry of a socket's error queue as a place: what came back, and who says so."""
    _, origin, kind, code, _, info, _ = struct.unpack_from("=IBBBBII", data)
    name = ERRORS.get((origin, kind, code), f"error {origin}/{kind}/{code}")
    if name in ("fragmentation needed", "packet too big"):
        name += f" (MTU {info})"
    offender = data[20:24] if family == 4 else data[24:40]
    return f"{name} from {socket.inet_ntop(AF[family], offender)}"


def errors(lab, family, count, port=443, size=4, setopts=(), ns="lan", wait=1.0):
    """Sends datagrams one by one; result: the ICMP errors that came back for them, by text."""
    counts = {}
    for number in range(count):
        with lab.socket(ns, AF[family]) as sender:
            sender.setsockopt(*RECEIVE_ERRORS[family], 1)
            for option in setopts:
                sender.setsockopt(*option)
            sender.sendto(struct.pack("!I", number).ljust(size, b"\0"), (SERVER[family], port))
            poll = select.poll()
            poll.register(sender, 0)  # errors are always told
            if poll.poll(wait * 1000):
                _, ancillary, _, _ = sender.recvmsg(size, 512, socket.MSG_ERRQUEUE)
                text = error_text(family, ancillary[0][2])
                counts[text] = counts.get(text, 0) + 1
    return counts


class FragmentCounters:
    """Counts what comes by each uplink for the server, before anybody puts it together again."""

    KINDS = {"first": ("ip frag-off & 0x3fff == 0x2000", "frag frag-off 0"),
             "later": ("ip frag-off & 0x1fff != 0", "frag frag-off != 0"),
             "whole": ("ip frag-off & 0x3fff == 0", "meta l4proto udp exthdr frag missing")}

    def __init__(self, lab):
        self.lab = lab
        counters = " ".join(f"add counter inet cut {kind};" for kind in self.KINDS)
        rules = " ".join(f"add rule inet cut c {match} {test} counter name {kind};" for kind, tests in self.KINDS.items()
                         for match, test in ((f"ip daddr {SERVER[4]}", tests[0]), (f"ip6 daddr {SERVER[6]}", tests[1])))
        for isp in lab.isp.values():
            run(["nft", "add table inet cut; add chain inet cut c { type filter hook prerouting priority -500; }; "
                 f"{counters} {rules}"], isp)

    def seen(self):
        """Result: {"upa first": 1, "upa later": 4}, without zeros, since the last time."""
        counts = {}
        for up, isp in self.lab.isp.items():
            for entry in json.loads(run("nft -j reset counters table inet cut", isp).stdout)["nftables"]:
                if entry.get("counter", {}).get("packets"):
                    counts[f"{up} {entry['counter']['name']}"] = entry["counter"]["packets"]
        return counts

    def close(self):
        for isp in self.lab.isp.values():
            run("nft delete table inet cut", isp, check=False)


# ---- packets by hand ----
def checksum(data):
    total = sum(struct.unpack(f"!{(len(data) + 1) // 2}H", data + b"\0" * (len(data) % 2)))
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    return ~total & 0xffff


def ipv4(ends, number, flags_offset, payload):
    head = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(payload), number, flags_offset, 64, 17, 0) + ends
    return head[:10] + struct.pack("!H", checksum(head)) + head[12:] + payload


def ipv6(ends, next_header, payload):
    return struct.pack("!IHBB", 6 << 28, len(payload), next_header, 64) + ends + payload


def udp(family, source, number, port, size):
    """Result: (both addresses, a numbered UDP datagram from port 40000 to the server)."""
    ends = socket.inet_pton(AF[family], source) + socket.inet_pton(AF[family], SERVER[family])
    data = struct.pack("!HHHHI", 40000, port, 8 + size, 0, number).ljust(8 + size, b"\0")
    pseudo = ends + (struct.pack("!BBH", 0, 17, len(data)) if family == 4 else struct.pack("!II", len(data), 17))
    return ends, data[:6] + struct.pack("!H", checksum(pseudo + data) or 0xffff) + data[8:]


def datagram(family, source, number, port=443, options=False):
    """A whole IP packet; `options` puts IPv6 destination options before the UDP header."""
    ends, data = udp(family, source, number, port, 4)
    if family == 4:
        return ipv4(ends, number, 0x4000, data)
    return ipv6(ends, 60, bytes((17, 0, 1, 4, 0, 0, 0, 0)) + data) if options else ipv6(ends, 17, data)


def fragments(family, source, number, size, port=443, step=1200):
    """A datagram of `size` bytes as IP packets, the first one first."""
    ends, data = udp(family, source, number, port, size)
    packets = []
    for start in range(0, len(data), step):
        part, more = data[start:start + step], start + step < len(data)
        packets.append(ipv4(ends, number, start // 8 | (0x2000 if more else 0), part) if family == 4 else
                       ipv6(ends, 44, struct.pack("!BBHI", 17, 0, start | more, number) + part))
    return packets


def send_raw(family, packets, ns="lan"):
    """Sends whole IP packets as they are; they find their way as all of that host do."""
    with inside(ns):
        sender = socket.socket(AF[family], socket.SOCK_RAW, socket.IPPROTO_RAW)
    with sender:
        for packet in packets:
            sender.sendto(packet, (SERVER[family], 0))


def mac_of(ns, interface):
    with inside(ns), socket.socket() as any_socket:
        return fcntl.ioctl(any_socket, 0x8927, interface.encode().ljust(40, b"\0"))[18:24].hex(":")  # SIOCGIFHWADDR


class Tun:
    """A tun device of a namespace: its packets have no Ethernet header. What this writes comes in by it."""

    def __init__(self, ns, name):
        with inside(ns):
            self.file = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
            fcntl.ioctl(self.file, 0x400454ca, struct.pack("16sH22x", name.encode(), 0x1001))  # TUNSETIFF: IFF_TUN, IFF_NO_PI
        run(f"ip link set {name} up", ns)

    def write(self, packet):
        os.write(self.file, packet)

    def close(self):
        with contextlib.suppress(OSError):
            os.close(self.file)
