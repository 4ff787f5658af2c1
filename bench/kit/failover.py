"""What it takes until packets go another way: a link goes down and comes back, a next hop falls silent, what lies behind it does
not answer its probe any more. A stream of numbered packets, which the last node steers, tells what was lost and when the way
changed; the kernel's notifications tell when the last of its objects was written.
"""
import json
import subprocess
import time
from dataclasses import dataclass

from kit import frr, policies, stats, watch
from kit.lab import BEHIND, LANS, UPLINKS, Broken, netlab, program

FIRST, SECOND, TABLE_WAY = "upa", "upc", "upb"
PORT = 65000  # the only one that the sink does not drop
PROBED = "192.0.2.53"
FASTEST = ("host.neighbour-probe-ms=20", 20)  # and retrans_time_ms
DEFAULT = ("host.neighbour-probe-ms=1000", 1000)
EVENTS = {
    "down": "link down",
    "back": "link back",
    "silent": "silent neighbour, defaults",
    "silent-fast": "silent neighbour, fastest settings",
    "probe": "probe down (100 ms, 3 times)",
}


@dataclass
class Plan:
    """(nodes, sets, events, rounds) in turn. Sets: "shared" is one pair of next hops, "different" one for each node."""
    points: list
    longest_install: float = 60.0


def full():
    events = ("down", "silent", "silent-fast", "probe")
    return Plan([(count, "shared", events, 5) for count in (1, 10, 100, 1000, 5000, 10000)] + [(1000, "different", ("down",), 5)])


def quick():
    return Plan([(1, "shared", ("down", "silent", "silent-fast", "probe"), 2), (1000, "shared", ("down", "silent-fast", "probe"), 2),
                 (5000, "shared", ("down",), 2), (1000, "different", ("down",), 2)],
                longest_install=40.0)


def smoke():
    return Plan([(10, "shared", ("down",), 1)])


class Stream:
    """packet_stream, running."""

    def __init__(self, router, interval_us, seconds):
        self.process = subprocess.Popen(
            [program("bench/packet_stream"), f"/run/netns/{router.sender}", f"/run/netns/{router.sink}", BEHIND[4], str(PORT),
             str(interval_us), f"{seconds:g}"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def result(self):
        out, errors = self.process.communicate(timeout=120)
        if self.process.returncode:
            raise Broken(errors.strip())
        return json.loads(out)


def way(router):
    """By which uplink packets go now; None: none arrives, or by several."""
    told = Stream(router, 2000, 0.02).result()
    return told["ways"][0]["by"] if len(told["ways"]) == 1 and told["lost"] == 0 else None


def until_way(router, wanted, seconds=20.0):
    end = time.monotonic() + seconds
    while way(router) != wanted:
        if time.monotonic() > end:
            raise Broken(f"{router.name}: packets do not go by {wanted} after {seconds:g} s")


def next_hops(number, count, sets):
    """The two next hops of node `number` of `count`, the better one first."""
    if sets == "different":
        row = 32 if count <= 1024 else 100
        return [f"198.51.100.{128 + (number - 1) % row}", f"100.64.0.{128 + (number - 1) // row % row}"]
    return [UPLINKS[FIRST][1], UPLINKS[SECOND][1]]


def policy(count, sets, probe=False, turned=None):
    """Nodes by source prefixes; the last one is the sender's own address. Node `turned` has its next hops the other way
    round; with `probe` all first choices are guarded."""
    def hops(number):
        first, second = next_hops(number, count, sets)
        if number == turned:
            return [second, first]
        return [f'{{address: "{first}", probe: ops/a}}' if probe else first, second]

    probes = f"probes:\n  ops/a: {{icmp: {PROBED}, via: next-hop, interval: 100ms, timeout: 80ms, down-after: 3}}\n" if probe else ""
    return probes + policies.text("single", 4, count, hops_of=hops, last=LANS["lan0"][0] + "/32")


class Failover:
    def __init__(self, carried, plan, say):
        self.carried, self.plan, self.say, self.results = carried, plan, say, []

    def run(self):
        """Result: list of {"event", "carrier", "nodes", "sets", and lists by round: "seconds" until packets arrive by the
        other way, "written" until the last change in the kernel (None: not seen), "lost", "other" packets that went
        elsewhere, "interval" between packets} or "skipped": why."""
        for carrier in self.carried:
            self.prepare(carrier.router)
            gone = None
            for count, sets, events, rounds in self.plan.points:
                for speed in self._speeds(carrier, events):
                    todo = [event for event in events if (event == "silent-fast") == (speed is FASTEST)]
                    why = gone if sets == "shared" else None
                    if isinstance(carrier, frr.Frr) and sets == "different":
                        why = "next hops are no order of preference"
                    if not why:
                        why = self._point(carrier, count, sets, todo, rounds, speed)
                    if why:
                        gone = gone or (why if sets == "shared" else None)
                        self.say(f"  {carrier.title}: {count:,} nodes, {sets}: {why}")
                        self.results += [dict(event=event, carrier=carrier.name, nodes=count, sets=sets, skipped=why) for event in todo]
        return self.results

    @staticmethod
    def _speeds(carrier, events):
        if isinstance(carrier, frr.Frr) or "silent-fast" not in events:
            return [DEFAULT]
        return [DEFAULT, FASTEST]

    @staticmethod
    def prepare(router):
        """Beyond what a router of lab.py has: a sender that knows its way, and next hops for different sets."""
        for lan, (v4, _) in LANS.items():
            if lan == "lan0":
                netlab.run(f"ip route replace default via {v4[:-2]}1", router.sender)
        netlab.run(f"ip addr replace {PROBED}/32 dev lo", router.sink)
        for network in ("198.51.100.128/25", "100.64.0.128/25"):  # next hops of their own, all answered
            netlab.run(f"ip route replace local {network} dev lo", router.sink)

    def _point(self, carrier, count, sets, events, rounds, speed):
        """Result: None, or why nothing could be measured."""
        option, retrans = speed
        for up in UPLINKS:
            netlab.sysctl(carrier.router.name, f"ipv4/neigh/{up}/retrans_time_ms", retrans)
        try:
            if isinstance(carrier, frr.Frr):
                carrier.install("single", 4, count, last=LANS["lan0"][0] + "/32", seconds=self.plan.longest_install)
            else:
                carrier.start(count, ["host.journal=off", option])
                carrier.apply(policy(count, sets), self.plan.longest_install)
            until_way(carrier.router, FIRST)
            if not isinstance(carrier, frr.Frr):
                carrier.settle(count)
            for event in events:
                self._event(carrier, count, sets, event, rounds)
        except (Broken, subprocess.SubprocessError, netlab.Refused) as error:
            return str(error)
        finally:
            carrier.remove()
            self._mend(carrier.router)
        return None

    def _event(self, carrier, count, sets, event, rounds):
        head = dict(carrier=carrier.name, nodes=count, sets=sets)
        if event == "probe":
            if isinstance(carrier, frr.Frr):
                self.results.append(dict(head, event=event, skipped="it has no probes"))
                return
            carrier.apply(policy(count, sets, probe=True), self.plan.longest_install)
            time.sleep(0.5)
            until_way(carrier.router, FIRST)
        kinds = ("down", "back") if event == "down" else (event,)
        found = {kind: dict(head, event=kind, seconds=[], written=[], lost=[], other=[], interval=50 if event == "down" else 1000)
                 for kind in kinds}
        for _ in range(rounds):
            for kind in kinds:
                self._round(carrier, kind, found[kind])
            if event != "down":
                self._mend(carrier.router)
            until_way(carrier.router, FIRST)
        for each in found.values():
            self.results.append(each)
            seconds = [value for value in each["seconds"] if value is not None]
            self.say(f"  {carrier.name} {count:,} {sets} {each['event']}: " +
                     (stats.duration(stats.median(seconds)) if seconds else "never") + f", lost {each['lost']}")

    def _round(self, carrier, kind, found):
        router, fast = carrier.router, kind in ("down", "back")
        other = TABLE_WAY if isinstance(carrier, frr.Frr) else SECOND
        wanted = FIRST if kind == "back" else other
        seen = watch.Watch(router.name, FIRST)
        try:
            stream = Stream(router, found["interval"], {"silent": 7.0, "silent-fast": 1.5, "probe": 1.5}.get(kind, 1.2))
            time.sleep(0.4)
            begin = time.monotonic()
            {"down": lambda: router.link(FIRST, "down"), "back": lambda: router.link(FIRST, "up"),
             "silent": lambda: router.silence(FIRST), "silent-fast": lambda: router.silence(FIRST),
             "probe": lambda: self._cut_behind(router)}[kind]()
            told = stream.result()
            seen.quiet(0.3, 5)
        finally:
            seen.stop()
        notices = [each for each in (seen.up if kind == "back" else seen.down if kind == "down" else []) if each >= begin]
        if fast and not notices:
            raise Broken(f"{kind}: the kernel told nothing")
        event = notices[0] if fast else begin
        arrived = told["ways"][-1] if told["ways"] else {"by": None}
        found["seconds"].append(max(0.0, arrived["first"] - event) if arrived["by"] == wanted else None)
        last = seen.last_change(begin)
        found["written"].append(None if last is None else max(0.0, last - event))
        found["lost"].append(told["lost"])
        found["other"].append(sum(each["count"] for each in told["ways"] if each["by"] not in (FIRST, wanted, other)))

    @staticmethod
    def _cut_behind(router):
        netlab.run(["nft", f"add table netdev behind; add chain netdev behind in {{ type filter hook ingress device {FIRST} "
                    "priority -400; policy accept; }; add rule netdev behind in icmp type echo-request drop"], router.sink)

    @staticmethod
    def _mend(router):
        for table in ("cut", "behind"):
            netlab.run(f"nft delete table netdev {table}", router.sink, check=False)
        netlab.run(f"ip link set {FIRST} up", router.sink)
