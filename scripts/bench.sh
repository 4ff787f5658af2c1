#!/usr/bin/env bash
# Measures policyroute and writes a report: sets up the machine, builds what is measured, runs all benchmarks.
#   scripts/bench.sh                 everything, half an hour; --quick some minutes, --smoke some seconds
#   scripts/bench.sh --part forward  one part; bench/run.py --help has all options
#   scripts/bench.sh --docs          writes the report into docs/performance.md too
# The report: build/bench/full/report.md, or quick/, smoke/. Root is needed. Packets stay in network namespaces of their own;
# nothing is installed beyond what scripts/setup.sh installs: FRR's package, with which policyroute is compared, is unpacked
# below build/bench.
set -euo pipefail
cd "$(dirname "$0")/.."
((EUID == 0)) || { echo "bench: run it as root" >&2; exit 1; }
scripts/setup.sh
mkdir -p build/bench
cmake --preset release >build/bench/cmake.log 2>&1 || { cat build/bench/cmake.log >&2; exit 1; }
cmake --build --preset release --target policyrouted pbrctl bench_programs
POLICYROUTE_BUILD=$PWD/build/release exec python3 bench/run.py "$@"
