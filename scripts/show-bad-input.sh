#!/usr/bin/env bash
# Prints what a person sees for bad input of each kind, from the real programs: the table of docs/bad-input.md.
#   scripts/show-bad-input.sh          POLICYROUTE_BUILD=build/asan scripts/show-bad-input.sh
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 tests/system/bad_input_test.py print
