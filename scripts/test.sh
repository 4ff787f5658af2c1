#!/usr/bin/env bash
# Sets up the machine, builds and passes all tests: release with the system tests, the same as 32-bit x86 programs with the
# address and undefined-behaviour sanitizers, the thread sanitizer with what has threads, 32-bit big-endian binaries under
# emulation, each fuzzer for a minute, and the static checks. scripts/test-table.py prints afterwards what ran.
#   scripts/test.sh [PRESET ...]     default: release i686 tsan mips fuzz; asan is the x86-64 one of i686
#   PBR_FAST=1 scripts/test.sh debug the inner loop: one preset, unit tests only
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
presets=("$@")
((${#presets[@]})) || presets=(release i686 tsan mips fuzz)
passed=0
failed=0
for preset in "${presets[@]}"; do
  echo "== $preset"
  cmake --preset "$preset" >"build-$preset.log" 2>&1 || { cat "build-$preset.log"; rm -f "build-$preset.log"; exit 1; }
  rm -f "build-$preset.log"
  if [[ $preset == fuzz ]]; then
    cmake --build --preset fuzz --target fuzzers
    report=build/fuzz/fuzz.log
    scripts/fuzz.py build/fuzz "${PBR_FUZZ_SECONDS:-60}" 2>&1 | tee "$report" || true
    read -r good bad < <(sed -nE 's/^([0-9]+) passed, ([0-9]+) failed$/\1 \2/p' "$report" | tail -n 1) ||
      { echo "test: no result of the fuzzers" >&2; exit 1; }
    failed=$((failed + bad))
    passed=$((passed + good))
    continue
  fi
  cmake --build --preset "$preset"
  options=(--preset "$preset" -j2) # system tests mostly wait
  [[ ${PBR_FAST:-} ]] && options+=(-L unit)
  report=build/$preset/ctest.log
  ctest "${options[@]}" 2>&1 | tee "$report" || true
  read -r bad all < <(sed -nE 's/.* ([0-9]+) tests? failed out of ([0-9]+)$/\1 \2/p' "$report" | tail -n 1) ||
    { echo "test: no result of ctest for $preset" >&2; exit 1; }
  failed=$((failed + bad))
  passed=$((passed + all - bad))
done
if [[ ! ${PBR_FAST:-} ]]; then
  echo "== static checks" # one test of the sum
  if scripts/check-static.sh; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
  fi
fi
echo "$passed passed, $failed failed"
((failed == 0 && passed > 0))
