#!/usr/bin/env bash
# Builds the fuzzers and runs each for SECONDS (default 60), two at a time; prints a table and fails on a
# finding. Without names it runs all.
#   scripts/fuzz.sh [SECONDS] [FUZZER ...]     e.g. scripts/fuzz.sh 1800, or scripts/fuzz.sh 600 journal
# What they found worth keeping stays in build/fuzz/corpus and is where the next run begins; inputs of findings
# are in build/fuzz/findings, and build/fuzz/fuzz/fuzz_NAME FILE runs one again.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzzers
scripts/fuzz.py build/fuzz "$@"
