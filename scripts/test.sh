#!/usr/bin/env bash
# Sets up the machine, builds and passes all tests: release with the system tests, the same as 32-bit x86 programs with the
# address and undefined-behaviour sanitizers, the thread sanitizer with what has threads, 32-bit big-endian binaries under
# emulation, each fuzzer for a minute, and the static checks. scripts/test-table.py prints afterwards what ran.
# While one preset's tests run, which mostly wait, the next one is built; what it prints is in build/PRESET/build.log.
#   scripts/test.sh [PRESET ...]     default: tsan release i686 mips fuzz; asan is the x86-64 one of i686
#   PBR_FAST=1 scripts/test.sh debug the inner loop: one preset, unit tests only
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
presets=("$@")
((${#presets[@]})) || presets=(tsan release i686 mips fuzz)
passed=0
failed=0
builder= # the process group that builds in the background
trap '[[ ! $builder ]] || kill -- "-$builder" 2>/dev/null || true' EXIT

# Configures and builds a preset; what was printed is shown when it fails.
build() {
  local log=build/$1/build.log targets=()
  [[ $1 != fuzz ]] || targets=(--target fuzzers)
  mkdir -p "build/$1"
  { cmake --preset "$1" && cmake --build --preset "$1" "${targets[@]}"; } >"$log" 2>&1 && return
  cat "$log" >&2
  return 1
}

count() { # PASSED FAILED
  passed=$((passed + $1))
  failed=$((failed + $2))
}

started=$SECONDS
tell() {
  printf '== %s (%d:%02d)\n' "$1" $(((SECONDS - started) / 60)) $(((SECONDS - started) % 60))
}

tell "building ${presets[0]}"
build "${presets[0]}"
for ((i = 0; i < ${#presets[@]}; ++i)); do
  preset=${presets[i]}
  next=${presets[i + 1]:-}
  if [[ $builder ]]; then
    wait "$builder" || { builder=; echo "test: $preset does not build" >&2; exit 1; }
    builder=
  fi
  if [[ $next ]]; then # the tests come first
    set -m
    build "$next" &
    builder=$!
    set +m
    renice -n 19 -g "$builder" >/dev/null
  fi
  tell "$preset"
  if [[ $preset == fuzz ]]; then
    report=build/fuzz/fuzz.log
    scripts/fuzz.py build/fuzz "${PBR_FUZZ_SECONDS:-60}" 2>&1 | tee "$report" || true
    read -r good bad < <(sed -nE 's/^([0-9]+) passed, ([0-9]+) failed$/\1 \2/p' "$report" | tail -n 1) ||
      { echo "test: no result of the fuzzers" >&2; exit 1; }
    count "$good" "$bad"
    continue
  fi
  options=(--preset "$preset" -j4) # system tests mostly wait
  [[ ${PBR_FAST:-} ]] && options+=(-L unit)
  report=build/$preset/ctest.log
  ctest "${options[@]}" 2>&1 | tee "$report" || true
  read -r bad all < <(sed -nE 's/.* ([0-9]+) tests? failed out of ([0-9]+)$/\1 \2/p' "$report" | tail -n 1) ||
    { echo "test: no result of ctest for $preset" >&2; exit 1; }
  count $((all - bad)) "$bad"
done
if [[ ! ${PBR_FAST:-} ]]; then
  tell "static checks" # one test of the sum
  if scripts/check-static.sh; then
    count 1 0
  else
    count 0 1
  fi
fi
tell "done"
echo "$passed passed, $failed failed"
((failed == 0 && passed > 0))
