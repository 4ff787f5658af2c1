#!/usr/bin/env python3
"""Keeps what fuzzers found: of all inputs of a fuzzer the few that reach every edge which all of them reach, the small ones
first, become the lines of fuzz/found/NAME.txt.

    scripts/fuzz-keep.py BUILD [FOLDER ...] [--only NAME ...]

FOLDER: the corpora of other runs, such as /tmp/elsewhere/build/fuzz/corpus; those of BUILD and the seeds are taken too. An
input that is a finding now is left out, and so is one of more than 3000 bytes."""
import base64
import os
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
MOST_BYTES, MOST_OF_ALL = 3000, 140000  # of an input; of a file's inputs: less than 200 kB in Base64


def merged(build, name, folders):
    """The inputs that are enough, in any order."""
    with tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as folder:
        target = pathlib.Path(folder) / "merged"
        target.mkdir()
        words = [str(build / "fuzz" / f"fuzz_{name}"), "-merge=1", "-use_counters=0", f"-max_len={MOST_BYTES}", "-timeout=20",
                 "-rss_limit_mb=3000", f"-artifact_prefix={folder}/", str(target), *map(str, folders)]
        subprocess.run(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False, cwd=folder,
                       env=dict(os.environ, TMPDIR=folder))
        return sorted((path.read_bytes() for path in target.iterdir()), key=lambda data: (len(data), data))


def main():
    words = sys.argv[1:]
    only = words[words.index("--only") + 1:] if "--only" in words else None
    words = words[:words.index("--only")] if only else words
    build, others = pathlib.Path(words[0]).resolve(), [pathlib.Path(word) for word in words[1:]]
    for name in only or sorted(path.stem for path in (ROOT / "fuzz").glob("*.dict")):
        folders = [ROOT / "fuzz" / "corpus" / name, build / "seeds" / name, build / "corpus" / name] + [other / name for other in others]
        kept, total = [], 0
        for data in merged(build, name, [folder for folder in folders if folder.is_dir()]):
            total += len(data)
            if data and total <= MOST_OF_ALL:
                kept.append(base64.b64encode(data).decode())
        target = ROOT / "fuzz" / "found" / f"{name}.txt"
        target.parent.mkdir(exist_ok=True)
        target.write_text("".join(line + "\n" for line in kept))
        print(f"{name:16} {len(kept):5} inputs, {target.stat().st_size:7} bytes", flush=True)


main()
