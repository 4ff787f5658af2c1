"""What is aimed at, and whether a run reached it. An aim of which nothing was measured says so."""
from kit import stats

DEVICES = {"kernel": "`kernel`", "ebpf": "`ebpf`"}


class Results:
    """The parts of a run, by what was measured."""

    def __init__(self, results):
        self.parts = {part: [each for each in value["found"] if "skipped" not in each] for part, value in results.items()}
        self.skipped = {part: [each for each in value["found"] if "skipped" in each] for part, value in results.items()}

    def find(self, part, **wanted):
        return [each for each in self.parts.get(part, []) if self._fits(each, wanted)]

    def missed(self, part, **wanted):
        return [each for each in self.skipped.get(part, []) if self._fits(each, wanted)]

    @staticmethod
    def _fits(each, wanted):
        return all(each.get(key) in value if isinstance(value, (tuple, list, set)) else each.get(key) == value
                   for key, value in wanted.items())


def judge(results):
    """Result: rows (aim, what was measured, "reached" or "not reached" or "not measured")."""
    found, rows = Results(results), []
    for name, least, kinds in (("ebpf", 1.05, ("exact", "single", "ranges")), ("kernel", 0.72, ("exact", "single"))):
        rows.append(_flat(found, name, least, kinds))
    for count, least in ((1000, 0.58), (5000, 0.40)):
        own = found.find("forward", carrier="kernel", kind="ranges", pattern="last", nodes=count)
        rows.append(_least(f"`kernel`, several-field ranges, {count:,} rules: at least {least:.2f}", own, least))
    for name, least in (("ebpf", 0.98), ("kernel", 0.73)):
        own = found.find("forward", carrier=name, pattern="unbound", nodes=(1000, 5000, 10000))
        most = max((each["nodes"] for each in own), default=10000)
        rows.append(_least(f"{DEVICES[name]}, interface without policy, 10,000 nodes elsewhere: at least {least:.2f}",
                           [each for each in own if each["nodes"] == most], least, f" ({most:,} nodes)"))
    for name, factors in (("ebpf", {1000: 24, 5000: 100}), ("kernel", {1000: 15, 5000: 70})):
        for count, factor in factors.items():
            rows.append(_against_frr(found, name, count, factor))
    for device in DEVICES:
        rows += _applying(found, device)
        rows += _failing_over(found, device)
    rows.append(_peer_report(found))
    for device in DEVICES:
        rows += _resting(found, device)
    return rows


def _row(aim, told, reached):
    return [aim, told or "-", "not measured" if reached is None else "**reached**" if reached else "not reached"]


def _least(aim, own, least, more=""):
    values = [stats.median(each["ratios"]) for each in own]
    return _row(aim, f"{min(values):.2f}{more}" if values else None, min(values) >= least if values else None)


def _flat(found, name, least, kinds):
    aim = f"{DEVICES[name]}, {', '.join(kinds)}, 1 to 10,000 nodes: at least {least:.2f} of plain routing, flat within 10 %"
    by_row = {}
    for each in found.find("forward", carrier=name, kind=kinds, pattern="last"):
        by_row.setdefault((each["family"], each["kind"]), []).append((each["nodes"], stats.median(each["ratios"])))
    if not by_row:
        return _row(aim, None, None)
    ratios = [ratio for row in by_row.values() for _, ratio in row]
    flat = max(stats.flatness([ratio for _, ratio in row]) for row in by_row.values())
    missed = found.missed("forward", carrier=name, kind=kinds, pattern="last")
    told = f"{min(ratios):.2f} to {max(ratios):.2f}; within {flat * 100:.0f} %"
    if missed:
        told += "; without " + ", ".join(f"{count:,}" for count in sorted({each["nodes"] for each in missed})) + " nodes"
    return _row(aim, told, min(ratios) >= least and flat <= 0.10 and not missed)


def _against_frr(found, name, count, factor):
    aim = f"{DEVICES[name]} against FRR, {count:,} nodes: at least {factor} times its rate"
    own = found.find("forward", carrier=name, kind="single", pattern="last", nodes=count, family=4)
    frr = found.find("forward", carrier="frr", kind="single", pattern="last", nodes=count, family=4)
    if not own or not frr:
        return _row(aim, None, None)
    ratio = own[0]["rate"] / frr[0]["rate"]
    return _row(aim, f"{stats.three(ratio)} times", ratio >= factor)


def _kernel_time(each):
    return max(stats.median(each["seconds"]), stats.median([value or 0 for value in each["written"]]))


def _one(found, part, **wanted):
    own = found.find(part, **wanted)
    return own[0] if own else None


def _applying(found, device):
    if not found.find("apply", carrier=device):
        return [_row(f"{DEVICES[device]}, applying", None, None)]
    title, rows = DEVICES[device], []
    for count in (1000, 5000):
        aim = f"{title}, {count:,} nodes over the open socket: at most 3 times the bare writes plus 40 us a node"
        own = _one(found, "apply", carrier=device, kind="socket", nodes=count, sets="shared")
        bare = _one(found, "apply", carrier=device, kind="bare", nodes=count, sets="shared")
        if own is None or bare is None:
            rows.append(_row(aim, None, None))
            continue
        limit = 3 * stats.median(bare["seconds"]) + 40e-6 * count
        rows.append(_row(aim, f"{stats.duration(_kernel_time(own))}, of {stats.duration(limit)}", _kernel_time(own) <= limit))
    for count, limit in ((1000, 0.3), (10000, 3.0)):
        own = _one(found, "apply", carrier=device, kind="file", nodes=count, sets="different")
        rows.append(_row(f"{title}, file of {count:,} nodes with next hops of their own: at most {limit:g} s",
                         own and stats.duration(_kernel_time(own)), own and _kernel_time(own) <= limit))
    one, many = (_one(found, "apply", carrier=device, kind="single", nodes=count, sets="shared") for count in (1, 5000))
    if one and many:
        small, large = (stats.median([value or 0 for value in each["written"]]) or stats.median(each["seconds"]) for each in (one, many))
        rows.append(_row(f"{title}, one change, 5,000 nodes: at most 0.5 ms and 1.2 times that with 1",
                         f"{stats.duration(large)}, {large / small:.1f} times", large <= 0.5e-3 and large <= 1.2 * small))
    else:
        rows.append(_row(f"{title}, one change, 5,000 nodes: at most 0.5 ms and 1.2 times that with 1", None, None))
    return rows


def _failing_over(found, device):
    if not found.find("failover", carrier=device):
        return [_row(f"{DEVICES[device]}, failover", None, None)]
    title, rows = DEVICES[device], []

    def limit(aim, own, values, most, show=stats.duration):
        worst = {each["nodes"]: max(values(each)) for each in own if values(each)}
        told = ", ".join(f"{count:,}: {show(value)}" for count, value in sorted(worst.items()))
        rows.append(_row(f"{title}, {aim}", told, all(value <= most for value in worst.values()) if worst else None))

    def written(each):
        known = [value for value in each["written"] if value is not None]
        return known or [value for value in each["seconds"] if value is not None]

    def arrived(each):
        return [7.0 if value is None else value for value in each["seconds"]]

    down = found.find("failover", carrier=device, event="down", sets="shared")
    limit("link down to the last kernel change, shared sets: at most 1 ms (worst round by nodes)", down, written, 1e-3)
    limit("the same, all sets different, 1,000 nodes: at most 10 ms",
          found.find("failover", carrier=device, event="down", sets="different"), written, 10e-3)
    limit("link down, packets lost at 50 us: at most 3", down, lambda each: each["lost"], 3, show=lambda value: f"{value:,}")
    limit("link back, all on their first choice: at most 2 ms",
          found.find("failover", carrier=device, event="back", sets="shared"), written, 2e-3)
    limit("silent neighbour, defaults: at most 1 s", found.find("failover", carrier=device, event="silent"), arrived, 1.0)
    limit("silent neighbour, fastest settings: at most 100 ms", found.find("failover", carrier=device, event="silent-fast"), arrived, 0.1)
    return rows


def _peer_report(found):
    own = _one(found, "daemon", operation="peerReportOfTenNodes", records=10000)
    return _row("peer report, ten of 10,000 next hops are it: at most 10 us", own and stats.duration(stats.median(own["seconds"])),
                own and stats.median(own["seconds"]) <= 10e-6)


def _resting(found, device):
    rows = []
    for case, key, most, aim in (("probes", "cpu", 0.002, "ten next hops probed each 100 ms: at most 0.2 % of a processor"),
                                 ("idle", "resident", 12 * 2**20, "resident memory, default limits: at most 12 MiB"),
                                 ("large", "resident", 40 * 2**20, "resident memory, 10,000 nodes: at most 40 MiB")):
        own = _one(found, "idle", carrier=device, case=case)
        told = own and (f"{own['cpu'] * 100:.2f} %" if key == "cpu" else f"{own['resident'] / 2**20:.1f} MiB")
        rows.append(_row(f"{DEVICES[device]}, {aim}", told, own and own[key] <= most))
    return rows


def section(results):
    """Lines of the report."""
    rows = judge(results)
    some = [row for row in rows if row[2] != "not measured"]
    left = [row[0] for row in rows if row[2] == "not measured"]
    lines = ["## Aims", "", f"{sum(row[2] == '**reached**' for row in some)} of {len(some)} reached in this run. Worst of what was "
             "measured, unless it says otherwise.", ""] + stats.table(["aim", "measured", ""], some)
    return lines + (["", "Not measured: " + "; ".join(left) + "."] if left else [])
