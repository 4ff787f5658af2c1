#!/usr/bin/env python3
"""Next hops that come and go at random while packets flow and the policy is applied again each second; when it is
quiet, store, device, kernel and the packets that arrive must agree with what is true.

    bench/flap_storm.py [SECONDS [NEXT-HOPS [SEED]]]        default: 60 200 and a seed that is printed

STORM_LOG=FILE keeps what the daemon logged.
"""
import os
import random
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import flap_storm  # noqa: E402
import netlab  # noqa: E402


def main():
    netlab.enter_private()
    numbers = [int(word) for word in sys.argv[1:]]
    seconds, count, seed = numbers + [60, 200, random.randrange(1 << 30)][len(numbers):]
    storm = flap_storm.Storm(seconds, count, seed)
    try:
        print(f"seed {seed}", flush=True)
        storm.blow()
        storm.settle()
        faults = storm.check()
        print("| what | found |\n|---|---|")
        for name, value in storm.head().items():
            print(f"| {name} | {value} |")
        print(f"| faults | {len(faults)} |")
        for fault in faults[:40]:
            print("fault: " + fault, file=sys.stderr)
        if "STORM_LOG" in os.environ:
            with open(os.environ["STORM_LOG"], "w") as file:
                file.writelines(storm.daemon.errors)
    finally:
        storm.close()
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
