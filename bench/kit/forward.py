"""What a router forwards, by what carries the policy, how many nodes it has and which of them a packet meets.

Each point is a series P M P M P: plain routing in a router of its own before and behind each measurement. Results are
ratios of neighbours, so what the machine does meanwhile hardly counts. Figures are packets per second of processor
time (packet_load.cpp); a point is taken only if the packets leave by the uplink where they belong.
"""
import subprocess
from dataclasses import dataclass

from kit import carriers, frr, policies, stats
from kit.lab import Broken

PATTERNS = {
    "last": "matching entry last",
    "first": "matching entry first",
    "none": "no entry matches",
    "unbound": "another interface, without policy",
}
POLICY_WAY, TABLE_WAY = "upa", "upb"


@dataclass
class Plan:
    """What is measured: (family, kind, nodes, patterns) in turn, `rounds` times for `seconds` each."""
    points: list
    rounds: int
    seconds: float
    longest_install: float = 60.0


def full():
    points = [(family, kind, count, tuple(PATTERNS) if count in (1, 1000, 10000) else ("last",))
              for family in (4, 6) for kind in policies.KINDS for count in (1, 10, 100, 1000, 5000, 10000)]
    return Plan(points, rounds=3, seconds=0.3)


def quick():
    points = [(4, kind, count, tuple(PATTERNS) if count == 1000 else ("last",))
              for kind in policies.KINDS for count in (1, 100, 1000, 10000 if kind == "exact" else 5000)]
    points += [(6, "exact", 1, ("last",)), (6, "exact", 1000, ("last", "unbound"))]
    return Plan(points, rounds=2, seconds=0.12, longest_install=40.0)


def smoke():
    return Plan([(4, "exact", 10, ("last", "unbound")), (6, "exact", 10, ("last",))], rounds=1, seconds=0.05)


def rate(router, lan, packet, way, seconds, cpu):
    """Packets per second of processor time; they must leave by `way`."""
    told = router.load(lan, packet, seconds, cpu)
    arrived = told["arrived"][way]
    if arrived < 0.995 * told["sent"]:
        raise Broken(f"{router.name}: of {told['sent']} packets {arrived} left by {way}: {told['arrived']}")
    return arrived / told["cpu"]


class Forwarding:
    def __init__(self, carried, plan, cpu, say):
        self.carried, self.plan, self.cpu, self.say = carried, plan, cpu, say
        self.plain = carriers.Plain()

    def close(self):
        self.plain.close()

    def run(self):
        """Result: list of {"family", "kind", "nodes", "pattern", "carrier", "plain", "rate", "ratios"} or, instead of
        the last three, "skipped": why."""
        self._check_the_yardstick()
        results, given_up = [], {}
        for family, kind, count, patterns in self.plan.points:
            installed = []
            for carrier in self.carried:
                why = self._given_up(given_up, carrier, count) or carrier.can(kind, family, count)
                if not why:
                    try:
                        carrier.install(kind, family, count, seconds=self.plan.longest_install)
                        installed.append(carrier)
                        continue
                    except (Broken, subprocess.SubprocessError, OSError) as error:
                        why = str(error) if isinstance(error, Broken) else f"{count:,} nodes: {type(error).__name__}"
                        carrier.remove()
                        given_up.setdefault(carrier.name, (count, why))
                        self.say(f"  {carrier.title}: IPv{family} {kind} {count}: {why}")
                results += [dict(family=family, kind=kind, nodes=count, pattern=pattern, carrier=carrier.name, skipped=why)
                            for pattern in patterns]
            for pattern in patterns:
                results += self._point(installed, family, kind, count, pattern)
            for carrier in installed:
                carrier.remove()
        return results

    @staticmethod
    def _given_up(given_up, carrier, count):
        """Why so many nodes will not do either, whatever their kind; None while it is not known."""
        most, why = given_up.get(carrier.name, (None, None))
        return why if most is not None and count >= most else None

    def _check_the_yardstick(self):
        """Routers without any policy must be alike, or nothing can be compared."""
        packet = policies.stranger(4)
        for carrier in self.carried:
            ratios = stats.neighbour_ratios([
                rate(self.plain.router if i % 2 == 0 else carrier.router, "lan0", packet, TABLE_WAY, 0.1, self.cpu)
                for i in range(7)])
            self.say(f"  {carrier.router.name} without policy: {stats.median(ratios):.2f} of plain routing")
            if not 0.85 < stats.median(ratios) < 1.15:
                raise Broken(f"{carrier.router.name} without a policy forwards {stats.median(ratios):.2f} of what the plain one does")

    def _point(self, installed, family, kind, count, pattern):
        series = {carrier.name: [] for carrier in installed}
        rates, failed = {carrier.name: [] for carrier in installed}, {}
        plain = []
        for _ in range(self.plan.rounds):
            for carrier in installed:
                if carrier.name in failed:
                    continue
                lan, packet, way = self._traffic(carrier, family, kind, count, pattern)
                try:
                    before = self._plain(lan, packet)
                    measured = rate(carrier.router, lan, packet, way, self.plan.seconds, self.cpu)
                    behind = self._plain(lan, packet)
                except Broken as error:
                    failed[carrier.name] = str(error)
                    continue
                plain += [before, behind]
                rates[carrier.name].append(measured)
                series[carrier.name] += stats.neighbour_ratios([before, measured, behind])
        results = []
        for carrier in installed:
            head = dict(family=family, kind=kind, nodes=count, pattern=pattern, carrier=carrier.name)
            if carrier.name in failed:
                results.append(dict(head, skipped=failed[carrier.name]))
                continue
            results.append(dict(head, plain=stats.median(plain), rate=stats.median(rates[carrier.name]),
                                ratios=series[carrier.name]))
        for each in results:
            self.say(f"  IPv{family} {kind} {count:,} {pattern} {each['carrier']}: " +
                     (each.get("skipped") or f"{stats.median(each['ratios']):.3f}"))
        return results

    def _plain(self, lan, packet):
        return rate(self.plain.router, lan, packet, TABLE_WAY, self.plan.seconds, self.cpu)

    @staticmethod
    def _traffic(carrier, family, kind, count, pattern):
        if pattern in ("none", "unbound"):
            return "lan1" if pattern == "unbound" else "lan0", policies.stranger(family), TABLE_WAY
        first = carrier.first(count) if isinstance(carrier, frr.Frr) else 1
        return "lan0", policies.packet(kind, family, first if pattern == "first" else count), POLICY_WAY
