#!/usr/bin/env bash
# Prints how large the daemon is on the target: code of its own folders, the stripped process, and the record pools at
# the default limits. Wants the preset mips built:  cmake --preset mips && ninja -C build/mips policyrouted pbrctl
#   scripts/sizes.sh [BUILD]      default: build/mips
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/mips}
machine=mips-linux-gnu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

limit() {
  sed -nE "s/.*$1 = ([0-9]+).*/\1/p" core/pbr_start.h
}
slot() {
  sed -nE "s/.*sizeof\($1\) == ([0-9]+).*/\1/p" store/pbr_records.h
}

echo "Code of the daemon's own folders (mips32r2, as a switch maker builds it: -O2 or -Os, no sanitizer):"
for level in -O2 -Os; do
  for source in core/*.cpp store/*.cpp rtmsg/*.cpp nexthop/*.cpp hw/*.cpp api/*.cpp; do
    object=$work/$(basename "$source").o
    "$machine-g++" -std=gnu++20 $level -DNDEBUG -fno-exceptions -fno-rtti -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -I. \
      -c "$source" -o "$object"
  done
  read -r text data bss < <("$machine-size" "$work"/*.o | awk 'NR > 1 {t += $1; d += $2; b += $3} END {print t, d, b}')
  echo "  $level: text $text bytes ($((text / 1024)) KiB), data $data, bss $bss"
done

for program in policyrouted pbrctl; do
  [[ -e $build/$program ]] || { echo "$program: not built in $build"; continue; }
  "$machine-strip" -o "$work/$program" "$build/$program"
  echo "$program of $build, static and stripped, with the C and C++ libraries: $(stat -c %s "$work/$program") bytes"
done

lists=$(limit PBR_DEFAULT_MAX_LIST)
nodes=$(limit PBR_DEFAULT_MAX_NODE)
interfaces=$(limit PBR_DEFAULT_MAX_IF)
[[ $lists && $nodes && $interfaces ]] || { echo "sizes: core/pbr_start.h does not have the limits" >&2; exit 1; }
echo "Record pools at the default limits ($lists lists, $nodes nodes, $interfaces interfaces), taken with the first policy:"
total=0
while read -r pool record slots; do
  bytes=$(slot "$record")
  total=$((total + bytes * slots))
  printf '  %-12s %7d slots x %3d bytes = %8d\n' "$pool" "$slots" "$bytes" $((bytes * slots))
done <<POOLS
pbr_if PbrIfEntry $interfaces
pbr_list PbrListEntry $lists
pbr_node PbrNodeEntry $nodes
pbr_nexthop PbrNextHopEntry $((4 * nodes))
pbr_ifnode PbrIfNodeEntry $((interfaces * nodes))
pbr_nqa PbrNqaEntry $((4 * nodes))
POOLS
echo "  all pools: $total bytes ($((total / 1024)) KiB)"
