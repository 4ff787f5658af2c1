"""A storm: many next hops that come and go at random, packets for many nodes, and applies meanwhile; and what must
be true when it is quiet again. Used by bench/flap_storm.py and by the system test.

    lan --lan0 [rtr] upl ======== trunk [far]   most next hops: a macvlan each, with an address of its own
                    l0, l1 ... == f0, f1 ...    the others: a link each

A next hop is known by its link-layer address at the far end, where each packet is counted by that address and its
port before it is dropped. The routing table's way is a next hop of its own that always answers.
"""
import ipaddress
import json
import os
import random
import re
import struct
import subprocess
import threading
import time

import netlab
from netlab import inside, run

OPTIONS = ("host.neighbour-probe-ms=800", "policyroute.maxnodenum=1024")
FIRST_PORT, USUAL = 2000, "usual"
NETWORK = {4: ipaddress.ip_network("100.64.0.0/16"), 6: ipaddress.ip_network("2001:db8:64::/64")}
UP_SECONDS, DOWN_SECONDS, TICK = 3.0, 2.0, 0.05


class Hop:
    """kind: "silent" (drops what comes for it), "gone" (its interface is down), "carrier" (its link), "admin" (the
    router's end of its link is set down)."""

    def __init__(self, number, links):
        self.family = 6 if number % 4 == 3 else 4
        self.up, self.changes = True, 0
        if number < links:
            self.kind = "admin" if number % 5 == 4 else "carrier"
            self.device, self.near = f"f{number}", f"l{number}"
            self.network = ipaddress.ip_network(f"10.200.{number}.0/24" if self.family == 4 else f"2001:db8:c8:{number:x}::/64")
            self.address = str(self.network[2])
        else:
            self.kind = "gone" if number % 10 == 0 else "silent"
            self.device, self.near, self.network = f"m{number}", "upl", None
            self.address = str(NETWORK[self.family][256 + number])
        # Where a neighbour that is not known is asked for: all of ARP names the address, discovery has a group for it.
        self.asked_at = self.address if self.family == 4 else "ff02::1:ff" + ipaddress.ip_address(self.address).exploded[-7:]
        self.mac = "02:00:00:00:%02x:%02x" % divmod(number, 256)


class Node:
    def __init__(self, number, hops, ecmp=False, drop=False):
        self.number, self.hops, self.ecmp, self.drop = number, hops, ecmp, drop
        self.family, self.port = hops[0].family, FIRST_PORT + number
        self.acl = (1001 if self.family == 4 else 3001) + number

    def expected(self):
        """The link-layer names of the hops that its packets must take now."""
        usable = [hop.address for hop in self.hops if hop.up]
        if not usable:
            return set() if self.drop else {USUAL}
        return set(usable if self.ecmp else usable[:1])

    def text(self):
        hops = ", ".join(f'"{hop.address}"' for hop in self.hops)
        return (f"    {self.number}: {{acl: {self.acl}, next-hops: [{hops}]" + (", ecmp: true" if self.ecmp else "") +
                (", otherwise: drop" if self.drop else "") + "}\n")


def policy(nodes):
    acls = "".join(f"  {node.acl}: {{10: permit udp from any to any port {node.port}}}\n" for node in nodes)
    return "acls:\n" + acls + "lists:\n  wan:\n" + "".join(node.text() for node in nodes) + "bindings:\n  lan0: wan\n"


class Lab:
    def __init__(self, hops):
        self.hops = hops
        for ns in ("rtr", "lan", "far"):
            run(["ip", "netns", "add", ns])
            netlab.sysctl(ns, "ipv4/conf/all/forwarding", int(ns == "rtr"))
            netlab.sysctl(ns, "ipv6/conf/all/forwarding", int(ns == "rtr"))
            for which in ("all", "default"):
                netlab.sysctl(ns, f"ipv4/conf/{which}/rp_filter", 0)
                netlab.sysctl(ns, f"ipv4/conf/{which}/arp_ignore", 1)  # each macvlan answers for its own address only
                netlab.sysctl(ns, f"ipv6/conf/{which}/accept_dad", 0)
                netlab.sysctl(ns, f"ipv6/conf/{which}/accept_ra", 0)
                netlab.sysctl(ns, f"ipv6/conf/{which}/keep_addr_on_down", 1)
            run("ip link set lo up", ns)
        for family in (4, 6):  # flows of one pair of hosts differ in their ports only
            netlab.sysctl("rtr", f"ipv{family}/fib_multipath_hash_policy", 1)
        run("ip link add eth0 netns lan type veth peer name lan0 netns rtr")
        run("ip link add upl netns rtr type veth peer name trunk netns far")
        self._addresses()
        self._far_links()
        for device in {hop.near for hop in hops}:
            for family in ("ipv4", "ipv6"):
                netlab.sysctl("rtr", f"{family}/neigh/{device}/retrans_time_ms", 100)
        self._far_table()

    def _addresses(self):
        self.ip("rtr", ["addr add 10.0.0.1/24 dev lan0", "addr add 2001:db8:1::1/64 dev lan0 nodad", "link set lan0 up",
                        f"addr add {NETWORK[4][1]}/16 dev upl", f"addr add {NETWORK[6][1]}/64 dev upl nodad", "link set upl up"])
        self.ip("lan", ["addr add 10.0.0.10/24 dev eth0", "addr add 2001:db8:1::10/64 dev eth0 nodad", "link set eth0 up",
                        "route add default via 10.0.0.1", "route add default via 2001:db8:1::1"])

    def _far_links(self):
        far, near = ["link set trunk up"], []
        for hop in self.hops:
            if hop.network is None:
                far.append(f"link add {hop.device} link trunk address {hop.mac} type macvlan mode private")
            else:
                run(f"ip link add {hop.near} netns rtr type veth peer name {hop.device} netns far")
                length = hop.network.prefixlen
                near += [f"addr add {hop.network[1]}/{length} dev {hop.near}" + (" nodad" if hop.family == 6 else ""),
                         f"link set {hop.near} up", f"route add unreachable {hop.network} metric 9999"]
                far.append(f"link set {hop.device} address {hop.mac}")
            far += [f"addr add {hop.address}/{32 if hop.family == 4 else 128} dev {hop.device}" +
                    (" nodad" if hop.family == 6 else ""), f"link set {hop.device} up"]
        self.usual_mac = "02:00:00:00:ff:ff"
        far += [f"link add usual link trunk address {self.usual_mac} type macvlan mode private"]
        far += [f"addr add {NETWORK[family][255]}/{32 if family == 4 else 128} dev usual" + (" nodad" if family == 6 else "")
                for family in (4, 6)] + ["link set usual up"]
        self.ip("far", far)
        self.ip("rtr", near + [f"route add default via {NETWORK[family][255]}" for family in (4, 6)])

    def _far_table(self):
        devices = ", ".join(["trunk"] + [hop.device for hop in self.hops if hop.network])
        self.nft(f"""table netdev storm {{
            set dead4 {{ type ipv4_addr; }}
            set dead6 {{ type ipv6_addr; }}
            set deadmac {{ type ether_addr; }}
            set seen {{ type ether_addr . inet_service; flags dynamic; size 65536; }}
            chain in {{
                type filter hook ingress devices = {{ {devices} }} priority -500;
                ether daddr @deadmac drop
                arp daddr ip @dead4 drop
                ip6 daddr @dead6 drop
                udp dport {FIRST_PORT}-{FIRST_PORT + 4999} update @seen {{ ether daddr . udp dport counter }} drop
            }}
        }}""")

    @staticmethod
    def ip(ns, lines):
        with inside(ns):
            done = subprocess.run(["ip", "-batch", "-"], input="\n".join(lines) + "\n", text=True, capture_output=True)
        if done.returncode:
            raise OSError(f"ip in {ns}: {done.stderr}")

    @staticmethod
    def nft(text):
        with inside("far"):
            done = subprocess.run(["nft", "-f", "-"], input=text, text=True, capture_output=True)
        if done.returncode:
            raise OSError("nft in far: " + done.stderr)

    def toggle(self, hops):
        """Each of these next hops goes or comes."""
        nft, ip = [], {"far": [], "rtr": []}
        for hop in hops:
            hop.up, hop.changes = not hop.up, hop.changes + 1
            if hop.kind == "silent":
                verb = "delete" if hop.up else "add"
                nft += [f"{verb} element netdev storm dead{hop.family} {{ {hop.asked_at} }}",
                        f"{verb} element netdev storm deadmac {{ {hop.mac} }}"]
            elif hop.kind == "admin":
                ip["rtr"].append(f"link set {hop.near} {'up' if hop.up else 'down'}")
            else:
                ip["far"].append(f"link set {hop.device} {'up' if hop.up else 'down'}")
        if nft:
            self.nft("\n".join(nft))
        for ns, lines in ip.items():
            if lines:
                self.ip(ns, lines)

    def take_counts(self):
        """(address of the next hop or USUAL, port) -> packets since the last take; counting begins anew."""
        text = run("nft -j list set netdev storm seen", "far").stdout
        self.nft("flush set netdev storm seen")
        names = {hop.mac: hop.address for hop in self.hops} | {self.usual_mac: USUAL}
        seen = next(each["set"] for each in json.loads(text)["nftables"] if "set" in each).get("elem", [])
        return {(names[each["elem"]["val"]["concat"][0]], each["elem"]["val"]["concat"][1]): each["elem"]["counter"]["packets"]
                for each in seen}

    def close(self):
        for ns in ("rtr", "lan", "far"):
            run(["ip", "netns", "del", ns], check=False)


class Storm:
    """One run: make it, blow(), then settle() and check(). What was found stands in `summary` and `faults`."""

    def __init__(self, seconds, count, seed, build=None):
        self.seconds, self.dice, self.seed = seconds, random.Random(seed), seed
        self.hops = [Hop(number, links=count // 10) for number in range(count)]
        self.lab = Lab(self.hops)
        self.daemon = netlab.Daemon(build=build, options=OPTIONS)
        self.variants = [self._nodes(count), None]
        self.variants[1] = self._another(self.variants[0])
        self.nodes = self.variants[0]
        self.summary, self.faults, self.samples, self.applies = {}, [], [], []
        self.sent, self.stopping = 0, False

    def _nodes(self, count):
        by_family = {family: [hop for hop in self.hops if hop.family == family] for family in (4, 6)}
        nodes = []
        for number, hop in enumerate(self.hops, 1):
            others = [each for each in by_family[hop.family] if each is not hop]
            chosen = [hop] + self.dice.sample(others, self.dice.randrange(0, 4))
            nodes.append(Node(number, chosen, ecmp=number % 8 == 0, drop=number % 11 == 0))
        return nodes

    def _another(self, nodes):
        """The other variant: some nodes are missing, some have their next hops in another order or others."""
        changed = []
        for node in nodes:
            lot, hops = self.dice.random(), list(node.hops)
            if lot < 0.03:
                continue
            if lot < 0.15:
                hops.reverse()
            elif lot < 0.20:
                hops = [hops[0]]
            changed.append(Node(node.number, hops, node.ecmp != (0.20 < lot < 0.23), node.drop))
        return changed

    # ---- while it blows ----
    def blow(self):
        self.daemon.start()
        self.daemon.apply(policy(self.nodes))
        self.pid = self.daemon.process.pid
        threads = [threading.Thread(target=guarded, args=(self, part)) for part in (self._flap, self._traffic, self._sample)]
        for thread in threads:
            thread.start()
        try:
            self._apply_each_second()
        finally:
            self.stopping = True
            for thread in threads:
                thread.join()

    def _apply_each_second(self):
        begin, turn = time.monotonic(), 0
        while time.monotonic() < begin + self.seconds:
            turn += 1
            self._apply(self.variants[turn // 2 % 2])
            time.sleep(max(0.0, min(begin + turn, begin + self.seconds) - time.monotonic()))

    def _apply(self, nodes):
        begin = time.monotonic()
        done = self.daemon.apply(policy(nodes), check=False)
        self.applies.append(time.monotonic() - begin)
        if done.returncode:
            self.faults.append(f"apply {len(self.applies)}: exit {done.returncode}: {done.stderr.strip()[-600:]}")
        self.nodes = nodes

    def _flap(self):
        dice = random.Random(self.seed + 1)
        next_time = {hop: time.monotonic() + dice.expovariate(1 / UP_SECONDS) for hop in self.hops}
        while not self.stopping:
            now = time.monotonic()
            due = [hop for hop in self.hops if next_time[hop] <= now]
            self.lab.toggle(due)
            for hop in due:
                next_time[hop] = now + dice.expovariate(1 / (UP_SECONDS if hop.up else DOWN_SECONDS))
            time.sleep(TICK)

    def _traffic(self):
        ports = [(node.family, node.port) for node in self.variants[0]]
        sockets = {family: self._socket(family) for family in (4, 6)}
        while not self.stopping:
            for _ in range(20):
                family, port = ports[self.sent % len(ports)]
                sockets[family].sendto(struct.pack("!I", self.sent), (netlab.SERVER[family], port))
                self.sent += 1
            time.sleep(0.01)
        for each in sockets.values():
            each.close()

    @staticmethod
    def _socket(family):
        with inside("lan"):
            return netlab.socket.socket(netlab.socket.AF_INET if family == 4 else netlab.socket.AF_INET6, netlab.socket.SOCK_DGRAM)

    def _sample(self):
        while not self.stopping:
            with open(f"/proc/{self.pid}/status") as file:
                rss = int(re.search(r"VmRSS:\s+(\d+)", file.read()).group(1))
            self.samples.append((rss, len(os.listdir(f"/proc/{self.pid}/fd")), len(os.listdir(f"/proc/{self.pid}/task"))))
            time.sleep(1)

    # ---- afterwards ----
    def settle(self, seconds=60):
        """Waits until the daemon knows the true state of each next hop and has worked it off."""
        self._apply(self.variants[0])
        begin = time.monotonic()
        self.daemon.until(lambda: not self._store_faults(), seconds)
        self.daemon.until(lambda: not self._device_faults(), 5)
        self.summary["quiet after, s"] = f"{time.monotonic() - begin:.1f}"

    def check(self):
        """Compares all planes with what is true; result: the faults, in words."""
        for part in (self._store_faults, self._device_faults, self._kernel_faults, self._packet_faults, self._process_faults):
            self.faults += part()
        return self.faults

    def _store_faults(self):
        truth = {hop.address: hop.up for hop in self.hops}
        expected = {node.number: node.expected() - {USUAL} for node in self.nodes}
        faults = []
        for row in self.daemon.json("show", "next-hops"):
            address, where = str(ipaddress.ip_address(row["address"])), f"store: node {row['node']}, {row['address']}"
            if (row["reachable"] == "up") != truth[address]:
                faults.append(f"{where}: is {'up' if truth[address] else 'down'}, the daemon says {row['reachable']} ({row['why']})")
            wanted = address in expected[row["node"]]
            if (row["chosen"], row["installed"]) != (wanted, wanted):
                faults.append(f"{where}: chosen {row['chosen']}, installed {row['installed']}, should be {wanted}: {row['why']}")
        return faults

    def _device_faults(self):
        """Device and kernel by pbrctl's own words."""
        shown, faults = self.daemon.json("show", "device"), []
        if shown["error"] or shown["held"] or shown["state"] != "live":
            faults.append(f"device: state {shown['state']}, error {shown['error']!r}, held {shown['held']}")
        entries = {entry["node"]: entry for entry in shown["entries"]}
        for node in self.nodes:
            entry, expected = entries.get(node.number), node.expected()
            targets = set(entry["nextHops"]) if entry else set()
            if targets != expected - {USUAL} or (entry and (entry["error"] or (targets and not entry["installed"]))):
                faults.append(f"device: node {node.number} should have {sorted(expected)}: {entry}")
        used = {(entry["ipVersion"], number) for entry in shown["entries"] for number in entry["decisions"]}
        faults += [f"device: decision that no node uses: {each}" for each in shown["decisions"]
                   if (each["ipVersion"], each["id"]) not in used and (each["paths"] or not each["users"])]
        checked = self.daemon.ctl("check", "--json", check=False)
        report = json.loads(checked.stdout)
        if checked.returncode or report["differences"]:
            faults.append(f"check: exit {checked.returncode}: {report['differences'][:3]} {checked.stderr}")
        self.summary["decisions in the kernel"] = len(shown["decisions"])
        self.summary["kernel: applies, messages, repairs, refusals"] = ", ".join(
            str(shown["counters"][name]) for name in ("applies", "kernelMessages", "driftRepaired", "refusals"))
        if shown["counters"]["driftRepaired"] or shown["counters"]["refusals"]:
            faults.append(f"device: nobody else changed anything, and nothing was to be refused: {shown['counters']}")
        return faults

    def _kernel_faults(self):
        """By nft and ip alone: node -> mark -> rule -> table -> route -> next hops."""
        text, faults, ways = run("nft list table inet policyroute", "rtr").stdout, [], {}
        marks = {(int(family), int(node)): (int(body.split("|")[1].split()[0], 16) if "|" in body else None)
                 for family, node, body in re.findall(r"chain do([46])/wan/(\d+) \{\n(.*?)\n\t\}", text, re.S)}
        for family in (4, 6):
            rules = {int(rule["fwmark"], 16): str(rule["table"]) for rule in
                     json.loads(run(f"ip -{family} -j rule", "rtr").stdout) if rule.get("protocol") == "206" and "table" in rule}
            routes = json.loads(run(f"ip -{family} -j route show table all proto 206", "rtr").stdout)
            tables = {}
            for route in sorted(routes, key=lambda each: -each.get("metric", 0)):  # of a table the least metric is taken
                if "nhid" in route:
                    way = {each["gateway"] for each in route.get("nexthops", [route])}
                else:
                    way = {USUAL} if route["type"] == "throw" else set()
                tables[str(route["table"])] = way
            ways |= {(family, mark): tables.get(table, set()) for mark, table in rules.items()}
        for node in self.nodes:
            mark = marks.get((node.family, node.number))
            found = ways.get((node.family, mark), {"mark without rule"}) if mark else {USUAL}
            expected = node.expected()
            if node.drop and not expected:
                found = set() if "drop" in self._chain(text, node) or not found else found
            if found != expected:
                faults.append(f"kernel: node {node.number} should have {sorted(expected)}, has {sorted(found)}: "
                              f"{self._chain(text, node)}")
        in_use = {mark for mark in marks.items() if mark[1]}
        if len(ways) != len({(family, mark) for (family, _), mark in in_use}):
            faults.append(f"kernel: {len(ways)} rules, {len({(f, m) for (f, _), m in in_use})} marks in use")
        return faults

    @staticmethod
    def _chain(text, node):
        found = re.search(rf"chain do{node.family}/wan/{node.number} \{{\n(.*?)\n\t\}}", text, re.S)
        return found.group(1).strip() if found else "no chain"

    def _counters(self):
        return {row["node"]: row["packets"] for row in self.daemon.json("show", "policy-counters")["counters"]}

    def _packet_faults(self, each=60):
        """A last round of numbered packets: where they arrive, and what pbrctl counted."""
        time.sleep(0.2)
        self.lab.take_counts()
        before, faults = self._counters(), []
        sockets = {family: [self._socket(family) for _ in range(each)] for family in (4, 6)}
        for number in range(each):
            for node in self.nodes:
                sockets[node.family][number].sendto(struct.pack("!I", number), (netlab.SERVER[node.family], node.port))
            time.sleep(0.01)
        for pool in sockets.values():
            for one in pool:
                one.close()
        time.sleep(0.3)
        seen, after, arrived = self.lab.take_counts(), self._counters(), 0
        for node in self.nodes:
            got = {name: count for (name, port), count in seen.items() if port == node.port}
            expected = node.expected()
            arrived += sum(got.values())
            if set(got) != expected or sum(got.values()) != (each if expected else 0):
                faults.append(f"packets: {each} of node {node.number} should arrive at {sorted(expected)}, arrived: {got}")
            if after.get(node.number, 0) - before.get(node.number, 0) != each:
                faults.append(f"counters: node {node.number} counted {before.get(node.number)} to {after.get(node.number)}, "
                              f"{each} were sent")
        self.summary["last round: sent, arrived, at next hops of the policy"] = ", ".join(map(str, (
            each * len(self.nodes), arrived, sum(count for (name, _), count in seen.items() if name != USUAL))))
        return faults

    def _process_faults(self):
        faults = []
        if self.daemon.process.poll() is not None or self.daemon.process.pid != self.pid:
            faults.append("the daemon died: " + "".join(self.daemon.errors[-20:]))
        levels = {}
        for line in self.daemon.errors:
            words = line.split(" ", 3)
            if len(words) > 3 and words[2] in ("emergency", "alert", "critical", "error", "warning"):
                levels[words[2]] = levels.get(words[2], 0) + 1
                faults.append("log: " + line.strip())
        self.summary["log lines: all, warnings, worse"] = (f"{len(self.daemon.errors)}, {levels.pop('warning', 0)}, "
                                                          f"{sum(levels.values())}")
        return faults + self._memory_faults()

    def _memory_faults(self):
        """Memory of the second half of the samples that count against the first half; descriptors and threads."""
        counted = self.samples[min(15, len(self.samples) // 3):]
        rss = [sample[0] for sample in counted]
        half = len(rss) // 2
        growth = max(rss[half:]) - max(rss[:half])
        fds, tasks = {sample[1] for sample in counted}, {sample[2] for sample in counted}
        self.summary["memory, kB: first, then first, last, most"] = (
            f"{self.samples[0][0]}, {rss[0]}, {rss[-1]}, {max(rss)}")
        self.summary["descriptors, threads: least to most"] = f"{min(fds)} to {max(fds)}, {min(tasks)} to {max(tasks)}"
        faults = []
        limit = 256 if self.seconds >= 45 else 1024  # what is warm after a quarter of a minute is not in a short run
        with open(os.path.join(self.daemon.build, "policyrouted"), "rb") as file:
            is_checked = re.search(b"__[at]san_init", file.read())  # a sanitizer keeps what was freed
        if growth > limit and not is_checked:
            faults.append(f"memory: grows by {growth} kB from one half to the other: {rss}")
        if max(fds) - min(fds) > 4:  # connections of the pbrctl that is at work
            faults.append(f"descriptors: {sorted(fds)}")
        return faults

    def head(self):
        kinds = {kind: sum(hop.kind == kind for hop in self.hops) for kind in ("silent", "gone", "carrier", "admin")}
        return {"seed": self.seed, "next hops: silent, gone, carrier, admin": ", ".join(map(str, kinds.values())),
                "nodes: all, ecmp, otherwise drop": ", ".join(str(sum(map(bool, each))) for each in (
                    [True] * len(self.variants[0]), [node.ecmp for node in self.variants[0]], [node.drop for node in self.variants[0]])),
                "seconds": self.seconds, "next hops that came or went": sum(hop.changes for hop in self.hops),
                "at the end up, down": f"{sum(hop.up for hop in self.hops)}, {sum(not hop.up for hop in self.hops)}",
                "packets meanwhile": self.sent,
                "applies, longest s": f"{len(self.applies)}, {max(self.applies):.2f}"} | self.summary

    def close(self):
        self.daemon.ctl("device", "flush", check=False)
        self.daemon.close()
        self.lab.close()


def guarded(storm, part):
    try:
        part()
    except Exception as error:  # a thread of the storm that ends early must not go unseen
        storm.faults.append(f"{part.__name__}: {error!r}")
