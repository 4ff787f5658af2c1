#!/usr/bin/env bash
# Lets clang check who holds the daemon's mutex: every source of the daemon and the host that sees one of the words of
# platform/thread_safety.h. Prints every finding; exit status 1 when there is one.
#   scripts/check-thread-safety.sh [FILE ...]     default: all of them
set -euo pipefail
cd "$(dirname "$0")/.."

# The sources that include the words, directly or through others.
sources() {
  python3 - <<'PY'
import functools
import pathlib
import re


@functools.cache
def includes(path):
    found = re.findall(r'^\s*#\s*include\s*"([^"]+)"', pathlib.Path(path).read_text(), re.M)
    return [name for name in found if pathlib.Path(name).exists()]


def sees(path, done):
    done.add(path)
    return any(name == "platform/thread_safety.h" or (name not in done and sees(name, done)) for name in includes(path))


for folder in ("core", "store", "rtmsg", "nexthop", "hw", "api", "host"):
    for path in sorted(pathlib.Path(folder).rglob("*.cpp")):
        if sees(str(path), set()):
            print(path)
PY
}

# Made by the build; what it says does not matter here.
generated=$(mktemp -d)
trap 'rm -rf "$generated"' EXIT
echo 'constexpr const char *POLICYROUTE_VERSION = "";' >"$generated/policyroute_version.h"

files=("$@")
((${#files[@]})) || mapfile -t files < <(sources)
printf '%s\n' "${files[@]}" |
  xargs -P "$(nproc)" -n 1 clang++ -std=gnu++20 -fsyntax-only -I. -I"$generated" -Wthread-safety -Werror=thread-safety \
    -Wno-missing-field-initializers || exit 1
echo "${#files[@]} sources: the daemon's mutex is held where it must be"
