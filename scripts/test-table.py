#!/usr/bin/env python3
"""Prints what the last test runs of the presets did, as a table: suites, tests in them, seconds.

    scripts/test-table.py [PRESET ...]      default: every preset that has run tests

Reads the reports that ctest leaves in build/PRESET. Counts are of tests that ran; skipped ones stand behind a plus."""
import pathlib
import re
import sys

BUILD = pathlib.Path(__file__).resolve().parent.parent / "build"


class Suite:
    """One entry of ctest: how many tests ran and were skipped, seconds, and whether it passed."""

    def __init__(self, text):
        skipped = re.search(r"\(.*?skipped=(\d+)", text)
        python = re.search(r"^Ran (\d+) tests? in", text, re.M)
        google = re.search(r"^\[=+\] (\d+) tests? from \d+ test suites? ran", text, re.M)
        listed = len(set(re.findall(r"^\[  SKIPPED \] (\S+?)(?: \(|$)", text, re.M)))
        self.skipped = int(skipped.group(1)) if skipped else listed
        found = python or google
        self.ran = int(found.group(1)) - self.skipped if found else 1
        self.seconds = float(re.search(r"^Test time = +([\d.]+) sec", text, re.M).group(1))
        self.passed = "\nTest Passed." in text

    def __str__(self):
        more = f"+{self.skipped}" if self.skipped else ""
        return f"{self.ran}{more}{'' if self.passed else ' FAILED'}, {self.seconds:.1f} s"


def suites(preset):
    report = (BUILD / preset / "Testing" / "Temporary" / "LastTest.log").read_text(errors="replace")
    parts = re.split(r"^\d+/\d+ Testing: (\S+)$", report, flags=re.M)
    return {name: Suite(text) for name, text in zip(parts[1::2], parts[2::2])}


def main():
    presets = sys.argv[1:] or sorted(each.parent.parent.parent.name for each in BUILD.glob("*/Testing/Temporary/LastTest.log"))
    try:
        found = {preset: suites(preset) for preset in presets}
    except OSError as missing:
        sys.exit(f"test-table: {missing}: run scripts/test.sh first")
    names = sorted(set().union(*found.values()))
    if not names:
        sys.exit("test-table: no preset has run tests: run scripts/test.sh first")
    print("| suite | " + " | ".join(presets) + " |\n|---|" + "---|" * len(presets))
    for name in names:
        print(f"| {name} | " + " | ".join(str(found[preset].get(name, "")) for preset in presets) + " |")
    totals = [f"{sum(each.ran for each in one.values())} tests of {len(one)} suites, "
              f"{sum(each.seconds for each in one.values()):.0f} s" for one in found.values()]
    print("| all | " + " | ".join(totals) + " |")


if __name__ == "__main__":
    main()
