#!/usr/bin/env bash
# Fetches from Debian the libraries that its cross compilers lack, for the presets mips and i686. Nothing is
# installed as a package, and the package manager's own lists and architectures stay as they are.
#   DIR/sources/yaml-cpp, DIR/sources/sqlite   sources, built with the programs (32-bit MIPS has no packages)
#   DIR/i686                                   unpacked i386 packages
#   scripts/foreign-libraries.sh [--check] [DIR]   DIR is else /usr/src/policyroute
# Does nothing where all of it is there; --check only tells, by its exit status, whether it is.
set -euo pipefail

check=
if [[ ${1:-} == --check ]]; then
  check=1
  shift
fi
dir=${1:-/usr/src/policyroute}
done=$dir/complete-2 # another number when what is fetched changes
if [[ -e $done || $check ]]; then
  [[ -e $done ]]
  exit
fi
mkdir -p "$dir"
work=$(mktemp -d "$dir/fetch.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/lists/partial "$work"/cache/archives/partial "$work"/sources "$work"/i686
signed='[signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]'
# The archive that this machine uses, asked for sources and i386 packages of the release itself.
# shellcheck disable=SC2016 # the words are apt's
apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
  awk '$2 !~ /-/ && $3 == "main"' | sort -u |
  while read -r archive; do
    printf 'deb %s %s\ndeb-src %s %s\n' "$signed" "$archive" "$signed" "$archive"
  done >"$work/sources.list"
[[ -s $work/sources.list ]] || { echo "foreign-libraries: apt knows no archive with a component 'main'" >&2; exit 1; }
apt=(apt-get -qq -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts=-
  -o Dir::State::lists="$work/lists" -o Dir::Cache="$work/cache" -o Dir::State::status=/dev/null
  -o APT::Architecture=i386 -o APT::Architectures::=i386 -o APT::Sandbox::User="$(id -un)")
echo "foreign-libraries: fetching libraries for 32-bit MIPS and x86 into $dir"
"${apt[@]}" update
cd "$work/sources"
"${apt[@]}" source yaml-cpp sqlite3 >/dev/null
mv yaml-cpp-*/ yaml-cpp
# SQLite is compiled from one file, which its own makefile puts together.
(cd sqlite3-*/ && ./configure --disable-tcl >/dev/null && make sqlite3.c >/dev/null)
mkdir sqlite
mv sqlite3-*/sqlite3.[ch] sqlite
rm -rf sqlite3* ./*.dsc ./*.tar.*
cd "$work/i686"
"${apt[@]}" download libmnl0 libmnl-dev libnftnl11 libnftnl-dev libseccomp2 libseccomp-dev \
  libyaml-cpp0.7 libyaml-cpp-dev libsqlite3-0 libsqlite3-dev
for package in *.deb; do
  dpkg -x "$package" .
  rm "$package"
done
rm -rf "${dir:?}/sources" "${dir:?}/i686"
mv "$work/sources" "$work/i686" "$dir"
touch "$done"
