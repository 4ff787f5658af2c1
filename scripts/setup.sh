#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine needs to build, test and run policyroute. Does nothing where
# all of it is there. Never installs g++-multilib: it removes the cross compilers.
set -euo pipefail

packages=(
  g++ clang libclang-rt-14-dev cmake ninja-build pkg-config ccache git python3
  g++-mips-linux-gnu qemu-user-static
  g++-i686-linux-gnu libasan8-i386-cross libubsan1-i386-cross
  libmnl-dev libnftnl-dev libseccomp-dev libbpf-dev libboost-dev libcli11-dev libyaml-cpp-dev nlohmann-json3-dev libsqlite3-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev gcovr
  clang-tidy cppcheck shellcheck pyflakes3
  nftables iproute2 iputils-ping util-linux mount
  make tcl
  dpkg-dev passwd man-db groff-base systemd
)
missing=()
for package in "${packages[@]}"; do
  state=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
  [[ $state == "install ok installed" ]] || missing+=("$package")
done
as_root=()
if ((EUID != 0)); then
  as_root=(sudo)
fi
if ((${#missing[@]})); then
  [[ ! ${as_root[*]} ]] || command -v sudo >/dev/null ||
    { echo "setup: not root and no sudo; install: ${missing[*]}" >&2; exit 1; }
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
# The presets mips and i686 want them too; nothing else does.
scripts=$(dirname "$(readlink -f "$0")")
"$scripts/foreign-libraries.sh" --check || "${as_root[@]}" "$scripts/foreign-libraries.sh" ||
  echo "setup: no libraries for 32-bit MIPS and x86: presets mips and i686 build without policyrouted and pbrctl" >&2
