"""What the daemon takes while nothing happens: memory, wake-ups, processor time; and while it probes."""
import glob
import os
import time

from kit import failover, policies, stats
from kit.lab import Broken, netlab

CASES = {
    "idle": "default limits, no policy",
    "idle-policy": "default limits, 100 nodes on two next hops",
    "probes": "ten next hops probed each 100 ms",
    "large": "10,000 nodes (1,000 with two next hops each)",
}
KEPT = {"full": 10.0, "quick": 4.0, "smoke": 0.5}


def read(pid):
    """Result: (voluntary switches of all threads, processor seconds, resident bytes)."""
    switches = 0
    for path in glob.glob(f"/proc/{pid}/task/*/status"):
        with open(path) as file:
            switches += next(int(line.split()[1]) for line in file if line.startswith("voluntary"))
    nanoseconds = 0
    for path in glob.glob(f"/proc/{pid}/task/*/schedstat"):
        with open(path) as file:
            nanoseconds += int(file.read().split()[0])
    with open(f"/proc/{pid}/statm") as file:
        resident = int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    return switches, nanoseconds / 1e9, resident


def policy(case):
    """Result: (number of nodes, policy file or None)."""
    if case == "idle":
        return 0, None
    if case == "idle-policy":
        return 100, failover.policy(100, "shared")
    if case == "large":
        return 10000, failover.policy(10000, "shared")
    hops = [f"198.51.100.{128 + number}" for number in range(10)]
    probes = "".join(f"  ops/p{number}: {{icmp: {hop}, interval: 100ms, timeout: 80ms, down-after: 3}}\n"
                     for number, hop in enumerate(hops))
    text = policies.text("single", 4, 10, hops_of=lambda node: [f'{{address: "{hops[node - 1]}", probe: ops/p{node - 1}}}'])
    return 10, "probes:\n" + probes + text


class Idle:
    def __init__(self, carried, pace, say):
        self.carried, self.pace, self.say = carried, pace, say

    def run(self):
        """Result: list of {"case", "carrier", "resident" bytes, "wakeups" a second, "cpu" share} or "skipped": why."""
        results = []
        for carrier in self.carried:
            failover.Failover.prepare(carrier.router)
            for case in CASES:
                if case == "large" and self.pace == "smoke":
                    continue
                head = dict(case=case, carrier=carrier.name)
                try:
                    results.append(dict(head, **self._case(carrier, case)))
                    self.say(f"  {carrier.name} {case}: {results[-1]}")
                except (Broken, netlab.Refused) as error:
                    results.append(dict(head, skipped=str(error)))
                    self.say(f"  {carrier.name} {case}: {error}")
                finally:
                    carrier.remove()
        return results

    def _case(self, carrier, case):
        count, text = policy(case)
        carrier.start(count, ["host.journal=off"])
        if text:
            carrier.apply(text, 40.0 if self.pace == "quick" else 120.0)
            carrier.settle(count)
        time.sleep(1.0)
        pid = carrier.daemon.process.pid
        before, begin = read(pid), time.monotonic()
        time.sleep(KEPT[self.pace])
        after, seconds = read(pid), time.monotonic() - begin
        return {"resident": after[2], "wakeups": (after[0] - before[0]) / seconds, "cpu": (after[1] - before[1]) / seconds}


def section(found, titles):
    """Lines of the report."""
    rows = [[CASES[each["case"]], titles.get(each["carrier"], each["carrier"]), f"{each['resident'] / 2**20:.1f} MiB",
             stats.three(each["wakeups"]), f"{each['cpu'] * 100:.2f} %"] for each in found if "resident" in each]
    return stats.table(["daemon", "with", "resident memory", "wake-ups a second", "processor"], rows)
