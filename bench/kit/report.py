"""From results to Markdown: report.md with its pictures, and the same between the marks of docs/performance.md."""
import os

from kit import aims, idle, plot, policies, stats
from kit.apply import KINDS
from kit.failover import EVENTS
from kit.forward import PATTERNS

BEGIN, END = "<!-- report: begin (written by scripts/bench.sh --docs) -->", "<!-- report: end -->"
TITLES = {"kernel": "`kernel` device", "ebpf": "`ebpf` device", "frr": "FRR pbrd"}


def write(results, folder, docs):
    for place, prefix in ((folder, ""),) + (((docs, "performance-"),) if docs else ()):
        text, pictures = compose(results, prefix)
        for name, picture in pictures.items():
            with open(os.path.join(place, name), "w") as file:
                file.write(picture)
        if place == folder:
            with open(os.path.join(folder, "report.md"), "w") as file:
                file.write(text)
        else:
            insert(os.path.join(docs, "performance.md"), text)


def insert(path, text):
    with open(path) as file:
        page = file.read()
    before, rest = page.split(BEGIN, 1)
    with open(path, "w") as file:
        file.write(before + BEGIN + "\n" + text + END + rest.split(END, 1)[1])


def compose(results, prefix):
    """Result: the text, and pictures by file name."""
    lines, pictures = aims.section(results) + [""], {}
    sections = {"forward": forwarding, "failover": failing_over, "apply": applying, "daemon": operations, "idle": idling}
    for part, section in sections.items():
        if part in results:
            lines += section(results[part], prefix, pictures) + [""]
    return "\n".join(lines), pictures


def where(part):
    machine = part["machine"]
    lines = [f"*{machine['when']}, {machine['pace']} run of {part['took'] / 60:.0f} minutes, revision {machine['revision']}; "
             f"{machine['processors']} processors ({machine['model']}), Linux {machine['kernel']}, load {machine['load']:.1f} at the end"
             + (f"; {machine['frr']}" if machine["frr"] else "") + ".*"]
    return lines + [f"*Left out: {name}: {why}.*" for name, why in machine["left_out"].items()]


def forwarding(part, prefix, pictures):
    found = part["found"]
    lines = ["## Forwarding", ""] + where(part)
    plain = {family: [each["plain"] for each in found if each["family"] == family and "plain" in each] for family in (4, 6)}
    lines += ["", "Plain routing: " + ", ".join(f"IPv{family} {stats.three(stats.median(values) / 1e6)} million packets per "
              f"second of processor time ({stats.three(min(values) / 1e6)} to {stats.three(max(values) / 1e6)})"
              for family, values in plain.items() if values) + ". Cells: median ratio to plain routing (least to most)."]
    for family in (4, 6):
        for kind, title in policies.KINDS.items():
            rows = [each for each in found if (each["family"], each["kind"]) == (family, kind)]
            if not rows:
                continue
            lines += ["", f"### IPv{family}: {title}", ""] + ratio_table(rows)
            lines += reasons(rows)
            curves = {}
            for each in rows:
                if each["pattern"] == "last" and "ratios" in each:
                    curves.setdefault(TITLES.get(each["carrier"], each["carrier"]).replace("`", ""), []).append(
                        (each["nodes"], stats.median(each["ratios"])))
            if family == 4 and curves and len({n for curve in curves.values() for n, _ in curve}) > 1:
                name = f"{prefix}{kind}.svg"
                pictures[name] = plot.svg(f"Forwarded, of plain routing: {title}", curves, "ratio, matching entry last")
                lines += ["", f"![Ratio to plain routing against the number of nodes]({name})"]
    return lines


def ratio_table(rows):
    sizes = sorted({each["nodes"] for each in rows})
    cells = {(each["carrier"], each["pattern"], each["nodes"]): each for each in rows}
    table = []
    for pattern, title in PATTERNS.items():
        for carrier in dict.fromkeys(each["carrier"] for each in rows):
            own = [cells.get((carrier, pattern, n)) for n in sizes]
            if not any(each and "ratios" in each for each in own):
                continue
            medians = [stats.median(each["ratios"]) for each in own if each and "ratios" in each]
            table.append([f"{TITLES.get(carrier, carrier)}, {title}"] + [cell(each) for each in own] +
                         [f"{stats.flatness(medians) * 100:.0f} %" if len(medians) > 1 else ""])
        for carrier in ("kernel", "ebpf"):
            pairs = [(cells.get((carrier, pattern, n)), cells.get(("frr", pattern, n))) for n in sizes]
            if any(a and b and "rate" in a and "rate" in b for a, b in pairs):
                table.append([f"*{TITLES[carrier]} : FRR, {title}*"] + [
                    f"*{stats.three(a['rate'] / b['rate'])}*" if a and b and "rate" in a and "rate" in b else "" for a, b in pairs] + [""])
    return stats.table(["nodes"] + [f"{n:,}" for n in sizes] + ["spread over N"], table)


def cell(each):
    if each is None:
        return ""
    if "ratios" not in each:
        return "-"
    ratios = each["ratios"]
    return f"{number(stats.median(ratios))} ({number(min(ratios))} to {number(max(ratios))})"


def number(ratio):
    return f"{ratio:.2f}" if ratio >= 0.1 else f"{ratio:.3f}"


def failing_over(part, _prefix, _pictures):
    found = part["found"]
    rows = []
    for event, title in EVENTS.items():
        for each in found:
            if each["event"] == event and "seconds" in each:
                carrier = TITLES.get(each["carrier"], each["carrier"])
                rows.append([title, carrier, f"{each['nodes']:,}", each["sets"],
                             spans(each["seconds"], "never"), spans(each["written"], "nothing seen"),
                             f"{stats.median(each['lost']):,.0f} (most {max(each['lost']):,})",
                             f"{stats.median(each['other']):,.0f}", f"{each['interval']:,} us"])
    return ["## Failover", ""] + where(part) + [
        "", "Median and most of the rounds, from the kernel's notice of a link (else from the moment that the next hop falls silent or "
        "is cut off) until packets arrive by the second choice, or after *back* by the first one; of FRR's, by the routing table's "
        "way. *Other* packets arrived by neither: while the daemon was not there yet, the kernel routed them as usual.", ""] + stats.table(
        ["event", "with", "nodes", "sets of next hops", "packets change their way after", "last change in the kernel after",
         "lost", "other", "packets each"], rows) + reasons([each for each in found if "skipped" in each])


def applying(part, _prefix, _pictures):
    found = [each for each in part["found"] if "seconds" in each]
    lines = ["## Applying", ""] + where(part) + [
        "", "Medians: until it is answered / until the last change in the kernel. *Only the kernel's writes* is a loop that sends again "
        "what the daemon had sent for the file, byte by byte, and waits for nothing else. FRR's rows: its shell with a file, and "
        "its own socket; its rules only."]
    sizes = list(dict.fromkeys((each["nodes"], each["sets"]) for each in found))
    cells = {(each["carrier"], each["kind"], each["nodes"], each["sets"]): each for each in found}
    for carrier in dict.fromkeys(each["carrier"] for each in found):
        rows = []
        for kind, title in KINDS.items():
            own = [cells.get((carrier, kind, *size)) for size in sizes]
            if any(own):
                rows.append([title] + [both(each) for each in own])
        pairs = [(cells.get((carrier, "socket", *size)), cells.get((carrier, "bare", *size))) for size in sizes]
        if any(a and b for a, b in pairs):
            rows.append(["*open sockets : only the kernel's writes*"] + [f"*{until_kernel(a) / until_kernel(b):.1f}*" if a and b else ""
                                                                         for a, b in pairs])
        exponents = [f"{title}: {growth:.2f}" for kind, title in KINDS.items() if (growth := stats.growth(
            [(n, until_kernel(cells[carrier, kind, n, sets])) for n, sets in sizes
             if sets == "shared" and n >= 1000 and (carrier, kind, n, sets) in cells])) is not None]
        lines += ["", f"### {TITLES.get(carrier, carrier)}", ""] + stats.table(
            ["nodes, sets of next hops"] + [f"{n:,} {sets}" for n, sets in sizes], rows)
        if exponents:
            lines += ["", "Growth from 1,000 nodes on (time ~ N^e): " + "; ".join(exponents) + "."]
    return lines + reasons([each for each in part["found"] if "skipped" in each])


OPERATIONS = {
    "peerReportOfOneNode": "peer report, one next hop is it",
    "peerReportOfTenNodes": "peer report, ten next hops are it",
    "peerReportOfAStranger": "peer report, none is it",
    "updateRunWithOneChange": "update run with one change",
    "redirectViewOfTheList": "view of a bound list",
    "listLookUp": "list look-up, the last",
    "nodeLookUp": "node look-up, the last",
    "aclInUseCheck": "ACL-in-use check, not used",
    "nqaUseCheck": "probe-use check, not used",
    "nodeGet": "node get, the last",
    "nodeSet": "node set, the last",
    "nextHopGet": "next-hop get, the last",
    "nodeWalkStep": "step of a walk, to the last",
}


def operations(part, _prefix, _pictures):
    sizes = sorted({each["records"] for each in part["found"]})
    cells = {(each["operation"], each["records"]): stats.median(each["seconds"]) for each in part["found"]}
    rows = []
    for operation in dict.fromkeys(each["operation"] for each in part["found"]):
        own = [(n, cells[operation, n]) for n in sizes if (operation, n) in cells]
        growth = stats.growth([(n, time) for n, time in own if n >= 1000])
        rows.append([OPERATIONS.get(operation, operation)] + [
            nanoseconds(cells[operation, n]) if (operation, n) in cells else "" for n in sizes] +
            ["" if growth is None else f"{growth:.2f}"])
    return ["## The daemon's own operations", ""] + where(part) + [
        "", "Processor time of one operation by the number of nodes (of lists for list look-ups), each with two next hops, on the fake "
        "platform; medians. The exponent e is that of the best fit time ~ N^e from 1,000 on.", ""] + stats.table(
        ["operation"] + [f"{n:,}" for n in sizes] + ["e"], rows)


def idling(part, _prefix, _pictures):
    return ["## At rest", ""] + where(part) + [""] + idle.section(part["found"], TITLES) + \
        reasons([each for each in part["found"] if "skipped" in each])


def nanoseconds(seconds):
    return f"{stats.three(seconds * 1e9)} ns" if seconds < 1e-6 else stats.duration(seconds)


def until_kernel(each):
    """Until the kernel has it, or until it is answered where no change is seen."""
    return max(stats.median(each["seconds"]), stats.median([value or 0 for value in each["written"]]))


def both(each):
    if each is None:
        return ""
    written = [value for value in each["written"] if value is not None]
    text = stats.duration(stats.median(each["seconds"]))
    return f"{text} / {stats.duration(stats.median(written))}" if written and each["kind"] != "bare" else text


def spans(values, otherwise):
    known = [value for value in values if value is not None]
    if not known:
        return otherwise
    text = f"{stats.duration(stats.median(known))} ({stats.duration(max(known))})"
    return text if len(known) == len(values) else f"{text}; {len(values) - len(known)} of {len(values)}: {otherwise}"


def reasons(rows):
    """Why there is a dash, each reason once."""
    def line(each):
        event = f", {EVENTS[each['event']]}" if "event" in each else ""
        return f"{TITLES.get(each['carrier'], each['carrier'])}{event}: {' '.join(each['skipped'].split())[:200]}"

    told = dict.fromkeys(line(each) for each in rows if "skipped" in each)
    return [""] + ["- " + reason for reason in told] if told else []
