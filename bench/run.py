#!/usr/bin/env python3
"""All benchmarks, or some, and the report about them. scripts/bench.sh calls this after it has built what is measured.

    bench/run.py [--quick | --smoke] [--part forward,...] [--device kernel,ebpf] [--no-frr] [--cpu N] [--folder DIR] [--docs]

Results are written to DIR/results.json after each part (DIR: build/bench/full, .../quick or .../smoke), and parts of an
earlier run stay there until they are measured again, so that one part can be repeated. DIR/report.md and its pictures are
made of it; --docs also puts them into docs/performance.md. Run as root: packets are made by a BPF program.
"""
import argparse
import json
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from kit import apply, carriers, daemon, failover, forward, frr, idle, lab, report  # noqa: E402

PARTS = ("forward", "failover", "apply", "daemon", "idle")


def say(text):
    print(text, file=sys.stderr, flush=True)


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    pace = parser.add_mutually_exclusive_group()
    pace.add_argument("--quick", dest="pace", action="store_const", const="quick", default="full", help="some minutes")
    pace.add_argument("--smoke", dest="pace", action="store_const", const="smoke", help="some seconds: does it work at all?")
    parser.add_argument("--part", default=",".join(PARTS), help="which: " + ", ".join(PARTS))
    parser.add_argument("--device", default="kernel,ebpf", help="devices of policyrouted; what this build does not have is left out")
    parser.add_argument("--no-frr", action="store_true", help="without FRR's pbrd")
    parser.add_argument("--cpu", type=int, default=(os.cpu_count() or 1) - 1, help="processor of the packets")
    parser.add_argument("--folder", help="where results and report go")
    parser.add_argument("--docs", action="store_true")
    given = parser.parse_args()
    given.folder = given.folder or os.path.join(lab.ROOT, "build", "bench", given.pace)
    unknown = set(given.part.split(",")) - set(PARTS)
    if unknown:
        parser.error("no such part: " + ", ".join(sorted(unknown)))
    return given


def peers(given):
    """What is measured, and what is left out with the reason."""
    carried, left_out = [], {}
    for device in given.device.split(","):
        carrier = carriers.Policyroute(device)
        why = carrier.missing()
        if why:
            left_out[carrier.title] = why
            carrier.close()
        else:
            carried.append(carrier)
    why = "not wanted" if given.no_frr else os.environ.get("BENCH_NO_FRR")
    if why:
        left_out["FRR pbrd"] = why
    else:
        carried.append(frr.Frr())
    return carried, left_out


def machine(left_out, given):
    """Where and when it was measured."""
    with open("/proc/cpuinfo") as file:
        model = next((line.split(":", 1)[1].strip() for line in file if line.startswith("model name")), "unknown")
    revision = subprocess.run(["git", "-C", lab.ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True)
    return {"when": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()), "processors": os.cpu_count(), "model": model,
            "kernel": os.uname().release, "load": os.getloadavg()[0], "revision": revision.stdout.strip() or "unknown",
            "left_out": left_out, "frr": None if "FRR pbrd" in left_out else frr.version(), "pace": given.pace}


def measure(part, carried, given):
    if part == "forward":
        bench = forward.Forwarding(carried, getattr(forward, given.pace)(), given.cpu, say)
        try:
            return bench.run()
        finally:
            bench.close()
    if part == "failover":
        return failover.Failover(carried, getattr(failover, given.pace)(), say).run()
    if part == "apply":
        bench = apply.Apply(carried, getattr(apply, given.pace)(), say)
        try:
            return bench.run()
        finally:
            bench.close()
    if part == "daemon":
        return daemon.run(given.pace, say)
    if part == "idle":
        return idle.Idle([each for each in carried if isinstance(each, carriers.Policyroute)], given.pace, say).run()
    raise AssertionError(part)


def main():
    given = arguments()
    if os.geteuid() != 0:
        sys.exit("bench: root is needed: packets are made by a BPF program")
    if "NETLAB_PRIVATE" not in os.environ:
        why = None if given.no_frr else frr.fetch()  # before the machine's /run is out of sight
        if why:
            os.environ["BENCH_NO_FRR"] = why
        lab.netlab.enter_private()
    else:
        lab.netlab.enter_private()
    os.makedirs(given.folder, exist_ok=True)
    path = os.path.join(given.folder, "results.json")
    results = {}
    if os.path.exists(path):
        with open(path) as file:
            results = json.load(file)
    carried, left_out = peers(given)
    try:
        for name, why in left_out.items():
            say(f"left out: {name}: {why}")
        for part in given.part.split(","):
            say(f"== {part}")
            begin = time.monotonic()
            found = measure(part, carried, given)
            results[part] = {"machine": machine(left_out, given), "found": found, "took": time.monotonic() - begin}
            with open(path, "w") as file:
                json.dump(results, file, indent=1)
    finally:
        for carrier in carried:
            carrier.close()
    report.write(results, given.folder, os.path.join(lab.ROOT, "docs") if given.docs else None)
    print(os.path.join(given.folder, "report.md"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
