#!/usr/bin/env bash
# Builds a Debian package of policyroute and prints its file name.
#   scripts/package.sh [--build DIR] [--output DIR]
# DIR of --build: a build folder whose policyrouted and pbrctl are taken as they are; without it build/release
# is configured and built. The package is put into build/package, or the folder of --output.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
build=
output=build/package
while (($#)); do
  case $1 in
    --build) build=${2:?--build needs a folder}; shift 2 ;;
    --output) output=${2:?--output needs a folder}; shift 2 ;;
    *) echo "usage: scripts/package.sh [--build DIR] [--output DIR]" >&2; exit 2 ;;
  esac
done
if [[ -z $build ]]; then
  build=build/release
  cmake --preset release >&2
  cmake --build --preset release --target policyrouted pbrctl >&2
fi
for program in policyrouted pbrctl; do
  [[ -x $build/$program ]] || { echo "package: $build/$program is not there: build it first" >&2; exit 1; }
done
mkdir -p "$output"
output=$(realpath "$output")
version=$(sed -n 's/^project(policyroute VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
maintainer=$(sed -n 's/^Maintainer: //p' packaging/debian/control.in)
# The same sources make the same package: its files are not younger than the last commit.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
export SOURCE_DATE_EPOCH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
umask 022
stage=$work/stage

# ---- the files ----
DESTDIR=$stage cmake --install "$build" --prefix /usr --strip >"$work/install.log" || { cat "$work/install.log" >&2; exit 1; }
doc=$stage/usr/share/doc/policyroute
mkdir -p "$doc/examples"
cp examples/*.yaml "$doc/examples/"
cp docs/operations.md docs/policy-file.md docs/acls.md docs/probes.md docs/time-ranges.md docs/kernel-device.md "$doc/"
cp CHANGELOG.md "$doc/CHANGELOG.md"
printf 'policyroute (%s) stable; urgency=medium\n\n  * What is new for operators: CHANGELOG.md beside this file.\n\n -- %s  %s\n' \
  "$version" "$maintainer" "$(date -u -R -d "@$SOURCE_DATE_EPOCH")" | gzip -9n >"$doc/changelog.gz"
cat >"$doc/copyright" <<'TEXT'
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: policyroute

Files: *
Copyright: 2026 the policyroute developers
License: Apache-2.0
 On Debian systems the text is in /usr/share/common-licenses/Apache-2.0.
TEXT
find "$stage/usr/share/man" -type f -exec gzip -9n {} +
find "$stage" -type d -exec chmod 755 {} +
find "$stage" -type f ! -perm -u+x -exec chmod 644 {} +

# ---- what it is, and the libraries that the programs are linked with ----
architecture=$(dpkg --print-architecture)
mkdir "$work/debian"
printf 'Source: policyroute\n\nPackage: policyroute\nArchitecture: any\n' >"$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O "$stage/usr/sbin/policyrouted" "$stage/usr/bin/pbrctl" 2>"$work/shlibdeps.log" |
  sed -n 's/^shlibs:Depends=//p')
[[ -n $depends ]] || { cat "$work/shlibdeps.log" >&2; echo "package: no dependencies found" >&2; exit 1; }
mkdir "$stage/DEBIAN"
sed -e "s/@VERSION@/$version/" -e "s/@ARCHITECTURE@/$architecture/" -e "s/@DEPENDS@/$depends/" \
  -e "s/@INSTALLED_SIZE@/$(du -sk --exclude=DEBIAN "$stage" | cut -f1)/" \
  "$source_dir/packaging/debian/control.in" >"$stage/DEBIAN/control"
echo /etc/policyroute/policyroute.conf >"$stage/DEBIAN/conffiles"
for script in postinst prerm postrm; do
  install -m 755 "packaging/debian/$script" "$stage/DEBIAN/$script"
done
(cd "$stage" && find . -type f ! -path './DEBIAN/*' ! -path './etc/*' -printf '%P\0' | sort -z | xargs -0 md5sum) \
  >"$stage/DEBIAN/md5sums"
chmod 644 "$stage/DEBIAN/"{control,conffiles,md5sums}

package=$output/policyroute_${version}_$architecture.deb
dpkg-deb --root-owner-group --build "$stage" "$package" >"$work/build.log" || { cat "$work/build.log" >&2; exit 1; }
if command -v lintian >/dev/null; then
  lintian --fail-on error "$package" >&2
fi
echo "$package"
