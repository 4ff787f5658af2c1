#!/usr/bin/env bash
# Runs the static checks: clang-tidy (.clang-tidy), cppcheck, shellcheck, pyflakes, layers and walls
# (check-house.py), and the form of texts. Prints the findings and a table; exit status 0 only without findings.
#   scripts/check-static.sh                        everything
#   scripts/check-static.sh [FILE ...]             these; a header through a source that includes it
#   scripts/check-static.sh --since main           what differs from that revision
#   scripts/check-static.sh --only cppcheck,text   these checks
set -euo pipefail
here=$PWD
cd "$(dirname "$0")/.."
root=$PWD
scripts/setup.sh
# For its compile commands, of each source alone; nothing is built there.
cmake --preset release -B build/static -DPOLICYROUTE_UNITY=OFF >/dev/null
arguments=()
for argument in "$@"; do
  [[ -e $here/$argument && $argument != /* ]] && argument=$here/$argument
  arguments+=("$argument")
done
exec scripts/check-static.py "$root/build/static" "${arguments[@]}"
