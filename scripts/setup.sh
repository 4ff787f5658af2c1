#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine needs to build, test and run policyroute. Does nothing where
# all of it is there. Never installs g++-multilib: it removes the cross compilers.
set -euo pipefail

packages=(
  g++ clang libclang-rt-14-dev cmake ninja-build pkg-config ccache git python3
  g++-mips-linux-gnu qemu-user-static
  libmnl-dev libnftnl-dev libseccomp-dev libboost-dev libcli11-dev libyaml-cpp-dev nlohmann-json3-dev libsqlite3-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev gcovr
  nftables iproute2 iputils-ping util-linux mount
  dpkg-dev passwd man-db groff-base systemd
)
missing=()
for package in "${packages[@]}"; do
  state=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
  [[ $state == "install ok installed" ]] || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
  exit 0
fi
as_root=()
if ((EUID != 0)); then
  command -v sudo >/dev/null || { echo "setup: not root and no sudo; install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
