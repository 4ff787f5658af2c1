#!/usr/bin/env bash
# Sets up the machine, builds, and shows the main job in private network namespaces: real packets steered
# by policy, a next hop that dies, the failover, and the way back. Exit status 0 only if each step was
# seen in packets counted at the far end.
#   scripts/demo.sh [--keep]     --keep: leave the network running afterwards and say how to look around
set -euo pipefail
cd "$(dirname "$0")/.."
for word in "$@"; do
  case $word in
    --keep) ;;
    *) echo "usage: scripts/demo.sh [--keep]" >&2; exit 2 ;;
  esac
done
scripts/setup.sh
echo "demo: building"
cmake --preset release >/dev/null
cmake --build --preset release --target policyrouted pbrctl | tail -n 1
exec python3 scripts/demo.py "$@"
