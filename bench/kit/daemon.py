"""The daemon's own operations on the fake platform: what daemon_bench tells, as times by number of records."""
import json
import subprocess

from kit.lab import Broken, program


def run(pace, say):
    """Result: list of {"operation", "records", "seconds"}; seconds of processor time, medians of the repetitions."""
    seconds, repetitions = {"full": (0.2, 3), "quick": (0.03, 3), "smoke": (0.001, 1)}[pace]
    words = [program("bench/daemon_bench"), "--benchmark_format=json", f"--benchmark_min_time={seconds}",
             f"--benchmark_repetitions={repetitions}"]
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode:
        raise Broken("daemon_bench: " + done.stderr.strip())
    times = {}
    for each in json.loads(done.stdout)["benchmarks"]:
        if each.get("run_type") != "iteration":
            continue
        if each.get("error_occurred"):
            raise Broken(f"{each['name']}: {each['error_message']}")
        operation, records = each["name"].split("/")[:2]
        factor = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[each["time_unit"]]
        times.setdefault((operation, int(records)), []).append(each["cpu_time"] * factor)
    found = [dict(operation=operation, records=records, seconds=values) for (operation, records), values in times.items()]
    say(f"  {len(found)} measured")
    return found
