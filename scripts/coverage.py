#!/usr/bin/env python3
"""Prints line and branch coverage of each folder from a gcovr JSON report and checks it.

usage: coverage.py REPORT.json UNCOVERED.txt

UNCOVERED.txt gives a reason for each source line that no test reaches: `FILE: source text # reason`. The
text stands for the line, so that edits elsewhere do not move it. A line without a reason, and a reason
whose line is reached or gone, fail the check.
"""
import json
import sys

LEAST_LINES, LEAST_BRANCHES = 97.0, 90.0


def main():
    report, reasons_file = sys.argv[1:]
    with open(report, encoding="utf-8") as stream:
        files = json.load(stream)["files"]
    reasons = read_reasons(reasons_file)

    totals, problems, used = {}, [], set()
    partial = []
    for entry in sorted(files, key=lambda f: f["file"]):
        path = entry["file"]
        with open(path, encoding="utf-8") as stream:
            text = stream.read().splitlines()
        folder = totals.setdefault(path.split("/")[0], [0, 0, 0, 0])
        for line in entry["lines"]:
            if line.get("gcovr/noncode"):
                continue
            source = text[line["line_number"] - 1].strip()
            folder[0] += 1
            folder[1] += line["count"] > 0
            taken = [branch["count"] > 0 for branch in line["branches"]]
            folder[2] += len(taken)
            folder[3] += sum(taken)
            if line["count"] == 0:
                key = (path, source)
                if key not in reasons:
                    problems.append(f"{path}:{line['line_number']}: not reached, no reason given: {source}")
                else:
                    used.add(key)
                    print(f"{path}:{line['line_number']}: not reached: {source}  ({reasons[key]})")
            elif not all(taken):
                partial.append(f"{path}:{line['line_number']}: {sum(taken)} of {len(taken)} branches: {source}")
    problems += [f"{reasons_file}: {path}: reached or gone: {source}" for path, source in reasons if (path, source) not in used]

    if partial:
        print("\nLines with branches not taken:")
        print("\n".join(partial))
    print(f"\n{'folder':10} {'lines':>7} {'reached':>8} {'branches':>9} {'taken':>8}")
    whole = [sum(column) for column in zip(*totals.values())]
    for name, figures in [*sorted(totals.items()), ("all", whole)]:
        print(f"{name:10} {figures[0]:7} {percent(figures[1], figures[0]):7.1f}% {figures[2]:9} {percent(figures[3], figures[2]):7.1f}%")
    if percent(whole[1], whole[0]) < LEAST_LINES:
        problems.append(f"fewer than {LEAST_LINES} % of the lines are reached")
    if percent(whole[3], whole[2]) < LEAST_BRANCHES:
        problems.append(f"fewer than {LEAST_BRANCHES} % of the branches are taken")
    print("\n".join(problems), file=sys.stderr)
    return 1 if problems else 0


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def read_reasons(path):
    reasons = {}
    with open(path, encoding="utf-8") as stream:
        for row in stream:
            if row.strip() and not row.startswith("#"):
                place, reason = row.rstrip("\n").rsplit(" # ", 1)
                file, source = place.split(": ", 1)
                reasons[file, source.strip()] = reason
    return reasons


if __name__ == "__main__":
    sys.exit(main())
