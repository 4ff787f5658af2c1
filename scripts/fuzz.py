#!/usr/bin/env python3
"""Runs the fuzzers of a build and prints what they did. Called by scripts/fuzz.sh.

    scripts/fuzz.py BUILD [SECONDS] [FUZZER ...]

Two run at a time. When the number of fuzzers is odd, the last one runs in both places for half the time, so that
neither stands idle. The last line counts fuzzers: a finding, or one that executed nothing, is a failure. Exit status 1
when there was one."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading

ROOT = pathlib.Path(__file__).resolve().parent.parent
LONGEST_INPUT = {"management": 8192, "policy_file": 8192, "journal": 16384, "kernel_answers": 16384}
SLOW_SECONDS = 10  # an input that takes longer is a finding
PLACES = 2


def folders(build, name):
    """The corpus that grows, and the seeds."""
    grown = build / "corpus" / name
    grown.mkdir(parents=True, exist_ok=True)
    seeds = [ROOT / "fuzz" / "corpus" / name, build / "seeds" / name]
    return [str(each) for each in [grown] + seeds if each.is_dir()]


class Run:
    """One process of a fuzzer: executions, edges reached, findings (inputs kept)."""

    def __init__(self, build, name, seconds, number=0):
        self.build, self.name, self.seconds, self.number = build, name, seconds, number
        self.executions = self.edges = 0
        self.status = None
        self.findings = []

    def __call__(self):
        kept = self.build / "findings" / self.name
        kept.mkdir(parents=True, exist_ok=True)
        log = self.build / f"{self.name}-{self.number}.log"
        before = set(kept.iterdir())
        command = [str(self.build / "fuzz" / f"fuzz_{self.name}"), *folders(self.build, self.name),
                   f"-max_total_time={self.seconds}", f"-timeout={SLOW_SECONDS}", "-rss_limit_mb=3000", "-print_final_stats=1",
                   f"-max_len={LONGEST_INPUT.get(self.name, 4096)}", f"-artifact_prefix={kept}/", "-reload=0",
                   f"-dict={ROOT / 'fuzz' / (self.name + '.dict')}"]
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None  # no waiting for a disk
        with open(log, "wb") as out, tempfile.TemporaryDirectory(dir=memory) as folder:
            self.status = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=out, cwd=self.build, check=False,
                                         env=dict(os.environ, TMPDIR=folder)).returncode
        text = log.read_text(errors="replace")
        executed = re.findall(r"stat::number_of_executed_units:\s*(\d+)", text) or re.findall(r"^#(\d+)\t", text, re.M)
        self.executions = int(executed[-1]) if executed else 0
        self.edges = max((int(each) for each in re.findall(r" cov: (\d+)", text)), default=0)
        self.findings = sorted(set(kept.iterdir()) - before)
        if self.status != 0:
            print(f"== {self.name}: ended with {self.status}; {log} has all of it\n" + "\n".join(text.splitlines()[-25:]), flush=True)


def lanes(build, names, seconds):
    """The runs of each place, of the same length altogether."""
    places = [[Run(build, name, seconds) for name in names[place::PLACES]] for place in range(PLACES)]
    if len(names) % PLACES:
        places[0].pop()
        for place in range(PLACES):
            places[place].append(Run(build, names[-1], max(seconds // PLACES, 1), place))
    return places


def table(names, runs):
    print(f"{'fuzzer':16} {'seconds':>8} {'executions':>12} {'exec/s':>8} {'edges':>7} {'corpus':>7} {'findings':>9}")
    for name in names:
        own = [run for run in runs if run.name == name]
        executions, seconds = sum(run.executions for run in own), sum(run.seconds for run in own)
        grown = len(list((own[0].build / "corpus" / name).iterdir()))
        print(f"{name:16} {seconds:8} {executions:12} {executions // max(seconds, 1):8} {max(run.edges for run in own):7} {grown:7} "
              f"{sum(run.status != 0 for run in own):9}")


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    arguments = sys.argv[2:]
    seconds = int(arguments.pop(0)) if arguments and arguments[0].isdigit() else 60
    all_names = sorted(path.stem for path in (ROOT / "fuzz").glob("*.dict"))
    names = arguments or all_names
    unknown = sorted(set(names) - set(all_names))
    if unknown:
        sys.exit(f"fuzz: no fuzzer {', '.join(unknown)}; there are {', '.join(all_names)}")
    subprocess.run([sys.executable, str(ROOT / "fuzz" / "seeds.py"), str(build / "seeds")], check=True)
    places = lanes(build, names, seconds)
    threads = [threading.Thread(target=lambda own=own: [run() for run in own]) for own in places]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    runs = [run for own in places for run in own]
    table(names, runs)
    for run in runs:
        for path in run.findings:
            print(f"finding: {path.relative_to(ROOT) if path.is_relative_to(ROOT) else path}")
    failed = {run.name for run in runs if run.status != 0 or run.executions == 0}
    print(f"{len(names) - len(failed)} passed, {len(failed)} failed")
    sys.exit(bool(failed))


main()
