#!/usr/bin/env python3
"""Kills the daemon with signal 9 at random moments of random work, starts it again each time, and compares.

    scripts/kill-tests.py [KILLS [SEED]]        default: 1000 and a seed that is printed

POLICYROUTE_BUILD names the build folder (build/release). Ends with 1 when something differed.
"""
import os
import random
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import kill_storm  # noqa: E402
import netlab  # noqa: E402


def main():
    netlab.enter_private()
    numbers = [int(word) for word in sys.argv[1:]]
    kills, seed = numbers + [1000, random.randrange(1 << 30)][len(numbers):]
    print(f"seed {seed}", flush=True)
    storm = kill_storm.Storm(kills, seed)
    try:
        storm.blow(lambda count: print(f"{count} kills, {len(storm.faults)} faults", flush=True) if count % 50 == 0 else None)
    finally:
        storm.close()
    print("| what | found |\n|---|---|")
    for name, value in storm.head().items():
        print(f"| {name} | {value} |")
    print(f"| faults | {len(storm.faults)} |")
    for fault in storm.faults[:40]:
        print("fault: " + fault, file=sys.stderr)
    return 1 if storm.faults else 0


if __name__ == "__main__":
    sys.exit(main())
