#!/usr/bin/env bash
# Builds the Debian packages of libkarvex from this tree (debian/):
# libkarvex1, libkarvex-common, libkarvex-dev, karvexctl and karvex-emu.
#
#   scripts/build-debs.sh [--lintian] [OUT_DIR]    (default OUT_DIR: build/debs)
#
# The packages come from a copy of the tree (dpkg-buildpackage writes next to
# the source directory and into debian/), so the work tree stays as it is.
# Build dependencies missing on the machine stop the build with their names
# (scripts/install-deps.sh installs them). --lintian runs lintian on the
# result and fails on an error. Install the result with
#   sudo apt install ./build/debs/*.deb
# JOBS sets the build's parallelism (default: the number of cores).
set -euo pipefail
run_lintian=0
if [ "${1:-}" = --lintian ]; then
  run_lintian=1
  shift
fi
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/build/debs}
jobs=${JOBS:-$(nproc)}
version=$(dpkg-parsechangelog -l "$root/debian/changelog" -S Version)
project_version=$(sed -n 's/^project(karvex VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
if [ "$version" != "$project_version" ]; then
  echo "build-debs: debian/changelog is at $version, the project at $project_version" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
src="$work/libkarvex-$version"
mkdir "$src"
tar -C "$root" --exclude=./build --exclude='./build-*' --exclude=./.git -cf - . | tar -C "$src" -xf -

# No -dbgsym packages: 'apt install ./*.deb' gets exactly the five.
(cd "$src" && DEB_BUILD_OPTIONS="noddebs parallel=$jobs ${DEB_BUILD_OPTIONS:-}" \
   dpkg-buildpackage -b -us -uc >"$work/build.log" 2>&1) || {
  echo "build-debs: dpkg-buildpackage failed; end of its log:" >&2
  tail -n 60 "$work/build.log" >&2
  exit 1
}
mkdir -p "$out"
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
for deb in "$out"/*.deb; do
  printf '%-48s %6s KiB\n' "$(basename "$deb")" "$(( $(stat -c %s "$deb") / 1024 ))"
done
if [ "$run_lintian" = 1 ]; then
  lintian --fail-on error --info "$out"/*.changes
fi
