#!/usr/bin/env bash
# Installs the build the ways users and packagers do and builds a program
# outside the tree against the result, through pkg-config and through
# find_package(karvex):
# - `cmake --install --prefix DIR` writes every file under DIR (the udev rule
#   and the man pages included), and the installed tools run from there;
# - the tree moved elsewhere afterwards still serves both consumers;
# - DESTDIR staging puts every file under the stage.
# Also checks the installed file set and the version file's SameMajorVersion rule.
# Usage: test-install.sh BUILD_DIR CONSUMER_SOURCE_DIR C_COMPILER
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
BUILD=$1
CONSUMER=$2
CC=$3
RUN_TIMEOUT=120
PREFIX="$HARNESS_TMP/prefix"
MOVED="$HARNESS_TMP/elsewhere/moved"
PROJECT_VERSION=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD/CMakeCache.txt")

run_prog cmake --install "$BUILD" --prefix "$PREFIX"
if [ "$status" -ne 0 ]; then
    echo "cmake --install --prefix failed: $errors" >&2
    exit 1
fi
cp "$BUILD/install_manifest.txt" "$HARNESS_TMP/manifest"
# A second copy, moved elsewhere after installing, for the consumers.
run_prog cmake --install "$BUILD" --prefix "$HARNESS_TMP/first-place"
mkdir -p "$(dirname "$MOVED")"
if [ "$status" -ne 0 ] || ! mv "$HARNESS_TMP/first-place" "$MOVED"; then
    echo "cannot install and move a second tree: $errors" >&2
    exit 1
fi
pcfile=$(find "$PREFIX" -name karvex.pc | head -n 1)
libdir=$(dirname "$(dirname "$pcfile")")
librel=${libdir#"$PREFIX"/}
moved_libdir="$MOVED/$librel"

test_prefix_holds_every_installed_file() {
    local outside
    [ -s "$HARNESS_TMP/manifest" ] || fail "empty install manifest"
    outside=$(grep -v "^$PREFIX/" "$HARNESS_TMP/manifest")
    [ -z "$outside" ] || fail "installed outside the prefix: $outside"
}

test_installed_files() {
    local f
    for f in include/karvex/karvex_api.h bin/karvexctl lib/udev/rules.d/70-karvex.rules \
             share/man/man1/karvexctl.1 share/man/man1/karvex-emu.1 share/man/man3/libkarvex.3 \
             "$librel/cmake/karvex/karvexConfig.cmake" "$librel/cmake/karvex/karvexConfigVersion.cmake"; do
        [ -f "$PREFIX/$f" ] || fail "$f not installed"
    done
    [ -x "$PREFIX/bin/karvex-emu" ] || fail "karvex-emu not installed"
    [ -L "$libdir/libkarvex.so" ] || fail "libkarvex.so (development link) missing in $libdir"
    [ -L "$libdir/libkarvex.so.1" ] || fail "libkarvex.so.1 (soname link) missing"
    [ "$(readlink "$libdir/libkarvex.so")" = libkarvex.so.1 ] || fail "libkarvex.so does not point at the soname"
    grep -q '^Requires.private: libudev$' "$pcfile" || fail "karvex.pc lacks Requires.private: libudev"
    # Only the public header goes out.
    [ "$(find "$PREFIX/include" -type f | wc -l)" = 1 ] || fail "more than the one public header installed"
}

test_installed_tools_run() {
    run_prog "$PREFIX/bin/karvexctl" --version
    status_is 0 "installed karvexctl finds the installed library"
    run_prog "$PREFIX/bin/karvex-emu" -- "$PREFIX/bin/karvexctl" list
    status_is 0
    output_matches '^/dev/hidraw0 1209:7a01 '
}

test_moved_tree_names_no_old_path() {
    local stale
    stale=$(grep -rlF "$HARNESS_TMP/first-place" "$MOVED")
    [ -z "$stale" ] || fail "files still naming the install prefix: $stale"
}

test_pkg_config_consumer_in_moved_tree() {
    local flags
    flags=$(PKG_CONFIG_PATH="$moved_libdir/pkgconfig" pkg-config --cflags --libs karvex)
    [[ "$flags" == *"-I$MOVED/$librel/pkgconfig/../../include"* || "$flags" == *"-I$MOVED/include"* ]] ||
        fail "pkg-config flags do not point into the moved tree: $flags"
    # shellcheck disable=SC2086
    run_prog "$CC" -std=c99 -Wall -Wextra -Werror -o "$HARNESS_TMP/consumer-pc" "$CONSUMER/consumer.c" $flags
    status_is 0 "compile with pkg-config flags: $flags"
    LD_LIBRARY_PATH="$moved_libdir" run_prog "$HARNESS_TMP/consumer-pc"
    status_is 0
    output_is "libkarvex API 1.0, TSTATUS_INVALID_HANDLE"
    [ "$(PKG_CONFIG_PATH="$moved_libdir/pkgconfig" pkg-config --modversion karvex)" = "$PROJECT_VERSION" ] ||
        fail "karvex.pc version differs from the project version"
}

test_find_package_consumer_in_moved_tree() {
    run_prog cmake -S "$CONSUMER" -B "$HARNESS_TMP/consumer-cmake" -DCMAKE_PREFIX_PATH="$MOVED" -DCMAKE_C_COMPILER="$CC"
    status_is 0 "configure: $errors"
    run_prog cmake --build "$HARNESS_TMP/consumer-cmake"
    status_is 0 "build"
    run_prog "$HARNESS_TMP/consumer-cmake/consumer"
    status_is 0 "run (the imported target carries the library's location)"
    output_is "libkarvex API 1.0, TSTATUS_INVALID_HANDLE"
    # SameMajorVersion: a request for 2 must not accept 1.x.
    run_prog cmake -S "$CONSUMER" -B "$HARNESS_TMP/consumer-v2" -DCMAKE_PREFIX_PATH="$MOVED" -DCMAKE_C_COMPILER="$CC" \
        -DKARVEX_WANTED_VERSION=2
    [ "$status" -ne 0 ] || fail "find_package(karvex 2) accepted version 1"
}

test_tools_run_in_moved_tree() {
    run_prog "$MOVED/bin/karvexctl" --version
    status_is 0 "karvexctl finds the library relative to itself"
}

test_destdir_stages_every_file() {
    local stage="$HARNESS_TMP/stage" prefix missing
    prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$BUILD/CMakeCache.txt")
    DESTDIR="$stage" run_prog cmake --install "$BUILD"
    status_is 0 "DESTDIR install: $errors"
    missing=$(while read -r f; do [ -e "$stage$f" ] || [ -L "$stage$f" ] || echo "$f"; done <"$BUILD/install_manifest.txt")
    [ -z "$missing" ] || fail "not staged: $missing"
    [ -f "$stage$prefix/lib/udev/rules.d/70-karvex.rules" ] || fail "udev rule not staged under the prefix"
}

run_tests
