"""A small network in private namespaces, the real daemon in its router, and packets that are counted
where they arrive. Used by the system tests and by the demo.

    lan (10.0.0.10)--lan0 [rtr] upa--198.51.100.1 [ispa] --+
    lan2 (10.2.0.10)--lan1 [rtr] upb--203.0.113.1 [ispb] --+-- [srv] 192.0.2.10, 2001:db8:ffff::10
                                upc--100.64.0.1   [ispc] --+

The routing table's way to the server is upb. A wide lab has a fourth uplink (upd, 100.65.0.1, ispd) and a
third LAN (lan3, 10.3.0.10, behind lan2). Everything lives in a mount namespace of this process
(enter_private), so nothing is left behind however it ends. Standard library only.
"""
import contextlib
import ctypes
import json
import os
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

import races

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def build_folder():
    """Where the programs are."""
    return os.environ.get("POLICYROUTE_BUILD") or os.path.join(ROOT, "build/release")


def byte_order():
    """The byte order of the daemon's machine, for `struct`: an emulated one may have another than ours."""
    if "POLICYROUTE_EMULATOR" not in os.environ:
        return "="
    with open(os.path.join(os.environ["POLICYROUTE_BUILD"], "policyrouted"), "rb") as file:
        return "<" if file.read(6)[5] == 1 else ">"


ORDER = byte_order()
SERVER = {4: "192.0.2.10", 6: "2001:db8:ffff::10"}
LAN = {4: "10.0.0.10", 6: "2001:db8:1::10"}
LAN2 = {4: "10.2.0.10", 6: "2001:db8:2::10"}
LAN3 = {4: "10.3.0.10", 6: "2001:db8:3::10"}
LANS = {"lan": ("lan0", LAN), "lan2": ("lan1", LAN2)}  # namespace: (interface of the router, addresses of the host)
UPLINKS = {  # uplink: (router IPv4, next hop IPv4, router IPv6, next hop IPv6)
    "upa": ("198.51.100.2", "198.51.100.1", "2001:db8:a::2", "2001:db8:a::1"),
    "upb": ("203.0.113.2", "203.0.113.1", "2001:db8:b::2", "2001:db8:b::1"),
    "upc": ("100.64.0.2", "100.64.0.1", "2001:db8:c::2", "2001:db8:c::1"),
}
ISP = {"upa": "ispa", "upb": "ispb", "upc": "ispc"}
WIDE_LANS = {**LANS, "lan3": ("lan2", LAN3)}
WIDE_UPLINKS = {**UPLINKS, "upd": ("100.65.0.2", "100.65.0.1", "2001:db8:d::2", "2001:db8:d::1")}
WIDE_ISP = {**ISP, "upd": "ispd"}


def enter_private():
    """Runs this program again in a mount namespace (and, without root, a user namespace) of its own."""
    if os.environ.get("NETLAB_PRIVATE") != "1":
        # --kill-child: when the outer process dies (a test time-out), the namespace dies too.
        args = ["unshare", "--mount", "--fork", "--kill-child"] if os.geteuid() == 0 else \
            ["unshare", "--user", "--map-root-user", "--mount", "--net", "--fork", "--kill-child"]
        os.environ["NETLAB_PRIVATE"] = "1"
        if races.is_checked(build_folder()):
            args = races.launcher() + args
        os.execvp(args[0], args + [sys.executable] + sys.argv)
    for words in (["mount", "--make-rprivate", "/"], ["mount", "-t", "tmpfs", "tmpfs", "/run"]):
        subprocess.run(words, check=True)
    os.makedirs("/run/netns")


def run(words, ns=None, check=True, **options):
    words = words.split() if isinstance(words, str) else list(words)
    if ns is not None:
        words = ["nsenter", f"--net=/run/netns/{ns}"] + words
    return subprocess.run(words, check=check, text=True, capture_output=True, **options)


@contextlib.contextmanager
def inside(ns):
    """The calling thread is in namespace `ns`; what it opens stays there."""
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    other = os.open(f"/run/netns/{ns}", os.O_RDONLY)
    try:
        if _libc.setns(other, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
        yield
    finally:
        _libc.setns(own, CLONE_NEWNET)
        os.close(own)
        os.close(other)


def sysctl(ns, name, value):
    with inside(ns), open("/proc/sys/net/" + name, "w") as file:
        file.write(str(value))


class Lab:
    """The topology above. Neighbour discovery of routers and duplicate address detection are off, so
    that addresses work at once."""

    def __init__(self, wide=False):
        self.namespaces = []
        self.lans, self.uplinks, self.isp = (WIDE_LANS, WIDE_UPLINKS, WIDE_ISP) if wide else (LANS, UPLINKS, ISP)
        for ns in ("rtr", *self.lans, "srv", *self.isp.values()):
            run(["ip", "netns", "add", ns])
            self.namespaces.append(ns)
            for family in ("ipv4", "ipv6"):
                sysctl(ns, f"{family}/conf/all/forwarding", 1 if ns in ("rtr",) or ns.startswith("isp") else 0)
            for which in ("all", "default"):
                sysctl(ns, f"ipv4/conf/{which}/rp_filter", 0)
                sysctl(ns, f"ipv6/conf/{which}/accept_dad", 0)
                sysctl(ns, f"ipv6/conf/{which}/accept_ra", 0)
                sysctl(ns, f"ipv6/conf/{which}/keep_addr_on_down", 1)
            run("ip link set lo up", ns)
        for ns, (interface, host) in self.lans.items():
            router = {family: address[:-2] + "1" for family, address in host.items()}  # ....10 has its router at ....1
            self._link(ns, "eth0", "rtr", interface, host[4] + "/24", router[4] + "/24", host[6] + "/64", router[6] + "/64")
            for family in (4, 6):
                run(f"ip -{family} route add default via {router[family]}", ns)
        for number, (up, (r4, h4, r6, h6)) in enumerate(self.uplinks.items(), 1):
            isp = self.isp[up]
            self._link(isp, "eth0", "rtr", up, h4 + "/24", r4 + "/24", h6 + "/64", r6 + "/64")
            self._link(isp, "core", "srv", "from-" + up, f"172.16.{number}.1/24", f"172.16.{number}.2/24",
                       f"2001:db8:f{number}::1/64", f"2001:db8:f{number}::2/64")
            self._server_routes(up)
            self._back_routes(up)
        for family in (4, 6):
            run(f"ip -{family} addr add {SERVER[family]}/{32 if family == 4 else 128} dev lo", "srv")
            run(f"ip -{family} route add default via {UPLINKS['upb'][1 if family == 4 else 3]}", "rtr")
            run(f"ip -{family} route add default via {'172.16.2.1' if family == 4 else '2001:db8:f2::1'}", "srv")

    @staticmethod
    def _link(ns1, if1, ns2, if2, a4, b4, a6, b6):
        run(f"ip link add {if1} netns {ns1} type veth peer name {if2} netns {ns2}")
        for ns, interface, v4, v6 in ((ns1, if1, a4, a6), (ns2, if2, b4, b6)):
            run(f"ip addr add {v4} dev {interface}", ns)
            run(f"ip -6 addr add {v6} dev {interface} nodad", ns)
            run(f"ip link set {interface} up", ns)

    def _back_routes(self, up):
        """The ISP's way to the LANs; the kernel takes it away with the link."""
        run(f"ip -4 route replace 10.0.0.0/8 via {self.uplinks[up][0]}", self.isp[up])
        for _, host in self.lans.values():
            run(f"ip -6 route replace {host[6][:-2]}/64 via {self.uplinks[up][2]}", self.isp[up])

    def _server_routes(self, up):
        """The ISP's way to the server."""
        number = list(self.uplinks).index(up) + 1
        for family, server in SERVER.items():
            via = f"172.16.{number}.2" if family == 4 else f"2001:db8:f{number}::2"
            run(f"ip -{family} route replace {server} via {via}", self.isp[up])

    def answer_uplinks(self):
        """The server answers the router's own packets by the uplink whose address they have, as probes want it."""
        for number, (r4, _, r6, _) in enumerate(self.uplinks.values(), 1):
            run(f"ip route replace {r4}/32 via 172.16.{number}.1", "srv")
            run(f"ip -6 route replace {r6}/128 via 2001:db8:f{number}::1", "srv")

    def add_tunnel(self, name, far="tunnel"):
        """A point-to-point interface of the router straight to the server, where packets arrive by `far`: addresses
        are not resolved on it. It stays until `ip link del NAME`."""
        run(f"ip link add {name} netns rtr type veth peer name {far} netns srv", check=False)
        for namespace, interface in (("rtr", name), ("srv", far)):
            run(f"ip link set {interface} arp off", namespace)
            run(f"ip link set {interface} address 02:00:00:00:00:01", namespace)
            run(f"ip link set {interface} up", namespace)

    def socket(self, ns, family, kind=socket.SOCK_DGRAM):
        with inside(ns):
            return socket.socket(family, kind)

    # ---- ways to lose and to bring back an uplink ----
    def silence(self, up):
        """The next hop of an uplink answers nothing any more, ARP and ND included; its link stays up."""
        run(["nft", "add table netdev cut; add chain netdev cut in { type filter hook ingress device eth0 "
             "priority -500; policy drop; }"], self.isp[up])

    def unsilence(self, up):
        run("nft delete table netdev cut", self.isp[up])

    def link(self, up, state):
        run(f"ip link set eth0 {state}", self.isp[up])
        if state == "up":
            self._back_routes(up)

    def cut_behind(self, up):
        """What lies behind the next hop is dead: the neighbour itself lives and answers."""
        run("ip link set core down", self.isp[up])

    def mend_behind(self, up):
        run("ip link set core up", self.isp[up])
        self._server_routes(up)

    def close(self):
        for ns in self.namespaces:
            run(["ip", "netns", "del", ns], check=False)


class Arrivals:
    """Receives UDP at the server and notes for each packet its number, its uplink, its time and its TOS."""

    def __init__(self, lab, family, port, ns="srv"):
        af = socket.AF_INET if family == 4 else socket.AF_INET6
        self.family, self.port, self.packets = family, port, []
        self.socket = lab.socket(ns, af)
        if family == 4:
            self.socket.setsockopt(socket.IPPROTO_IP, 8, 1)   # IP_PKTINFO
            self.socket.setsockopt(socket.IPPROTO_IP, 13, 1)  # IP_RECVTOS
        else:
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVPKTINFO, 1)
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVTCLASS, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        with contextlib.suppress(OSError):  # past the machine's limit, which holds a quarter of a second; root only
            self.socket.setsockopt(socket.SOL_SOCKET, 33, 4 << 20)  # SO_RCVBUFFORCE
        self.socket.bind(("", port))
        with inside(ns):
            self.names = {index: name for index, name in socket.if_nameindex()}
        self.stopping = False
        self.thread = threading.Thread(target=self._receive, daemon=True)
        self.thread.start()

    def _receive(self):
        while not self.stopping:
            if not select.select([self.socket], [], [], 0.05)[0]:
                continue
            data, ancillary, _, peer = self.socket.recvmsg(2048, 256)
            interface, tos = 0, 0
            for level, kind, value in ancillary:
                if level == socket.IPPROTO_IP and kind == 8:
                    interface = struct.unpack_from("=I", value)[0]
                elif level == socket.IPPROTO_IP and kind == 1:
                    tos = value[0]
                elif level == socket.IPPROTO_IPV6 and kind == socket.IPV6_PKTINFO:
                    interface = struct.unpack_from("=I", value, 16)[0]
                elif level == socket.IPPROTO_IPV6 and kind == socket.IPV6_TCLASS:
                    tos = struct.unpack("=i", value)[0]
            name = self.names.get(interface, str(interface)).replace("from-", "")
            number = struct.unpack_from("!I", data)[0]
            self.packets.append((number, name, time.monotonic(), tos, peer))

    def by_uplink(self):
        counts = {}
        for packet in list(self.packets):
            counts[packet[1]] = counts.get(packet[1], 0) + 1
        return counts

    def wait(self, count, seconds=3.0):
        end = time.monotonic() + seconds
        while len(self.packets) < count and time.monotonic() < end:
            time.sleep(0.005)
        return len(self.packets)

    def close(self):
        self.stopping = True
        self.thread.join()
        self.socket.close()


def send(lab, family, port, count, source_ns="lan", interval=0.0, ports=1, destination=None, size=4, setopts=()):
    """Sends `count` numbered UDP packets of `size` bytes, over `ports` source ports in turn; `setopts` are options
    (level, name, value) of their sockets."""
    af = socket.AF_INET if family == 4 else socket.AF_INET6
    sockets = [lab.socket(source_ns, af) for _ in range(ports)]
    try:
        for each in sockets:
            for option in setopts:
                each.setsockopt(*option)
        start = time.monotonic()
        for number in range(count):
            if interval:
                late = start + number * interval - time.monotonic()
                if late > 0:
                    time.sleep(late)
            with contextlib.suppress(OSError):
                sockets[number % ports].sendto(struct.pack("!I", number).ljust(size, b"\0"),
                                               (destination or SERVER[family], port))
    finally:
        for each in sockets:
            each.close()


class Stream:
    """A steady stream of numbered packets to the server; tells afterwards what was lost and when."""

    def __init__(self, lab, family=4, port=443, interval=0.001, source_ns="lan"):
        self.arrivals = Arrivals(lab, family, port)
        self.socket = lab.socket(source_ns, socket.AF_INET if family == 4 else socket.AF_INET6)
        self.family, self.port, self.interval, self.sent, self.stopping = family, port, interval, [], False
        self.thread = threading.Thread(target=self._send, daemon=True)
        self.thread.start()

    def _send(self):
        start, number = time.monotonic(), 0
        while not self.stopping:
            late = start + number * self.interval - time.monotonic()
            if late > 0:
                time.sleep(late)
            with contextlib.suppress(OSError):
                self.socket.sendto(struct.pack("!I", number), (SERVER[self.family], self.port))
            self.sent.append(time.monotonic())
            number += 1

    def stop(self):
        """Result: {"sent", "lost", "outage": seconds of the longest gap, "uplinks": counts}."""
        self.stopping = True
        self.thread.join()
        self.arrivals.wait(len(self.sent), 0.5)
        time.sleep(0.05)
        self.arrivals.close()
        self.socket.close()
        got = {packet[0] for packet in self.arrivals.packets}
        lost = [number for number in range(len(self.sent)) if number not in got]
        times = sorted(packet[2] for packet in self.arrivals.packets)
        gap = max((b - a for a, b in zip(times, times[1:])), default=0.0)
        return {"sent": len(self.sent), "lost": len(lost), "outage": gap, "uplinks": self.arrivals.by_uplink(),
                "lost_numbers": lost}

    def last_uplink(self):
        return self.arrivals.packets[-1][1] if self.arrivals.packets else None

    def wait_uplink(self, up, seconds):
        """Waits until packets arrive through `up`; result: whether they do, and after how long."""
        begin = time.monotonic()
        while time.monotonic() - begin < seconds:
            if self.last_uplink() == up and self.arrivals.packets[-1][2] > begin:
                return True, time.monotonic() - begin
            time.sleep(0.001)
        return False, time.monotonic() - begin


class Refused(Exception):
    pass


class Daemon:
    """policyrouted in a namespace, and pbrctl talking to it. Programs of another machine run under the emulator that
    POLICYROUTE_EMULATOR names."""

    def __init__(self, build=None, ns="rtr", device="kernel", options=(), root=None):
        self.build = build or build_folder()
        self.emulator = shlex.split(os.environ.get("POLICYROUTE_EMULATOR", ""))
        self.ns, self.device, self.options = ns, device, list(options)
        self.root = root or tempfile.mkdtemp(prefix="pbr-")
        self.process = None
        self.errors = []

    def program(self, name):
        """The words that start a program of the build."""
        return self.emulator + [os.path.join(self.build, name)]

    def start(self, wait=15.0):
        words = self.program("policyrouted") + ["--option", f"host.root={self.root}",
                                                "--option", f"host.device={self.device}", "--option", "host.log=stderr"]
        for option in self.options:
            words += ["--option", option]
        if self.ns is not None:
            words = ["nsenter", f"--net=/run/netns/{self.ns}"] + words
        self.process = subprocess.Popen(words, stderr=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
        self.errors = []
        serving = threading.Event()
        reader = threading.Thread(target=self._read, args=(self.process, serving), daemon=True)
        reader.start()
        begin = time.monotonic()
        while not serving.wait(0.02):
            if self.process.poll() is not None or time.monotonic() - begin > wait:
                if self.process.poll() is not None:
                    reader.join(5)  # what it said before it ended
                raise Refused("policyrouted did not start: " + "".join(self.errors[-5:]))
        return self

    def _read(self, process, serving):
        with process.stderr:
            for line in process.stderr:
                self.errors.append(line)
                if "serving on" in line:
                    serving.set()

    def ctl(self, *words, check=True, stdin=None):
        command = self.program("pbrctl") + ["--root", self.root] + [str(word) for word in words]
        if self.ns is not None:
            command = ["nsenter", f"--net=/run/netns/{self.ns}"] + command
        done = subprocess.run(command, text=True, capture_output=True, input=stdin, timeout=60)
        if check and done.returncode != 0:
            raise Refused(f"pbrctl {' '.join(map(str, words))}: exit {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def json(self, *words):
        return json.loads(self.ctl("--json", *words).stdout)

    def apply(self, text, *options, check=True):
        path = os.path.join(self.root, "policy.yaml")
        with open(path, "w") as file:
            file.write(text)
        return self.ctl("apply", path, *options, check=check)

    def until(self, question, seconds=5.0):
        """Waits until question() is true; result: its last answer."""
        end = time.monotonic() + seconds
        while True:
            answer = question()
            if answer or time.monotonic() > end:
                return answer
            time.sleep(0.02)

    def kill(self, number=signal.SIGKILL):
        self.process.send_signal(number)
        self.process.wait(10)

    def stop(self):
        """Ends it as a service manager does; a sanitizer's finding at the end fails the test."""
        if self.process is not None and self.process.poll() is None:
            self.kill(signal.SIGTERM)
            if self.process.returncode not in (0, -signal.SIGTERM):
                raise AssertionError(f"the daemon ended with {self.process.returncode}: " + "".join(self.errors[-40:]))

    def close(self):
        self.stop()
        shutil.rmtree(self.root, ignore_errors=True)


class Command:
    """One connection to the command socket; frames by hand."""

    def __init__(self, root):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(10)
        self.socket.connect(root + "/tmp/policyroutecmd.socket")

    @staticmethod
    def frame(command, key=b"", field=0, number=0, data=b"", kind=None, request=1, version=1, length=None,
              key_length=None, reserved=0):
        kind = kind if kind is not None else (2 if data else 1)
        body = struct.pack("!BBHIIIHH", version, kind, command, request, field, number,
                           len(key) if key_length is None else key_length, reserved) + key + data
        return struct.pack("!I", len(body) if length is None else length) + body

    def receive(self, count):
        data = b""
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            if not part:
                raise EOFError("the daemon closed the connection")
            data += part
        return data

    def answer(self):
        """Result: (result code, number, key bytes, value bytes, header)."""
        length = struct.unpack("!I", self.receive(4))[0]
        body = self.receive(length)
        header = struct.unpack_from("!BBHIIIHH", body)
        key = body[20:20 + header[6]]
        return header[4], header[5], key, body[20 + header[6]:], header

    def call(self, command, **options):
        self.socket.sendall(self.frame(command, **options))
        return self.answer()

    def close(self):
        self.socket.close()


def list_key(name, length=None):
    return name[:16].ljust(16, b"\0") + struct.pack(ORDER + "H", len(name) if length is None else length)


def node_key(name, index, hop=0, mask=0, length=None):
    return list_key(name, length) + b"\0\0" + struct.pack(ORDER + "IBB", index, mask, hop) + b"\0\0"


def unit_of(interface):
    """The unit of an interface of this process's own namespace."""
    return socket.if_nametoindex(interface)
