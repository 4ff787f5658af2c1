#!/usr/bin/env python3
"""64 clients with mixed commands beside an event storm and clients that misbehave: every answer right, nobody held up,
memory and descriptors constant.

    bench/soak.py [MINUTES [SEED]]        default: 10 and a seed that is printed
"""
import os
import random
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import netlab  # noqa: E402
import soak  # noqa: E402


def main():
    netlab.enter_private()
    words = sys.argv[1:]
    minutes = float(words[0]) if words else 10.0
    seed = int(words[1]) if len(words) > 1 else random.randrange(1 << 20)
    print(f"seed {seed}", flush=True)
    one = soak.Soak(minutes * 60, seed)
    try:
        one.blow()
        print("| what | found |\n|---|---|")
        for name, value in one.head().items():
            print(f"| {name} | {value} |")
        print(f"| faults | {len(one.faults)} |")
    finally:
        for fault in one.faults[:40]:
            print("fault: " + fault, file=sys.stderr)
        one.close()
    return 1 if one.faults else 0


if __name__ == "__main__":
    sys.exit(main())
