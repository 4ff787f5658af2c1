#!/usr/bin/env python3
"""Packets lost, in one table: what happens to a policy, how many packets of a stream with 1 ms between them are
lost over it, the longest time without a packet, and how many took neither the way before nor the way after.

    bench/losses.py [CASE ...]        default: all; -l lists them
"""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import loss_cases  # noqa: E402
import netlab  # noqa: E402


def main():
    if "-l" in sys.argv[1:]:
        print("\n".join(f"{key:16} {case.name}" for key, case in loss_cases.CASES.items()))
        return 0
    unknown = [key for key in sys.argv[1:] if key not in loss_cases.CASES]
    if unknown:
        print(f"unknown: {', '.join(unknown)}; -l lists the cases", file=sys.stderr)
        return 2
    netlab.enter_private()
    lab = netlab.Lab()
    loss_cases.prepare(lab)
    broken = []
    print("| case | IP | sent | lost | longest gap, ms | other way | what decides it |\n|---|---|---|---|---|---|---|")
    for key in sys.argv[1:] or loss_cases.CASES:
        case = loss_cases.CASES[key]
        loss_cases.speed(1000 if case.slow else 100)
        daemon = netlab.Daemon(options=() if case.slow else loss_cases.FAST).start()
        try:
            for family, result in loss_cases.Stage(lab, daemon).play(case).items():
                if case.promised and result["lost"]:
                    broken.append(f"{case.name}, IPv{family}: {result['lost']} lost")
                print(f"| {case.name if family == 4 else ''} | {family} | {result['sent']} | {result['lost']} | "
                      f"{result['outage'] * 1000:.1f} | {result['other']} | {case.decides if family == 4 else ''} |", flush=True)
            daemon.ctl("device", "flush")
        finally:
            daemon.close()
    for line in broken:
        print("promised are 0: " + line, file=sys.stderr)
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
